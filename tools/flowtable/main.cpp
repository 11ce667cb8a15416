// flowtable: the operator's tool for the flow tables under a root directory.
//
//   flowtable [--root DIR] [--json] [--trace HANDLER=LEVELS] COMMAND [ARGS]
//
// Commands: ls, show TABLE, dump TABLE [--limit N], get TABLE KEY, check TABLE,
// watch TABLE [--keyshadow] [--count N] [--for SECONDS], demo [--flows N].
// Every command takes --help. Exit codes: 0 ok, 1 a failure was found (a
// damaged table, a key not present, a table that can't be read, a root that
// does not exist), 2 usage.
//
// The tool reads tables as a lock-free reader and never writes into them;
// `check` validates a private copy of the files in a temporary directory.
//
// Output. What the files say (names, type names, headers, rows, errors) is
// escaped as Text.h tells, in text and in JSON. With --json, stdout holds one
// JSON document whatever happens: the data, or {"error": "..."} when the
// command fails before it has any (usage errors too); `dump`, which streams
// its array, closes it on a failure after the first row with a last element
// {"error": "..."}. `get` of a key not present answers {"found": false, ...}
// (exit 1). Errors are also written to stderr, one line each.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Demo.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/StartOutcome.h"
#include "Mirak/Util.h"
#include "TableAccess.h"
#include "Text.h"
#include "Zeb/Module.h"
#include "Zeb/Strep.h"

namespace {

using namespace FlowtableCli;

constexpr int kOk = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

struct Command {
  char const* name;
  char const* args;
  char const* summary;
};

Command const commands[] = {
    {"ls", "",
     "every table under the root: name, value type, entries, capacity, max, kestor, "
     "writer pid and whether it is alive, bytes on disk; what cannot be read is said on "
     "stderr (--json: an \"error\" field) and the exit code is 1"},
    {"show", "TABLE", "the slot, bucket and queue headers of TABLE and the reader's counters"},
    {"dump", "TABLE [--limit N]", "the rows of TABLE as streps (--json: objects), read lock-free"},
    {"get", "TABLE KEY",
     "the row of TABLE whose key has the strep KEY; none: exit 1 (--json: \"found\": false)"},
    {"check", "TABLE",
     "full validation of a private copy of TABLE's own files: OK or the first failure"},
    {"watch", "TABLE [--keyshadow] [--count N] [--for SECONDS]",
     "mounts a shadow of TABLE (a keyshadow with --keyshadow) and prints one line per change "
     "as it happens: the shadow's sequence (\"sweep\" for the rows its first sweep finds), "
     "changed or removed, the key and, in a shadow, the row (--json: one object a line); "
     "ends after N changes, after SECONDS, or on SIGINT or SIGTERM, with a summary"},
    {"demo", "[--flows N]",
     "the main job: a writer and a reader process, N flows (default 100000) written, read "
     "back, updated, half removed, then a quarter left, which compacts the tables; on a "
     "temporary root unless --root is given, "
     "where the tables then stay"},
};

constexpr char kGlobal[] =
    "global options:\n"
    "  --root DIR              the tables' base directory (default {})\n"
    "  --json                  data as JSON; a failure as {{\"error\": ...}}\n"
    "  --trace HANDLER=LEVELS  turn traces on, e.g. flowtable=0-3 or *=all\n"
    "  --help                  this text; COMMAND --help for one command\n";

class UsageError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

void usage(std::FILE* out, std::string const& command = {}) {
  for (auto const& c : commands) {
    if (!command.empty() && command != c.name) continue;
    fmt::print(out, "usage: flowtable [--root DIR] [--json] {} {}\n", c.name, c.args);
    if (!command.empty()) fmt::print(out, "  {}\n", c.summary);
  }
  if (command.empty()) {
    fmt::print(out, "\ncommands:\n");
    for (auto const& c : commands) fmt::print(out, "  {:6} {}\n", c.name, c.summary);
  }
  fmt::print(out, "\n");
  fmt::print(out, fmt::runtime(kGlobal), Mem::RootPath::kDefaultBase);
}

struct Options {
  std::string root = Mem::RootPath::kDefaultBase;
  bool rootGiven = false;
  bool json = false;
  bool help = false;
  std::string command;
  std::vector<std::string> args;
  std::map<std::string, std::string> flags;  // command flags with a value
};

uint64_t parseCount(std::string const& flag, std::string const& text) {
  char* end = nullptr;
  errno = 0;
  unsigned long long const v = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end || errno || text[0] == '-') {
    throw UsageError(fmt::format("{} wants a non-negative number, not '{}'", flag, text));
  }
  return v;
}

// Reads the command line into `o`. The first mistake is thrown as a
// UsageError after the whole line is read, so that `o.json` says how to
// report it.
void parse(int argc, char** argv, Options& o) {
  std::string mistake;
  auto fail = [&](std::string text) {
    if (mistake.empty()) mistake = std::move(text);
  };
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    auto value = [&](char const* flag) {
      if (i + 1 >= argc) {
        fail(fmt::format("{} needs a value", flag));
        return std::string();
      }
      return std::string(argv[++i]);
    };
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--root") {
      o.root = value("--root");
      o.rootGiven = true;
    } else if (a == "--trace") {
      std::string const setting = value("--trace");
      if (!Lomi::Platform::traceSettingIs(setting)) {
        fail(fmt::format("--trace wants HANDLER=LEVELS, not '{}'", setting));
      }
    } else if (a == "--limit" || a == "--flows" || a == "--count" || a == "--for") {
      o.flags[a] = value(a.c_str());
    } else if (a == "--keyshadow") {
      o.flags[a] = "";
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      fail(fmt::format("unknown option {}", a));
    } else if (o.command.empty()) {
      o.command = a;
    } else {
      o.args.push_back(a);
    }
  }
  if (!mistake.empty()) throw UsageError(mistake);
}

void wantArgs(Options const& o, size_t n) {
  if (o.args.size() != n) {
    throw UsageError(fmt::format("{} takes {} argument{}, got {}", o.command, n, n == 1 ? "" : "s",
                                 o.args.size()));
  }
}

void allowFlags(Options const& o, std::initializer_list<char const*> allowed) {
  for (auto const& [flag, v] : o.flags) {
    bool ok = false;
    for (char const* a : allowed) ok = ok || flag == a;
    if (!ok) throw UsageError(fmt::format("{} has no option {}", o.command, flag));
  }
}

// Reports a failure that ends the command: one line on stderr and, with
// --json, the error object on stdout (nothing else has been written there:
// the commands print their documents whole, and `dump` closes its own).
int fail(Options const& o, std::string const& why, int code) {
  fmt::print(stderr, "flowtable: {}\n", printable(why));
  if (o.json) fmt::print("{{\"error\": {}}}\n", jsonString(why));
  return code;
}

// --- commands -------------------------------------------------------------------

// A table or directory that could not be read is listed with its reason (a
// row "unreadable" for a table without a slot header, an "error" field in
// JSON), each reason also goes to stderr, and the exit code is 1.
int cmdLs(Options const& o) {
  wantArgs(o, 0);
  allowFlags(o, {});
  Listing const listing = listTables(o.root);
  auto const& tables = listing.tables;
  bool failed = !listing.unwalked.empty();
  for (auto const& t : tables) failed = failed || !t.errors.empty();
  auto joined = [](std::vector<std::string> const& errors) {
    std::string out;
    for (auto const& e : errors) out += (out.empty() ? "" : "; ") + e;
    return out;
  };
  if (o.json) {
    std::string out = "[";
    char const* sep = "";
    for (auto const& t : tables) {
      out += fmt::format(
          "{}\n  {{\"name\": {}, \"valueType\": {}, \"entries\": {}, \"capacity\": {}, "
          "\"max\": {}, \"kestor\": {}, \"writerPid\": {}, \"writerAlive\": {}, "
          "\"bytesOnDisk\": {}{}}}",
          sep, jsonString(t.name), jsonString(t.header ? t.header->valueType : ""),
          t.header ? t.header->occupiedSlots : 0, t.header ? t.header->numSlots.value : 0,
          t.header ? t.header->maxSlots : 0,
          jsonString(fmt::format("{}", Parcel::KestorId(t.kestor))), t.writerPid,
          t.writerAlive ? "true" : "false", t.bytesOnDisk,
          t.errors.empty() ? "" : ", \"error\": " + jsonString(joined(t.errors)));
      sep = ",";
    }
    for (auto const& u : listing.unwalked) {
      out += fmt::format("{}\n  {{\"name\": {}, \"error\": {}}}", sep, jsonString(u.name),
                         jsonString(u.error));
      sep = ",";
    }
    fmt::print("{}\n]\n", out);
  } else {
    fmt::print("{:<48} {:<34} {:>9} {:>9} {:>9} {:>9} {:>8} {:>6} {:>12}\n", "TABLE", "VALUE TYPE",
               "ENTRIES", "CAPACITY", "MAX", "KESTOR", "WRITER", "ALIVE", "BYTES");
    for (auto const& t : tables) {
      if (!t.header) {
        fmt::print("{:<48} unreadable: {}\n", printable(t.name), printable(t.headerError));
        continue;
      }
      fmt::print("{:<48} {:<34} {:>9} {:>9} {:>9} {:>9} {:>8} {:>6} {:>12}\n", printable(t.name),
                 printable(t.header->valueType), t.header->occupiedSlots, t.header->numSlots.value,
                 t.header->maxSlots, Parcel::KestorId(t.kestor), t.writerPid,
                 t.writerAlive ? "yes" : "no", t.bytesOnDisk);
    }
  }
  for (auto const& t : tables) {
    for (auto const& e : t.errors) {
      fmt::print(stderr, "flowtable: cannot read table {}: {}\n", printable(t.name), printable(e));
    }
  }
  for (auto const& u : listing.unwalked) {
    fmt::print(stderr, "flowtable: cannot read {}: {}\n", printable(u.name), printable(u.error));
  }
  if (tables.empty() && !failed) fmt::print(stderr, "no tables under {}\n", printable(o.root));
  return failed ? kFailure : kOk;
}

// The table named on the command line; a name that names no table is the
// operator's mistake.
TableSummary requireTable(Options const& o) {
  try {
    return summarize(o.root, o.args.at(0));
  } catch (Lomi::InvalidInitializeException const& e) {
    throw UsageError(e.msg());
  }
}

// The table named on the command line, attached as a reader.
std::unique_ptr<AnyTable> attach(Options const& o, TableSummary& summary) {
  summary = requireTable(o);
  if (!summary.header) throw Lomi::CorruptionDetectedException("{}", summary.headerError);
  auto table = openTable(summary.header->valueType, summary.name);
  std::string why;
  if (!table->attachReader(why)) throw Lomi::InvalidInitializeException("{}", why);
  return table;
}

int cmdShow(Options const& o) {
  wantArgs(o, 1);
  allowFlags(o, {});
  TableSummary s;
  auto const table = attach(o, s);
  std::string const headers = table->dumpHeaders();
  std::string const counters = table->readerCounters();
  // What the writer's last start did, from its side file; none from a writer
  // that predates it.
  std::optional<std::string> lastStart;
  if (auto const outcome = Mirak::readStartOutcome(s.dir)) lastStart = outcome->toString();
  // The table attached, so it is shown; what else of it could not be read
  // (its owner record, say) is said beside it.
  for (auto const& e : s.errors) {
    fmt::print(stderr, "flowtable: note: table {}: {}\n", printable(s.name), printable(e));
  }
  if (o.json) {
    fmt::print(
        "{{\"name\": {}, \"valueType\": {}, \"entries\": {}, \"kestor\": {}, \"writerPid\": {}, "
        "\"writerAlive\": {}, \"lastStart\": {}, \"headers\": {}, \"readerCounters\": {}}}\n",
        jsonString(s.name), jsonString(s.header->valueType), table->members(),
        jsonString(fmt::format("{}", Parcel::KestorId(s.kestor))), s.writerPid,
        s.writerAlive ? "true" : "false", lastStart ? jsonString(*lastStart) : "null",
        jsonString(headers), jsonString(counters));
    return kOk;
  }
  fmt::print(
      "table {}\nvalue type {}\nentries {}\nwriter pid {} ({})\nlast start: {}\n\n{}\n\nreader "
      "counters: {}\n",
      printable(s.name), printable(s.header->valueType), table->members(), s.writerPid,
      s.writerAlive ? "alive" : "not alive", lastStart ? printable(*lastStart) : "unknown",
      printable(headers, true), printable(counters));
  return kOk;
}

int cmdDump(Options const& o) {
  wantArgs(o, 1);
  allowFlags(o, {"--limit"});
  uint64_t const limit =
      o.flags.count("--limit") ? parseCount("--limit", o.flags.at("--limit")) : 0;
  TableSummary s;
  auto const table = attach(o, s);
  Zeb::ZebTypeBase const& type = table->rowType();
  Zeb::AttributeInfo const* text = type.attribute("mirakString");
  bool first = true;
  if (o.json) fmt::print("[");
  uint64_t n = 0;
  try {
    n = table->walk(limit, [&](void const* record) {
      Zeb::String const strep = table->strep(record);
      if (!o.json) {
        fmt::print("{}\n", printable(strep));
        return;
      }
      Zeb::String trace;
      if (text) {
        Zeb::attributeOp(type, &trace, const_cast<void*>(record), text->id, Zeb::GenericIf::opCall);
      }
      fmt::print("{}\n  {{\"type\": {}, \"strep\": {}, \"text\": {}}}", first ? "" : ",",
                 jsonString(type.name), jsonString(strep), jsonString(trace));
      first = false;
    });
  } catch (std::exception const& e) {
    // The rows so far are out; the array they are in is closed with the
    // reason as its last element, so the output stays one JSON document.
    std::string const why = e.what();
    if (o.json) fmt::print("{}\n  {{\"error\": {}}}\n]\n", first ? "" : ",", jsonString(why));
    fmt::print(stderr, "flowtable: {}\n", printable(why));
    return kFailure;
  }
  if (o.json) fmt::print("\n]\n");
  fmt::print(stderr, "{} rows of {}\n", n, printable(s.name));
  return kOk;
}

int cmdGet(Options const& o) {
  wantArgs(o, 2);
  allowFlags(o, {});
  TableSummary s;
  auto const table = attach(o, s);
  std::vector<std::max_align_t> record(table->rowType().size / sizeof(std::max_align_t) + 1);
  bool found;
  try {
    found = table->get(Zeb::String(o.args[1]), record.data());
  } catch (Zeb::RangeException const& e) {
    throw UsageError(fmt::format("KEY is not a key of {}: {}", s.name, e.msg()));
  }
  if (!found) {
    // Not found is an answer, not a breakdown: in JSON it is data a script
    // can test (found: false), with the same reason as in text.
    std::string const why = fmt::format("no row with that key in {}", s.name);
    fmt::print(stderr, "flowtable: {}\n", printable(why));
    if (o.json) {
      fmt::print("{{\"found\": false, \"table\": {}, \"key\": {}, \"error\": {}}}\n",
                 jsonString(s.name), jsonString(o.args[1]), jsonString(why));
    }
    return kFailure;
  }
  Zeb::String const strep = table->strep(record.data());
  if (o.json) {
    fmt::print("{{\"found\": true, \"type\": {}, \"strep\": {}}}\n",
               jsonString(table->rowType().name), jsonString(strep));
  } else {
    fmt::print("{}\n", printable(strep));
  }
  return kOk;
}

volatile std::sig_atomic_t interrupted = 0;

// Until SIGINT, N changes or the time given; a table with no writer yet is
// waited for (its shadow mounts when the writer's files appear).
int cmdWatch(Options const& o) {
  wantArgs(o, 1);
  allowFlags(o, {"--keyshadow", "--count", "--for"});
  bool const keyOnly = o.flags.count("--keyshadow") != 0;
  uint64_t const count = o.flags.count("--count") ? parseCount("--count", o.flags.at("--count")) : 0;
  double seconds = 0;
  if (o.flags.count("--for")) {
    std::string const& text = o.flags.at("--for");
    char* end = nullptr;
    seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end || !(seconds > 0)) {
      throw UsageError(fmt::format("--for wants a number of seconds above 0, not '{}'", text));
    }
  }
  TableSummary const s = requireTable(o);
  if (!s.header) throw Lomi::CorruptionDetectedException("{}", s.headerError);
  auto const table = openTable(s.header->valueType, s.name);
  struct sigaction sa {};
  sa.sa_handler = [](int) { interrupted = 1; };
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  auto const start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  uint64_t heard = 0;
  AnyTable::WatchSummary const sum = table->watch(
      keyOnly,
      [&](HeardChange const& c) {
        // A sweep tells many rows in one turn of the loop: the count is kept
        // to the change.
        if (count && heard >= count) return;
        ++heard;
        char const* what = c.removed ? "removed" : "changed";
        // Changes told by the first sweep have no sequence of their own.
        std::string const seq = c.sequence ? std::to_string(c.sequence) : std::string();
        if (o.json) {
          fmt::print("{{\"sequence\": {}, \"change\": \"{}\", \"key\": {}{}}}\n",
                     seq.empty() ? "null" : seq, what, jsonString(c.key),
                     c.row.empty() ? "" : ", \"row\": " + jsonString(c.row));
        } else {
          fmt::print("{} {} {}{}\n", seq.empty() ? "sweep" : seq, what, printable(c.key),
                     c.row.empty() ? "" : "  " + printable(c.row));
        }
        std::fflush(stdout);
      },
      [&] {
        return interrupted || (count && heard >= count) || (seconds > 0 && elapsed() >= seconds);
      });
  char const* mode = keyOnly ? "keyshadow" : "shadow";
  if (o.json) {
    fmt::print("{{\"summary\": {{\"table\": {}, \"mode\": \"{}\", \"seconds\": {:.3f}, "
               "\"changes\": {}, \"removals\": {}, \"printed\": {}, \"sequence\": {}, "
               "\"mounted\": {}, \"counters\": {}}}}}\n",
               jsonString(s.name), mode, elapsed(), sum.changes, sum.removals, heard, sum.sequence,
               sum.mounted ? "true" : "false", jsonString(sum.counters));
  } else {
    fmt::print(
        "watched {} as a {} for {:.3f} s: {} changes heard ({} removals), {} printed, at "
        "sequence {}{}\n",
        printable(s.name), mode, elapsed(), sum.changes, sum.removals, heard, sum.sequence,
        sum.mounted ? "" : "; no writer was ever followed");
    fmt::print("counters: {}\n", printable(sum.counters));
  }
  return kOk;
}

// A temporary directory, removed with everything in it.
class TempDir {
 public:
  TempDir(std::filesystem::path const& parent = std::filesystem::temp_directory_path(),
          char const* pattern = "flowtable-check-XXXXXX") {
    std::string tmpl = (parent / pattern).string();
    if (!::mkdtemp(tmpl.data())) {
      throw Lomi::RuntimeException("cannot make a temporary directory: {}", std::strerror(errno));
    }
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

int cmdCheck(Options const& o) {
  wantArgs(o, 1);
  allowFlags(o, {});
  TableSummary const s = requireTable(o);
  std::string error;
  bool ok = false;
  if (s.header) {
    // A table that cannot be opened or copied fails the check like one that
    // does not validate: the answer is that reason.
    try {
      auto table = openTable(s.header->valueType, s.name);
      TempDir const copy;
      copyTable(s.dir, copy.path() + "/" + s.name, table->slotSize());
      // While the table checks, every table path names the copy.
      Mem::RootPath::baseIs(copy.path());
      struct RootBack {
        std::string root;
        ~RootBack() { Mem::RootPath::baseIs(root); }
      } const back{o.root};
      ok = table->check(s.header->maxSlots, error);
    } catch (Lomi::Exception const& e) {
      ok = false;
      error = e.msg();
    }
  } else {
    error = s.headerError;
  }
  if (o.json) {
    fmt::print("{{\"name\": {}, \"ok\": {}{}}}\n", jsonString(s.name), ok ? "true" : "false",
               ok ? "" : ", \"error\": " + jsonString(error));
  } else if (ok) {
    fmt::print("OK\n");
  } else {
    fmt::print("{}\n", printable(error));
  }
  if (!ok && s.writerAlive) {
    fmt::print(stderr,
               "note: the writer (pid {}) is running; a copy taken during a write may catch it "
               "mid-change, so check again before acting\n",
               s.writerPid);
  }
  return ok ? kOk : kFailure;
}

// The demo's root: the one given, made if missing, or a temporary directory
// (on the shared-memory file system when there is one) removed afterwards.
int cmdDemo(Options& o) {
  wantArgs(o, 0);
  allowFlags(o, {"--flows"});
  if (o.json) {
    // The demo writes no JSON, its refusal included: stdout stays empty.
    o.json = false;
    throw UsageError("demo has no --json output");
  }
  uint64_t const flows =
      o.flags.count("--flows") ? parseCount("--flows", o.flags.at("--flows")) : 100000;
  // Fewer flows than a thousand keep the tables at their smallest size, where
  // there is nothing to compact.
  if (flows < 1000 || flows > 10000000) {
    throw UsageError(fmt::format("--flows wants 1000 to 10000000 flows, not {}", flows));
  }
  std::error_code ec;
  std::unique_ptr<TempDir> temp;
  if (o.rootGiven) {
    o.root = std::filesystem::absolute(o.root, ec).lexically_normal().string();
    while (o.root.size() > 1 && o.root.back() == '/') o.root.pop_back();
    std::filesystem::create_directories(o.root, ec);
    if (ec || !std::filesystem::is_directory(o.root)) {
      throw UsageError(fmt::format("--root {} is not a directory and cannot be made", o.root));
    }
  } else {
    temp = std::make_unique<TempDir>(std::filesystem::is_directory("/dev/shm", ec)
                                         ? std::filesystem::path("/dev/shm")
                                         : std::filesystem::temp_directory_path(),
                                     "flowtable-demo-XXXXXX");
    o.root = temp->path();
  }
  Mem::RootPath::baseIs(o.root);
  DemoOptions d;
  d.root = o.root;
  d.flows = static_cast<uint32_t>(flows);
  d.keep = o.rootGiven;
  return runDemo(d);
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  try {
    parse(argc, argv, o);
    if (o.help) {
      usage(stdout, o.command);
      return kOk;
    }
    if (o.command.empty()) throw UsageError("no command given");
    if (o.command == "demo") return cmdDemo(o);
    std::error_code ec;
    o.root = std::filesystem::absolute(o.root, ec).lexically_normal().string();
    // A root that is not there is a fact about this machine, not a misuse
    // of the command line: exit 1, with what is wrong with it.
    if (ec || !std::filesystem::exists(o.root, ec)) {
      return fail(o, fmt::format("the root {} does not exist (no tables there yet?)", o.root),
                  kFailure);
    }
    if (!std::filesystem::is_directory(o.root, ec)) {
      return fail(o, fmt::format("the root {} is not a directory", o.root), kFailure);
    }
    while (o.root.size() > 1 && o.root.back() == '/') o.root.pop_back();
    Mem::RootPath::baseIs(o.root);
    // An observer: whatever it finds, it writes nothing into a table's
    // directory (a reader that fails to attach would leave a marker there).
    Mirak::Util::corruptionMarkersIs(false);
    if (o.command == "ls") return cmdLs(o);
    if (o.command == "show") return cmdShow(o);
    if (o.command == "dump") return cmdDump(o);
    if (o.command == "get") return cmdGet(o);
    if (o.command == "check") return cmdCheck(o);
    if (o.command == "watch") return cmdWatch(o);
    throw UsageError(fmt::format("unknown command '{}'", o.command));
  } catch (UsageError const& e) {
    int const code = fail(o, e.what(), kUsage);
    bool known = false;
    for (auto const& c : commands) known = known || o.command == c.name;
    usage(stderr, known ? o.command : std::string());
    return code;
  } catch (std::exception const& e) {
    return fail(o, e.what(), kFailure);
  }
}
