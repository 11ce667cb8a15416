// Table access of the operator tool: directory summaries, the seven tables
// behind one interface chosen by registered row type, and private copies.
#include "TableAccess.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Error.h"
#include "Mem/Fd.h"
#include "Mem/RootPath.h"
#include "Mem/SharedGround.h"
#include "Mirak/IterHint.h"
#include "Mirak/SlotLink.h"
#include "MirakCore/BucketTable.h"
#include "MirakCore/BucketWriter.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/WriterLock.h"
#include "Tessel/TesselFormat.h"

namespace FlowtableCli {

namespace fs = std::filesystem;

namespace {

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("flowtable");
}

constexpr char kSlotFile[] = "slots";
// Directories deeper than this under the root are not walked (and said so):
// the walk holds one descriptor per level.
constexpr int kMaxDepth = 32;

// The fixed part of the slot header, read with one pread: no mapping, and so
// nothing that a writer's resize could pull away. On failure `error` says why
// and `missing` whether there is no file of that name at all.
std::optional<Mirak::SlotTable::Header> readHeader(std::string const& path, std::string& error,
                                                   bool* missing = nullptr) {
  std::string openError;
  Mem::Fd const fd(Mem::openSharedFile(path, O_RDONLY, 0, openError));
  if (fd.get() < 0) {
    if (missing) *missing = errno == ENOENT || errno == ENOTDIR;
    error = openError;
    return std::nullopt;
  }
  Mirak::SlotTable::Header h;
  ssize_t const n = ::pread(fd.get(), &h, sizeof h, 0);
  if (n != static_cast<ssize_t>(sizeof h)) {
    error = n < 0 ? Mem::posixError(fmt::format("read {}", path), errno)
                  : fmt::format("{} is shorter than a slot header ({} bytes)", path, n);
    return std::nullopt;
  }
  if (std::memcmp(h.magic, Mirak::SlotTable::kMagic, sizeof h.magic) != 0) {
    error = fmt::format("{} is not a slot file (bad magic)", path);
    return std::nullopt;
  }
  h.valueType[Mirak::SlotTable::kValueTypeLen - 1] = '\0';
  return h;
}

// The names in the directory open at `fd`, with their kinds as lstat tells
// them (a link is a link). False with `error` set when it cannot be listed.
bool listDirectory(int fd, std::string const& dir,
                   std::vector<std::pair<std::string, mode_t>>& entries, std::string& error) {
  int const listFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  DIR* const d = listFd < 0 ? nullptr : ::fdopendir(listFd);
  if (!d) {
    error = Mem::posixError(fmt::format("list {}", dir), errno);
    if (listFd >= 0) ::close(listFd);
    return false;
  }
  ::rewinddir(d);
  bool ok = true;
  for (;;) {
    errno = 0;
    struct dirent const* e = ::readdir(d);
    if (!e) {
      if (errno != 0) {
        error = Mem::posixError(fmt::format("list {}", dir), errno);
        ok = false;
      }
      break;
    }
    std::string const name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;  // gone since it was listed
      error = Mem::posixError(fmt::format("lstat {}/{}", dir, name), errno);
      ok = false;
      break;
    }
    entries.emplace_back(name, st.st_mode);
  }
  ::closedir(d);
  return ok;
}

// Walks the directory open at `fd` (named `rel` under `root`; "" for the
// root), `depth` levels down.
void walk(int fd, std::string const& root, std::string const& rel, int depth,
          std::vector<std::string>& tables, std::vector<Unwalked>& unwalked) {
  std::string const dir = rel.empty() ? root : root + "/" + rel;
  std::vector<std::pair<std::string, mode_t>> entries;
  std::string error;
  if (!listDirectory(fd, dir, entries, error)) {
    if (rel.empty())
      throw Lomi::InvalidInitializeException("cannot read the root {}: {}", root, error);
    unwalked.push_back({rel, error});
    return;
  }
  std::sort(entries.begin(), entries.end());
  for (auto const& [name, mode] : entries) {
    std::string const sub = rel.empty() ? name : rel + "/" + name;
    if (name == kSlotFile && !rel.empty()) tables.push_back(rel);
    if (S_ISLNK(mode)) {
      // Only a link that stands for a directory is worth a word: a table
      // reached through it would be read from wherever it points.
      struct stat target;
      if (::fstatat(fd, name.c_str(), &target, 0) == 0 && S_ISDIR(target.st_mode)) {
        unwalked.push_back({sub, "is a symbolic link to a directory; links are not followed"});
      }
      continue;
    }
    if (!S_ISDIR(mode)) continue;
    if (depth + 1 > kMaxDepth) {
      unwalked.push_back({sub, fmt::format("is deeper than {} levels; not walked", kMaxDepth)});
      continue;
    }
    Mem::Fd const child(
        ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (child.get() < 0) {
      unwalked.push_back({sub, Mem::posixError(fmt::format("open {}/{}", root, sub), errno)});
      continue;
    }
    walk(child.get(), root, sub, depth + 1, tables, unwalked);
  }
}

// Allocated bytes of the regular files directly in `dir`; false with `error`
// when it cannot be listed.
bool bytesOnDisk(std::string const& dir, uint64_t& total, std::string& error) {
  Mem::Fd const fd(Mem::openSharedDirectory(dir, O_NONBLOCK, error));
  if (fd.get() < 0) return false;
  std::vector<std::pair<std::string, mode_t>> entries;
  if (!listDirectory(fd.get(), dir, entries, error)) return false;
  total = 0;
  for (auto const& [name, mode] : entries) {
    struct stat st;
    if (S_ISREG(mode) && ::fstatat(fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(st.st_mode)) {
      total += static_cast<uint64_t>(st.st_blocks) * 512;
    }
  }
  return true;
}

// The kestor file's id; a file that is there but is no regular file, cannot
// be read or holds no valid record adds its reason to `s.errors`.
void readKestor(Mem::NaoRootPath const& path, TableSummary& s) {
  Parcel::KestorFile const file(handler(), path, false);
  s.kestor = file.read().value();
  if (s.kestor != 0) return;
  std::string error;
  Mem::Fd const fd(Mem::openSharedFile(file.path(), O_RDONLY, 0, error));
  if (fd.get() < 0) {
    if (errno != ENOENT) s.errors.push_back(error);
    return;
  }
  // The file is there, so a false validate says what is wrong with it.
  Parcel::KestorId const wanted(s.header && s.header->kestor ? s.header->kestor : 1);
  if (!file.validate(wanted, error)) s.errors.push_back(error);
}

TableSummary summarizeDir(std::string const& root, std::string const& name) {
  TableSummary s;
  s.name = name;
  s.dir = root + "/" + name;
  s.header = readHeader(s.dir + "/" + kSlotFile, s.headerError, &s.slotFileMissing);
  if (!s.header) s.errors.push_back(s.headerError);
  std::string error;
  if (!bytesOnDisk(s.dir, s.bytesOnDisk, error)) s.errors.push_back(error);
  // The files are named relative to the process-wide base, which the tool
  // sets to the root.
  Mem::NaoRootPath const path(handler(), name, false);
  readKestor(path, s);
  try {
    Parcel::OwnerFile const owner(handler(), path, false);
    auto const record = owner.record();
    if (record) {
      s.writerPid = record->writerPid;
      s.writerAlive = Parcel::WriterLock::ownerIsAlive(owner);
    }
  } catch (Lomi::Exception const& e) {
    s.errors.push_back(e.msg());
  }
  return s;
}

}  // namespace

Listing listTables(std::string const& root) {
  Mem::Fd const fd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) {
    throw Lomi::InvalidInitializeException("cannot read the root {}: {}", root,
                                           Mem::posixError("open", errno));
  }
  std::vector<std::string> names;
  Listing out;
  walk(fd.get(), root, "", 0, names, out.unwalked);
  std::sort(names.begin(), names.end());
  std::sort(out.unwalked.begin(), out.unwalked.end(),
            [](Unwalked const& a, Unwalked const& b) { return a.name < b.name; });
  for (auto const& n : names) out.tables.push_back(summarizeDir(root, n));
  return out;
}

TableSummary summarize(std::string const& root, std::string const& name) {
  TableSummary s;
  if (!name.empty()) s = summarizeDir(root, name);
  if (name.empty() || s.slotFileMissing) {
    throw Lomi::InvalidInitializeException("no table {} under {} (no slot file there)", name, root);
  }
  return s;
}

AnyTable::~AnyTable() = default;

namespace {

template <typename Ops>
class Table final : public AnyTable {
 public:
  using Value = typename Ops::Value;
  using Key = typename Ops::Key;
  using Record = typename Ops::Value::Record;
  using Reader = Mirak::MirakReader<Ops>;
  using Writer = Mirak::MirakWriter<Ops>;

  Table(Zeb::ZebTypeBase const& rowType, std::string const& name) : AnyTable(rowType, name) {
    static_assert(sizeof(Record) == Ops::valueSize);
  }

  bool attachReader(std::string& why) override {
    reader_ = std::make_unique<Reader>(handler(), name_, Ops(0));
    if (reader_->initialize("flowtable")) return true;
    why = fmt::format(
        "table {} is not ready for readers: its files are missing, incomplete or damaged (a "
        "writer may be formatting it)",
        name_);
    reader_.reset();
    return false;
  }

  uint64_t walk(uint64_t limit, std::function<void(void const*)> const& row) override {
    Value v;
    Mirak::IterHint hint;
    uint64_t n = 0;
    bool valid = reader().first(v, hint);
    while (valid && (limit == 0 || n < limit)) {
      Record const r = v;
      row(&r);
      ++n;
      Key const key = Ops::key(v);
      valid = reader().next(key, v, hint);
    }
    return n;
  }

  bool get(Zeb::String const& keyStrep, void* record) override {
    Key const key = Zeb::strepToValue(keyStrep, static_cast<Key*>(nullptr));
    Value buffer;
    bool found = false;
    Value const* p = reader().lookup(key, found, &buffer);
    Record const r = *p;
    std::memcpy(record, &r, sizeof r);
    return found;
  }

  std::string dumpHeaders() const override { return reader().dumpHeaders(); }
  uint32_t slotSize() const override { return Mirak::SlotGeometry<Value>::slotSize; }

  WatchSummary watch(bool keyOnly, std::function<void(HeardChange const&)> const& heard,
                     std::function<bool()> const& done) override {
    WatchSummary sum;
    auto rowText = [this](Value const& v) {
      Record const r = v;
      return std::string(strep(&r).c_str());
    };
    auto keyText = [](Key const& k) {
      using FlowTracking::valueToStrep;
      return std::string(valueToStrep(k).c_str());
    };
    ShadowWatch<Ops> shadow(
        name_, keyOnly,
        [&](HeardChange const& c) {
          ++sum.changes;
          sum.removals += c.removed;
          heard(c);
        },
        rowText, keyText);
    Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
    while (!done()) {
      loop.runOnce(0.1);
      sum.mounted = sum.mounted || shadow.mountStatus() != 0;
    }
    sum.sequence = shadow.sequence();
    sum.counters = shadow.readerCounters().toString();
    return sum;
  }
  std::string readerCounters() const override { return reader().readerCounters().toString(); }
  uint32_t members() const override { return reader().members(); }

  bool check(uint32_t maxSlots, std::string& error) override {
    Mirak::MapDescriptor d(maxSlots);
    d.local = false;
    Writer w(handler(), name_.c_str(), d, Ops(0));
    Mem::NaoRootPath const path = w.rootPath();
    Parcel::KestorId const kestor = Parcel::KestorFile(handler(), path, false).read();
    if (kestor.isZero()) {
      error = fmt::format("{} has no valid kestor file: no writer finished formatting it", name_);
      return false;
    }
    // The slot header proves its generation before anything is attached: a
    // writer would format files of another generation anew, and an empty new
    // table validates.
    std::string headerError;
    auto const header = readHeader(path.filePath(kSlotFile), headerError);
    if (!header) {
      error = headerError;
      return false;
    }
    if (header->kestor != kestor.value()) {
      error = fmt::format("slot file of {} holds kestor {}, the kestor file {}", name_,
                          Parcel::KestorId(header->kestor), kestor);
      return false;
    }
    try {
      if (!w.attach(kestor)) {
        error = fmt::format("the files of {} do not all belong to kestor {}", name_, kestor);
        return false;
      }
      return w.validate(kestor, error, false);
    } catch (Lomi::Exception const& e) {
      error = e.msg();
      return false;
    }
  }

 private:
  Reader& reader() const {
    if (!reader_) throw Lomi::RuntimeException("table {} is not attached", name_);
    return *reader_;
  }
  std::unique_ptr<Reader> reader_;
};

template <typename Ops>
std::unique_ptr<AnyTable> make(Zeb::ZebTypeBase const& t, std::string const& name) {
  return std::make_unique<Table<Ops>>(t, name);
}

struct Kind {
  char const* valueType;
  std::unique_ptr<AnyTable> (*open)(Zeb::ZebTypeBase const&, std::string const&);
};

Kind const kinds[] = {
    {"FlowTracking::HoIpFlowConfig", &make<FlowTracking::HoIpFlowConfigOps>},
    {"FlowTracking::HoIp6FlowConfig", &make<FlowTracking::HoIp6FlowConfigOps>},
    {"FlowTracking::HoIpFlowStatus", &make<FlowTracking::HoIpFlowStatusOps>},
    {"FlowTracking::HoIp6FlowStatus", &make<FlowTracking::HoIp6FlowStatusOps>},
    {"FlowTracking::HoIpFlowCounter", &make<FlowTracking::HoIpFlowCounterOps>},
    {"FlowTracking::HoIp6FlowCounter", &make<FlowTracking::HoIp6FlowCounterOps>},
    {"FlowTracking::HosStateCounterEntry", &make<FlowTracking::HosStateCounterOps>},
};

}  // namespace

std::unique_ptr<AnyTable> openTable(std::string const& valueType, std::string const& name) {
  Zeb::ZebTypeBase const& t = Zeb::typeByName(valueType);
  for (auto const& k : kinds) {
    if (valueType == k.valueType) return k.open(t, name);
  }
  throw Lomi::InvalidInitializeException("table {} holds values of type {}, which is no table row",
                                         name, valueType);
}

namespace {

// Bytes of the kestor and owner records copied at most: a page, more than
// either record (16 and 512 bytes), so a record that is too long stays too
// long in the copy and fails there as it would in place.
constexpr uint64_t kRecordCopyLimit = 4096;

// Reads `size` bytes at `offset`; false when the file is shorter.
bool readAt(int fd, void* into, size_t size, off_t offset) {
  return ::pread(fd, into, size, offset) == static_cast<ssize_t>(size);
}

// How many bytes of the table file `name` (open at `fd`) a validation reads:
// what its header says the writer maps. A header that is cut short, or that
// holds a size the format cannot have, gives just the header: enough for the
// validation to say what is wrong with it. `mostSlots` is the slot header's.
uint64_t copyLimit(std::string const& name, int fd, std::string const& path, uint32_t slotSize,
                   uint32_t mostSlots) {
  using Buckets = MirakCore::BucketTable<Mirak::SlotLink>;
  // `size` of a header `h` read from the file's start, or the header's size.
  auto sized = [&](auto& h, uint64_t headerSize, auto size) -> uint64_t {
    if (!readAt(fd, &h, sizeof h, 0)) return headerSize;
    try {
      return size();
    } catch (Lomi::RuntimeException const&) {
      return headerSize;
    }
  };
  if (name == kSlotFile) {
    uint64_t const headerSize = Mirak::SlotTable::kHeaderFixedSize + slotSize;
    Mirak::SlotTable::Header h;
    return sized(h, headerSize, [&] {
      return Lomi::Util::fileSizeHelper(h.numSlots.value, slotSize, headerSize);
    });
  }
  if (name == MirakCore::BucketWriter<Mirak::SlotLink>::kFileName) {
    Buckets::Header h;
    return sized(h, sizeof h, [&] {
      uint32_t const count = h.numBuckets.value;
      return count == 0 || count > Buckets::kMaxNumBuckets ? sizeof h
                                                           : Buckets::Header::mapSize(count);
    });
  }
  if (name == Tessel::kHeaderFileName) {
    Tessel::TesselHeader h;
    // The writer attaches the queue for the slot file's mostSlots.
    return sized(h, sizeof h,
                 [&] { return Tessel::headerFileSize(std::max(h.mostSlots, mostSlots), path); });
  }
  if (name == Tessel::kTableFileNames[0] || name == Tessel::kTableFileNames[1]) {
    Tessel::TesselTableHeader h;
    return sized(h, sizeof h, [&] { return Tessel::tableFileSize(h.capacity, path); });
  }
  return kRecordCopyLimit;
}

// Copies the first `limit` bytes of `in` (`path`, `size` bytes long) to
// `out`, data only: a hole of the source stays a hole of the copy.
void copyData(int in, int out, std::string const& path, uint64_t size, uint64_t limit) {
  uint64_t const length = std::min(size, limit);
  if (::ftruncate(out, static_cast<off_t>(length)) != 0) {
    throw Lomi::RuntimeException("{}", Mem::posixError(fmt::format("copy {}", path), errno));
  }
  std::vector<char> buffer(1 << 20);
  uint64_t at = 0;
  while (at < length) {
    off_t data = ::lseek(in, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // only a hole is left
    off_t hole = data < 0 ? -1 : ::lseek(in, data, SEEK_HOLE);
    if (data < 0 || hole < 0) {
      // No hole seeking here: copy it all.
      data = static_cast<off_t>(at);
      hole = static_cast<off_t>(length);
    }
    uint64_t const end = std::min<uint64_t>(static_cast<uint64_t>(hole), length);
    for (uint64_t pos = static_cast<uint64_t>(data); pos < end;) {
      size_t const want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), end - pos));
      ssize_t const n = ::pread(in, buffer.data(), want, static_cast<off_t>(pos));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        throw Lomi::RuntimeException("{}", Mem::posixError(fmt::format("read {}", path), errno));
      }
      if (n == 0) return;  // shortened since: the copy keeps the length it had
      if (::pwrite(out, buffer.data(), static_cast<size_t>(n), static_cast<off_t>(pos)) != n) {
        throw Lomi::RuntimeException("{}", Mem::posixError(fmt::format("copy {}", path), errno));
      }
      pos += static_cast<uint64_t>(n);
    }
    at = end;
  }
}

}  // namespace

void copyTable(std::string const& from, std::string const& to, uint32_t slotSize) {
  std::error_code ec;
  fs::create_directories(to, ec);
  if (ec) throw Lomi::RuntimeException("cannot make {}: {}", to, ec.message());
  // The slot file first: the queue's header is sized by its mostSlots.
  char const* const names[] = {kSlotFile,
                               MirakCore::BucketWriter<Mirak::SlotLink>::kFileName,
                               Tessel::kHeaderFileName,
                               Tessel::kTableFileNames[0],
                               Tessel::kTableFileNames[1],
                               Parcel::KestorFile::KESTOR_NAME,
                               Parcel::OwnerFile::FILENAME};
  uint32_t mostSlots = 0;
  for (char const* name : names) {
    std::string const path = from + "/" + name;
    std::string error;
    Mem::Fd const in(Mem::openSharedFile(path, O_RDONLY, 0, error));
    if (in.get() < 0) {
      if (errno == ENOENT) continue;  // the validation says what is missing
      throw Lomi::RuntimeException("{}", error);
    }
    struct stat st;
    if (::fstat(in.get(), &st) != 0) {
      throw Lomi::RuntimeException("{}", Mem::posixError(fmt::format("fstat {}", path), errno));
    }
    if (name == std::string_view(kSlotFile)) {
      Mirak::SlotTable::Header h;
      if (readAt(in.get(), &h, sizeof h, 0)) mostSlots = h.mostSlots;
    }
    std::string const target = to + "/" + name;
    Mem::Fd const out(
        ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.get() < 0) {
      throw Lomi::RuntimeException("{}", Mem::posixError(fmt::format("create {}", target), errno));
    }
    copyData(in.get(), out.get(), path, static_cast<uint64_t>(st.st_size),
             copyLimit(name, in.get(), path, slotSize, mostSlots));
  }
}

}  // namespace FlowtableCli
