// Options, rows and the re-attaching reader loop of the reliability harness.
#include "stress/Stress.h"

#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Parcel/KestorFile.h"

namespace Stress {

namespace {

uint64_t parseNumber(std::string const& name, char const* text) {
  char* end = nullptr;
  errno = 0;
  unsigned long long const v = std::strtoull(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || text[0] == '-') {
    throw Lomi::RuntimeException("option --{}: '{}' is not a whole number", name, text);
  }
  return v;
}

uint32_t parse32(std::string const& name, char const* text) {
  uint64_t const v = parseNumber(name, text);
  if (v == 0 || v > 0xffffffffull) {
    throw Lomi::RuntimeException("option --{}: {} is out of range 1..4294967295", name, text);
  }
  return static_cast<uint32_t>(v);
}

}  // namespace

Options parseOptions(int argc, char** argv, int first) {
  Options o;
  for (int i = first; i < argc; i++) {
    std::string const arg = argv[i];
    if (arg == "--verbose") {
      o.verbose = true;
      continue;
    }
    if (arg.rfind("--", 0) != 0) throw Lomi::RuntimeException("unexpected argument '{}'", arg);
    std::string const name = arg.substr(2);
    if (i + 1 >= argc) throw Lomi::RuntimeException("option --{} needs a value", name);
    char const* value = argv[++i];
    if (name == "seconds") {
      char* end = nullptr;
      o.seconds = std::strtod(value, &end);
      if (end == value || *end != '\0' || !(o.seconds > 0) || o.seconds > 1e6) {
        throw Lomi::RuntimeException("option --seconds: '{}' is not a duration in seconds", value);
      }
    } else if (name == "trials") {
      o.trials = parse32(name, value);
    } else if (name == "cases") {
      o.cases = parse32(name, value);
    } else if (name == "readers") {
      o.readers = parse32(name, value);
    } else if (name == "ids") {
      o.ids = parse32(name, value);
    } else if (name == "high") {
      o.high = parse32(name, value);
    } else if (name == "low") {
      o.low = parse32(name, value);
    } else if (name == "dir") {
      o.dir = value;
    } else if (name == "seed") {
      o.seed = parseNumber(name, value);
    } else {
      throw Lomi::RuntimeException("unknown option --{}", name);
    }
  }
  if (o.low >= o.high || o.high >= o.ids) {
    throw Lomi::RuntimeException("options need low < high < ids, got low {} high {} ids {}", o.low,
                                 o.high, o.ids);
  }
  return o;
}

uint64_t checksumOf(Record const& r) {
  uint64_t h = uint64_t(r.key().hash(0x5eed)) * 0x9e3779b97f4a7c15ull;
  h ^= r.packets() * 0xc2b2ae3d27d4eb4full;
  h ^= uint64_t(r.hosEntries()) << 17;
  double const t = r.createTime();
  uint64_t bits;
  std::memcpy(&bits, &t, sizeof bits);
  return h ^ (bits * 0x165667b19e3779f9ull);
}

Value makeValue(uint32_t id, uint64_t packets) {
  Record r(FlowTrackingTest::ipFlowKey(id));
  r.intfIdIs(FlowTrackingTest::intf(id));
  r.packetsIs(packets);
  r.hosEntriesIs(static_cast<uint32_t>(packets >> 11));
  r.createTimeIs(static_cast<double>(packets & 0xfffff));
  r.bytesIs(checksumOf(r));
  return r;
}

Mirak::MapDescriptor workloadDescriptor(uint32_t size) {
  Mirak::MapDescriptor d = FlowTrackingTest::sharedDescriptor(size, true);
  d.shrinkSlots = true;
  return d;
}

void ReaderFigures::note(std::string const& text) {
  std::snprintf(lastError, sizeof lastError, "%s", text.c_str());
}

void ReaderFigures::add(ReaderFigures const& o) {
  reads += o.reads;
  walks += o.walks;
  walkEntries += o.walkEntries;
  attaches += o.attaches;
  retries += o.retries;
  lookasideReads += o.lookasideReads;
  resizesFollowed += o.resizesFollowed;
  torn += o.torn;
  wrongKey += o.wrongKey;
  walkDisorder += o.walkDisorder;
  pinnedAbsent += o.pinnedAbsent;
  walkBadPinned += o.walkBadPinned;
  corruptionExceptions += o.corruptionExceptions;
  otherExceptions += o.otherExceptions;
  if (o.lastError[0]) note(o.lastError);
}

std::string ReaderFigures::toString() const {
  return fmt::format(
      "reads {} walks {} (entries {}) attaches {} retries {} lookasideReads {} resizesFollowed {} "
      "| torn {} wrongKey {} walkDisorder {} pinnedAbsent {} walkBadPinned {} "
      "corruptionExceptions {} otherExceptions {}{}{}",
      reads, walks, walkEntries, attaches, retries, lookasideReads, resizesFollowed, torn, wrongKey,
      walkDisorder, pinnedAbsent, walkBadPinned, corruptionExceptions, otherExceptions,
      lastError[0] ? " last: " : "", lastError);
}

namespace {

void takeCounters(Reader const& reader, ReaderFigures& f) {
  Mirak::Reader::Counters const c = reader.readerCounters();
  f.retries += c.retries;
  f.lookasideReads += c.lookasideReads;
  f.resizesFollowed += c.resizesFollowed;
}

void walkOnce(Reader& reader, uint32_t pinned, ReaderFigures& f) {
  std::vector<uint8_t> pinnedSeen(pinned, 0);
  Value v;
  Mirak::IterHint hint;
  auto const& ops = reader.ops();
  bool havePrev = false;
  std::pair<uint32_t, Key> prev{};
  f.walks++;
  for (bool ok = reader.first(v, hint); ok; ok = reader.next(v.fwkKey(), v, hint)) {
    f.walkEntries++;
    if (!intact(v)) {
      f.torn++;
      f.note(fmt::format("torn value of id {} in a walk", idOf(v.fwkKey())));
    }
    std::pair<uint32_t, Key> const order{Lomi::Util::reverse(ops.hash(v.fwkKey())), v.fwkKey()};
    if (havePrev && !(prev < order)) {
      f.walkDisorder++;
      f.note("walk order did not increase");
    }
    prev = order;
    havePrev = true;
    uint32_t const id = idOf(v.fwkKey());
    if (id < pinned) pinnedSeen[id]++;
  }
  for (uint32_t i = 0; i < pinned; i++) {
    if (pinnedSeen[i] != 1) {
      f.walkBadPinned++;
      f.note(fmt::format("pinned id {} seen {} times in a walk", i, pinnedSeen[i]));
    }
  }
}

}  // namespace

ReaderFigures readUntil(std::string const& name, uint32_t ids, uint32_t pinned, uint64_t seed,
                        std::function<bool()> const& stop) {
  ReaderFigures f;
  std::mt19937_64 rng(seed);
  std::unique_ptr<Reader> reader;
  Parcel::KestorFile const kestorFile(
      FlowTrackingTest::readerTestHandler(),
      Mem::NaoRootPath(FlowTrackingTest::readerTestHandler(), name, false), false);
  uint64_t n = 0;
  // After damage a reader waits for the next generation before it attaches
  // again, as a sentry does: the damaged files are only replaced when the next
  // writer re-formats them. It gives up waiting after a while, so that damage
  // that is never re-formatted shows as more exceptions than re-formats.
  Parcel::KestorId damaged;
  std::chrono::steady_clock::time_point damagedAt;
  while (!stop()) {
    if (!reader && !damaged.isZero() && kestorFile.read() == damaged &&
        std::chrono::steady_clock::now() - damagedAt < std::chrono::seconds(5)) {
      ::poll(nullptr, 0, 1);
      continue;
    }
    if (!reader) {
      damaged = Parcel::KestorId();
      reader = FlowTrackingTest::makeReader<Record>(name);
      if (!reader->initialize("stress")) {
        // The writer is formatting: its kestor file comes last.
        reader.reset();
        ::poll(nullptr, 0, 1);
        continue;
      }
      f.attaches++;
    }
    try {
      for (int i = 0; i < 256; i++, n++) {
        if (n % 4096 == 4095) {
          walkOnce(*reader, pinned, f);
          continue;
        }
        uint32_t const id =
            pinned > 0 && rng() % 2 == 0 ? rng() % pinned : static_cast<uint32_t>(rng() % ids);
        Key const key = FlowTrackingTest::ipFlowKey(id);
        Value buffer;
        bool found = false;
        Value const* p = reader->lookup(key, found, &buffer);
        f.reads++;
        if (!found) {
          if (id < pinned) {
            f.pinnedAbsent++;
            f.note(fmt::format("pinned id {} reported absent", id));
          }
          continue;
        }
        if (!intact(*p)) {
          f.torn++;
          f.note(fmt::format("torn value of id {}", id));
        }
        if (!(p->fwkKey() == key)) {
          f.wrongKey++;
          f.note(fmt::format("lookup of id {} returned id {}", id, idOf(p->fwkKey())));
        }
      }
      // A re-format made new files under a new generation; this reader's
      // mappings are of the old ones.
      if (kestorFile.read() != reader->kestorId()) {
        takeCounters(*reader, f);
        reader.reset();
      }
    } catch (Lomi::CorruptionDetectedException const& e) {
      f.corruptionExceptions++;
      f.note(e.what());
      takeCounters(*reader, f);
      damaged = reader->kestorId();
      damagedAt = std::chrono::steady_clock::now();
      reader.reset();
    } catch (std::exception const& e) {
      f.otherExceptions++;
      f.note(e.what());
      takeCounters(*reader, f);
      reader.reset();
    }
  }
  if (reader) takeCounters(*reader, f);
  return f;
}

TraceCapture::TraceCapture() {
  FlowTrackingTest::readerTestHandler().maskIs(0x3);
  Lomi::Platform::traceSinkIs([this](std::string_view line) { lines_.emplace_back(line); });
}

TraceCapture::~TraceCapture() {
  Lomi::Platform::traceSinkIs({});
  FlowTrackingTest::readerTestHandler().maskIs(0);
}

bool TraceCapture::contains(std::string const& text) const {
  for (auto const& l : lines_) {
    if (l.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string TraceCapture::reformatReason() const {
  static constexpr std::string_view kFailed = "validation failed: ";
  for (auto const& l : lines_) {
    size_t const at = l.find(kFailed);
    if (at != std::string::npos && l.find("owner file") == std::string::npos) {
      return l.substr(at + kFailed.size());
    }
  }
  for (auto const& l : lines_) {
    if (l.find("failed to attach to existing files") != std::string::npos) {
      return "failed to attach to existing files";
    }
    if (l.find("owner file validation failed") != std::string::npos) {
      return "owner file validation failed";
    }
  }
  return std::string();
}

std::string TraceCapture::all() const {
  std::string out;
  for (auto const& l : lines_) out += l + "\n";
  return out;
}

}  // namespace Stress
