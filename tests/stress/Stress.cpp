// Options, rows and the re-attaching reader loop of the reliability harness.
#include "stress/Stress.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
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

std::string statusText(int status) {
  if (status == -1) return "hung";
  return WIFSIGNALED(status) ? fmt::format("signal {}", WTERMSIG(status))
                             : fmt::format("exit {}", WEXITSTATUS(status));
}

void Child::start(std::function<int(Pipe const&, Pipe const&)> const& body) {
  commands_ = std::make_unique<Pipe>();
  answers_ = std::make_unique<Pipe>();
  pid_ = FlowTrackingTest::forkChild([&] { return body(*commands_, *answers_); });
  answers_->closeWrite();
}

void Child::kill() {
  // Never kill(-1, ...): that signals every process.
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  FlowTrackingTest::reap(pid_);
  pid_ = -1;
}

std::string Child::ended(int ms) {
  if (pid_ <= 0) return "not running";
  int const status = FlowTrackingTest::reap(pid_, ms);
  if (status == -1) kill();
  pid_ = -1;
  return FlowTrackingTest::exitedWith(status, 0) ? "" : statusText(status);
}

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
    std::pair<char const*, uint32_t*> const counts[] = {
        {"trials", &o.trials}, {"cases", &o.cases}, {"readers", &o.readers},
        {"ids", &o.ids},       {"high", &o.high},   {"low", &o.low},
        {"restarts", &o.restarts}};
    auto const count = std::find_if(std::begin(counts), std::end(counts),
                                    [&](auto const& c) { return name == c.first; });
    if (count != std::end(counts)) {
      *count->second = parse32(name, value);
    } else if (name == "seconds") {
      char* end = nullptr;
      o.seconds = std::strtod(value, &end);
      if (end == value || *end != '\0' || !(o.seconds > 0) || o.seconds > 1e6) {
        throw Lomi::RuntimeException("option --seconds: '{}' is not a duration in seconds", value);
      }
    } else if (name == "dir") {
      o.dir = value;
    } else if (name == "seed") {
      o.seed = parseNumber(name, value);
    } else if (name == "salvage") {
      std::string const v = value;
      if (v != "on" && v != "off") {
        throw Lomi::RuntimeException("option --salvage: '{}' is not on or off", v);
      }
      o.salvage = v == "on";
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

void WriterFigures::add(WriterFigures const& o) {
#define STRESS_ADD(f) f += o.f;
  STRESS_WRITER_COUNTS(STRESS_ADD)
  mostCapacity = std::max(mostCapacity, o.mostCapacity);
  leastCapacityAfterGrowth = std::min(leastCapacityAfterGrowth, o.leastCapacityAfterGrowth);
  validationsFailed += o.validationsFailed;
  kestor = o.kestor;
  hashSeed = o.hashSeed;
}

#define STRESS_TEXT(f) out += fmt::format(#f " {} ", f);

std::string WriterFigures::toString() const {
  std::string out;
  STRESS_WRITER_COUNTS(STRESS_TEXT)
  return out + fmt::format("capacity {} -> {} validationsFailed {}", mostCapacity,
                           leastCapacityAfterGrowth == ~0ull ? 0 : leastCapacityAfterGrowth,
                           validationsFailed);
}

void writePinned(Writer& w, uint32_t pinned, uint64_t& writes) {
  for (uint32_t i = 0; i < pinned; i++) w.write(makeValue(i, ++writes), true);
}

WriterFigures cycleLiveSet(Writer& w, Options const& o, uint32_t pinned, uint64_t seed,
                           uint64_t& writes, std::chrono::steady_clock::time_point end) {
  WriterFigures f;
  std::mt19937_64 rng(seed);
  std::vector<uint32_t> live;
  std::vector<int32_t> where(o.ids, -1);
  bool growing = true;
  for (;;) {
    if ((f.ops & 255) == 0 && std::chrono::steady_clock::now() >= end) break;
    f.ops++;
    uint64_t const r = rng() % 100;
    if (r < 30) {
      w.write(makeValue(static_cast<uint32_t>(rng() % pinned), ++writes), true);
    } else if (r < 45 && !live.empty()) {
      w.write(makeValue(live[rng() % live.size()], rng()), true);
    } else if (growing) {
      uint32_t const id = pinned + static_cast<uint32_t>(rng() % (o.ids - pinned));
      w.write(makeValue(id, rng()), true);
      if (where[id] < 0) {
        where[id] = static_cast<int32_t>(live.size());
        live.push_back(id);
      }
      if (live.size() >= o.high) {
        growing = false;
        f.mostCapacity = std::max<uint64_t>(f.mostCapacity, w.capacity());
      }
    } else if (!live.empty()) {
      size_t const at = rng() % live.size();
      uint32_t const id = live[at];
      Value removed;
      w.remove(FlowTrackingTest::ipFlowKey(id), removed);
      live[at] = live.back();
      where[live[at]] = static_cast<int32_t>(at);
      live.pop_back();
      where[id] = -1;
      if (live.size() <= o.low) {
        growing = true;
        f.cycles++;
        f.leastCapacityAfterGrowth = std::min<uint64_t>(f.leastCapacityAfterGrowth, w.capacity());
        // Every cycle ends with an audit of the table the readers read.
        if (!w.validate()) f.validationsFailed++;
      }
    }
  }
  Mirak::Writer::Counters const c = w.writerCounters();
  f.slotGrows = c.slotGrows;
  f.compactions = c.slotShrinks;
  f.slotsMoved = c.slotsMoved;
  f.bucketGrows = c.bucketGrows;
  f.bucketShrinks = c.bucketShrinks;
  f.kestor = w.kestorId().value();
  f.hashSeed = w.ops().hashSeed();
  return f;
}

void ReaderFigures::note(std::string const& text) {
  std::snprintf(lastError, sizeof lastError, "%s", text.c_str());
}

void ReaderFigures::add(ReaderFigures const& o) {
  STRESS_READER_COUNTS(STRESS_ADD)
  if (o.lastError[0]) note(o.lastError);
}

std::string ReaderFigures::toString() const {
  std::string out;
  STRESS_READER_COUNTS(STRESS_TEXT)
  return out + (lastError[0] ? std::string("last: ") + lastError : std::string());
}
#undef STRESS_ADD
#undef STRESS_TEXT

std::vector<std::string> ReaderFigures::faults() const {
  std::vector<std::string> out;
  if (torn || wrongKey || pinnedAbsent || walkBadPinned || walkDisorder) {
    out.push_back("readers saw wrong data");
  }
  if (corruptionExceptions || otherExceptions) out.push_back("readers saw exceptions");
  return out;
}

AttachedReaders::AttachedReaders(std::string const& name, size_t count)
    : name_(name),
      count_(count),
      kestorFile_(FlowTrackingTest::readerTestHandler(),
                  Mem::NaoRootPath(FlowTrackingTest::readerTestHandler(), name, false), false) {}

bool AttachedReaders::attach(ReaderFigures& f) {
  readers_.clear();
  for (size_t i = 0; i < count_; i++) {
    readers_.push_back(FlowTrackingTest::makeReader<Record>(name_));
    if (!readers_.back()->initialize("stress") ||
        readers_.back()->kestorId() != readers_[0]->kestorId()) {
      readers_.clear();
      return false;
    }
  }
  f.attaches++;
  return true;
}

void AttachedReaders::detach(ReaderFigures& f) {
  if (readers_.empty()) return;
  Mirak::Reader::Counters const c = readers_[0]->readerCounters();
  f.retries += c.retries;
  f.lookasideReads += c.lookasideReads;
  f.resizesFollowed += c.resizesFollowed;
  readers_.clear();
}

namespace {

void walkOnce(Reader& reader, uint32_t pinned, ReaderFigures& f) {
  WalkCheck check(reader, pinned);
  Value v;
  Mirak::IterHint hint;
  f.walks++;
  try {
    for (bool ok = reader.first(v, hint); ok; ok = reader.next(v.fwkKey(), v, hint)) {
      check.entry(v);
    }
  } catch (...) {
    check.addTo(f, WalkCheck::End::cut);
    throw;
  }
  check.addTo(f, WalkCheck::End::complete);
}

}  // namespace

bool checkedLookup(Reader const& reader, uint32_t id, Value& out, ReaderFigures& f) {
  Key const key = FlowTrackingTest::ipFlowKey(id);
  bool found = false;
  reader.lookup(key, found, &out);
  f.reads++;
  if (!found) return false;
  if (!intact(out)) {
    f.torn++;
    f.note(fmt::format("torn value of id {}", id));
  }
  if (!(out.fwkKey() == key)) {
    f.wrongKey++;
    f.note(fmt::format("lookup of id {} returned id {}", id, idOf(out.fwkKey())));
  }
  return true;
}

WalkCheck::WalkCheck(Reader const& reader, uint32_t pinned)
    : reader_(reader), pinnedSeen_(pinned, 0) {}

void WalkCheck::entry(Value const& v) {
  found_.walkEntries++;
  if (!intact(v)) {
    found_.torn++;
    found_.note(fmt::format("torn value of id {} in a walk", idOf(v.fwkKey())));
  }
  std::pair<uint32_t, Key> const order{Lomi::Util::reverse(reader_.ops().hash(v.fwkKey())),
                                       v.fwkKey()};
  if (havePrev_ && !(prev_ < order)) {
    found_.walkDisorder++;
    found_.note(fmt::format("walk order did not increase at id {}", idOf(v.fwkKey())));
  }
  prev_ = order;
  havePrev_ = true;
  uint32_t const id = idOf(v.fwkKey());
  if (id < pinnedSeen_.size() && pinnedSeen_[id] < 255) pinnedSeen_[id]++;
}

void WalkCheck::addTo(ReaderFigures& f, End end) const {
  f.walkEntries += found_.walkEntries;
  f.torn += found_.torn;
  if (end != End::crossedReformat) f.walkDisorder += found_.walkDisorder;
  if (found_.lastError[0] && (end != End::crossedReformat || found_.torn)) f.note(found_.lastError);
  if (end == End::complete) {
    for (uint32_t i = 0; i < pinnedSeen_.size(); i++) {
      if (pinnedSeen_[i] != 1) {
        f.walkBadPinned++;
        f.note(fmt::format("pinned id {} seen {} times in a walk", i, pinnedSeen_[i]));
      }
    }
  }
}

ReaderFigures readUntil(std::string const& name, uint32_t ids, uint32_t pinned, uint64_t seed,
                        std::function<bool()> const& stop) {
  ReaderFigures f;
  std::mt19937_64 rng(seed);
  AttachedReaders reader(name, 1);
  uint64_t n = 0;
  // After damage a reader waits for the next generation before it attaches
  // again, as a sentry does: the damaged files are only replaced when the next
  // writer re-formats them. It gives up waiting after a while, so that damage
  // that is never re-formatted shows as more exceptions than re-formats.
  Parcel::KestorId damaged;
  std::chrono::steady_clock::time_point damagedAt;
  while (!stop()) {
    if (!reader.attached() && !damaged.isZero() && reader.current() == damaged &&
        std::chrono::steady_clock::now() - damagedAt < std::chrono::seconds(5)) {
      ::poll(nullptr, 0, 1);
      continue;
    }
    if (!reader.attached()) {
      damaged = Parcel::KestorId();
      if (!reader.attach(f)) {
        ::poll(nullptr, 0, 1);
        continue;
      }
    }
    try {
      for (int i = 0; i < 256; i++, n++) {
        if (n % 4096 == 4095) {
          walkOnce(reader[0], pinned, f);
          continue;
        }
        uint32_t const id =
            pinned > 0 && rng() % 2 == 0 ? rng() % pinned : static_cast<uint32_t>(rng() % ids);
        Value buffer;
        if (!checkedLookup(reader[0], id, buffer, f) && id < pinned) {
          f.pinnedAbsent++;
          f.note(fmt::format("pinned id {} reported absent", id));
        }
      }
      // A re-format made new files under a new generation; this reader's
      // mappings are of the old ones.
      if (reader.replaced()) reader.detach(f);
    } catch (Lomi::CorruptionDetectedException const& e) {
      f.corruptionExceptions++;
      f.note(e.what());
      damaged = reader[0].kestorId();
      damagedAt = std::chrono::steady_clock::now();
      reader.detach(f);
    } catch (std::exception const& e) {
      f.otherExceptions++;
      f.note(e.what());
      reader.detach(f);
    }
  }
  reader.detach(f);
  return f;
}

bool goldenHas(uint32_t id) {
  return id < kGoldenRows && !(id >= 100 && id < 200);
}

ConfigValue goldenRow(uint32_t id) {
  return FlowTrackingTest::row<ConfigRecord>(id, id < 50 ? 2 : 1);
}

void writeGolden(std::string const& name) {
  using FlowTrackingTest::row;
  auto w = FlowTrackingTest::makeSharedWriter<ConfigRecord>(name, workloadDescriptor(4096));
  for (uint32_t i = 0; i < kGoldenRows; i++) w->write(row<ConfigRecord>(i, 1), true);
  ConfigValue removed;
  for (uint32_t i = 100; i < 200; i++) w->remove(row<ConfigRecord>(i).key(), removed);
  for (uint32_t i = 0; i < 50; i++) w->write(goldenRow(i), true);
}

void ChildReport::note(std::string const& s) {
  std::snprintf(text, sizeof text, "%s", s.c_str());
}

ChildReport readGolden(std::string const& name, std::function<void()> const& midway) {
  using FlowTrackingTest::row;
  ChildReport rep;
  auto const is = [&](ReadOutcome o, std::string const& text) {
    rep.outcome = static_cast<uint32_t>(o);
    rep.note(text);
    return rep;
  };
  auto reader = FlowTrackingTest::makeReader<ConfigRecord>(name);
  try {
    if (!reader->initialize("golden")) return is(ReadOutcome::refused, "");
    uint32_t wrong = 0;
    auto const lookups = [&] {
      for (uint32_t id = 0; id < kGoldenIds; id++) {
        bool found = false;
        ConfigValue buffer;
        ConfigValue const* v = reader->lookup(row<ConfigRecord>(id).key(), found, &buffer);
        if (found != goldenHas(id) || (found && !(*v == goldenRow(id)))) wrong++;
      }
    };
    if (midway) {
      lookups();
      midway();
      wrong = 0;
    }
    lookups();
    ConfigValue v;
    Mirak::IterHint hint;
    uint32_t walked = 0;
    for (bool ok = reader->first(v, hint); ok; ok = reader->next(v.fwkKey(), v, hint)) {
      if (++walked > 100 * kGoldenRows) return is(ReadOutcome::hung, "the walk did not end");
      // The row's id, from its flow key's source address.
      uint32_t const id = v.key().ipFlowKey().srcAddr().value() - 0x0a000000u;
      if (!goldenHas(id) || !(v == goldenRow(id))) wrong++;
    }
    uint32_t const live = kGoldenRows - 100;
    if (walked != live) wrong++;
    if (wrong) {
      return is(ReadOutcome::wrongRows,
                fmt::format("{} wrong answers, walk {} of {}", wrong, walked, live));
    }
    return is(ReadOutcome::correct, "");
  } catch (Lomi::Exception const& e) {
    bool const corrupt = dynamic_cast<Lomi::CorruptionDetectedException const*>(&e) != nullptr;
    if (e.msg().empty()) return is(ReadOutcome::otherException, "an exception with no message");
    return is(corrupt ? ReadOutcome::detected : ReadOutcome::named, e.msg());
  } catch (std::exception const& e) {
    return is(ReadOutcome::otherException, e.what());
  } catch (...) {
    return is(ReadOutcome::otherException, "an exception of no known type");
  }
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
