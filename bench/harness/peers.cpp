// flowtables-peers: the flow table beside what a user would otherwise pick
// (std::unordered_map and absl::flat_hash_map in one process, LMDB in tmpfs,
// a Boost.Interprocess map behind a sharable mutex, DPDK's lock-free
// rte_hash), on the same rows in one run, with readers in other processes
// while a writer process overwrites at full speed and at 100,000 writes/s.
//
// Writes RESULTS.md (figures, ratios to ours, the goals, the machine, the
// package versions and the command), the plot data and, with gnuplot, the
// plots peers-lookup.png and peers-insert.png into the output directory.
//
//   flowtables-peers [--quick] [--reps R] [--sizes N,N,...] [--out DIR]
//                    [--systems NAME,...] [--latency-mib M] [--no-plot]
//
// --systems keeps the named systems only (as they are named in the tables:
// flowtable, std::unordered_map, absl::flat_hash_map, LMDB,
// Boost.Interprocess, "DPDK rte_hash"), for profiling one of them;
// --latency-mib sizes the array of the memory latency figure (default 1024,
// 64 in quick mode, 0 to skip it).
//
// --quick is the smoke test: N = 10^4, one repetition, short measurements,
// every system and every load, output into ./peers-quick unless --out says
// otherwise. No figure is judged; wrong lookup results fail the run.
#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Harness.h"
#include "Lomi/Exception.h"
#include "Mem/RootPath.h"

#ifndef FLOWTABLES_BENCH_DIR
#define FLOWTABLES_BENCH_DIR "."
#endif

namespace {

using namespace Peers;

constexpr char kNotesMarker[] = "<!-- notes: text below this line is kept by the next run -->";

struct System {
  std::string name;
  Figures (*run)(Config const&, Workload const&, int);
  std::string unavailable;  // why it was not measured, if it was not
};

struct Options {
  Config config;
  std::vector<uint32_t> sizes = {10000, 100000, 1000000};
  std::string out = FLOWTABLES_BENCH_DIR;
  bool plot = true;
  std::vector<std::string> systems;  // empty: all
  uint64_t latencyMiB = 1024;        // 0: not measured
  std::string command;
};

[[noreturn]] void usage(std::string const& why) {
  throw Lomi::InvalidInitializeException(
      "flowtables-peers: {}; usage: flowtables-peers [--quick] [--reps R] [--sizes N,N,...] "
      "[--out DIR] [--systems NAME,...] [--latency-mib M] [--no-plot]",
      why);
}

uint32_t parseCount(std::string const& s, char const* what) {
  char* end = nullptr;
  unsigned long const v = std::strtoul(s.c_str(), &end, 10);
  if (s.empty() || *end || v == 0 || v > 50000000) {
    usage(fmt::format("{} '{}' is not a count between 1 and 50000000", what, s));
  }
  return static_cast<uint32_t>(v);
}

Options parseOptions(int argc, char** argv) {
  Options o;
  bool outGiven = false;
  o.command = argv[0];
  for (int i = 1; i < argc; i++) o.command += std::string(" ") + argv[i];
  for (int i = 1; i < argc; i++) {
    std::string const a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage(a + " needs a value");
      return argv[++i];
    };
    if (a == "--quick") {
      o.config.quick = true;
    } else if (a == "--reps") {
      o.config.reps = static_cast<int>(parseCount(value(), "--reps"));
    } else if (a == "--sizes") {
      o.sizes.clear();
      std::stringstream ss(value());
      for (std::string item; std::getline(ss, item, ',');)
        o.sizes.push_back(parseCount(item, "a size"));
    } else if (a == "--out") {
      o.out = value();
      outGiven = true;
    } else if (a == "--systems") {
      std::stringstream ss(value());
      for (std::string item; std::getline(ss, item, ',');) o.systems.push_back(item);
    } else if (a == "--latency-mib") {
      std::string const v = value();
      o.latencyMiB = v == "0" ? 0 : parseCount(v, "--latency-mib");
    } else if (a == "--no-plot") {
      o.plot = false;
    } else {
      usage("unknown argument '" + a + "'");
    }
  }
  if (o.config.quick) {
    bool const sizesGiven = o.command.find("--sizes") != std::string::npos;
    if (!sizesGiven) o.sizes = {10000};
    if (o.command.find("--reps") == std::string::npos) o.config.reps = 1;
    o.config.minLookupSeconds = 0.01;
    if (!outGiven) o.out = "peers-quick";
    if (o.command.find("--latency-mib") == std::string::npos) o.latencyMiB = 64;
  }
  return o;
}

std::string shell(std::string const& cmd) {
  std::string out;
  if (FILE* p = ::popen(cmd.c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    ::pclose(p);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

std::string loadAverage() {
  std::ifstream f("/proc/loadavg");
  std::string a, b, c;
  f >> a >> b >> c;
  return fmt::format("{} {} {} (1, 5, 15 min)", a, b, c);
}

std::string cell(double v, int digits = 1) {
  if (std::isnan(v)) return "–";
  return fmt::format("{:.{}f}", v, digits);
}

// "v (r×)" with r = v / ours: above 1 means ours is faster (or smaller).
std::string withRatio(double v, double ours) {
  if (std::isnan(v)) return "–";
  if (std::isnan(ours) || ours <= 0) return cell(v);
  return fmt::format("{} ({:.2f}×)", cell(v), v / ours);
}

std::string nLabel(uint32_t n) {
  int e = 0;
  uint32_t m = n;
  while (m % 10 == 0 && m > 1) {
    m /= 10;
    e++;
  }
  return m == 1 ? fmt::format("10^{}", e) : fmt::format("{}", n);
}

using Table = std::map<std::string, std::map<uint32_t, Figures>>;

struct Row {
  char const* label;
  double Figures::*field;
};

std::vector<Row> const kRows = {
    {"writer insert, ns/op", &Figures::insert},
    {"writer overwrite, ns/op", &Figures::overwrite},
    {"writer remove, ns/op", &Figures::remove},
    {"walk, ns/entry", &Figures::walk},
    {"memory, bytes/entry after filling", &Figures::bytes},
    {"reader lookup hit, ns", &Figures::hit},
    {"reader lookup miss, ns", &Figures::miss},
    {"hit, full-speed writer, ns", &Figures::hitBusy},
    {"miss, full-speed writer, ns", &Figures::missBusy},
    {"bulk lookup hit, ns per key (32 keys a call)", &Figures::hitBulk},
    {"bulk lookup miss, ns per key (32 keys a call)", &Figures::missBulk},
    {"hit, writer at 100,000/s, ns", &Figures::hitPaced},
    {"miss, writer at 100,000/s, ns", &Figures::missPaced},
    {"hit, one txn per lookup, ns", &Figures::hitTxn},
    {"miss, one txn per lookup, ns", &Figures::missTxn},
    {"hit, one txn per lookup, full-speed writer, ns", &Figures::hitTxnBusy},
};

Figures medianOf(std::vector<Figures> const& reps) {
  Figures m;
  for (Row const& r : kRows) {
    std::vector<double> v;
    for (Figures const& f : reps) v.push_back(f.*(r.field));
    m.*(r.field) = median(v);
  }
  return m;
}

struct Goal {
  std::string text;
  double value;  // the ratio
  double limit;
  bool atMost;  // value <= limit, else value >= limit
};

std::vector<Goal> goalsOf(Table const& t, uint32_t n) {
  auto get = [&](std::string const& s, double Figures::*field) {
    auto it = t.find(s);
    if (it == t.end()) return kNone;
    auto jt = it->second.find(n);
    return jt == it->second.end() ? kNone : jt->second.*field;
  };
  Figures const& o = t.at("flowtable").at(n);
  // The hit at 10^4, where the table fits the caches, if that size ran.
  double hitSmall = kNone;
  if (t.at("flowtable").count(10000)) {
    Figures const& small = t.at("flowtable").at(10000);
    auto it = t.find("absl::flat_hash_map");
    if (it != t.end() && it->second.count(10000)) hitSmall = small.hit / it->second.at(10000).hit;
  }
  return {
      {"reader hit / absl::flat_hash_map hit", o.hit / get("absl::flat_hash_map", &Figures::hit),
       1.3, true},
      {"reader hit / std::unordered_map hit", o.hit / get("std::unordered_map", &Figures::hit), 1.0,
       true},
      {"reader hit / DPDK rte_hash hit", o.hit / get("DPDK rte_hash", &Figures::hit), 1.0, true},
      {"reader hit / absl::flat_hash_map hit, at N = 10^4", hitSmall, 1.5, true},
      {"reader bulk hit per key / DPDK rte_hash bulk hit per key",
       o.hitBulk / get("DPDK rte_hash", &Figures::hitBulk), 1.0, true},
      {"reader miss / absl::flat_hash_map miss", o.miss / get("absl::flat_hash_map", &Figures::miss),
       4.0, true},
      {"LMDB hit (long txn) / reader hit", get("LMDB", &Figures::hit) / o.hit, 4.0, false},
      {"Boost.Interprocess hit / reader hit", get("Boost.Interprocess", &Figures::hit) / o.hit, 2.0,
       false},
      {"reader hit under full-speed writer / idle hit", o.hitBusy / o.hit, 1.2, true},
      {"reader miss under full-speed writer / idle miss", o.missBusy / o.miss, 1.2, true},
      {"insert / std::unordered_map insert", o.insert / get("std::unordered_map", &Figures::insert),
       1.5, true},
      {"overwrite / DPDK rte_hash overwrite", o.overwrite / get("DPDK rte_hash", &Figures::overwrite),
       1.5, true},
      {"walk / std::unordered_map walk", o.walk / get("std::unordered_map", &Figures::walk), 1.2,
       true},
      {"memory, bytes per entry", o.bytes, 150.0, true},
      {"shadow hit / absl::flat_hash_map hit",
       get("flowtable shadow", &Figures::hit) / get("absl::flat_hash_map", &Figures::hit), 1.2,
       true},
      {"keyshadow hit / reader hit", get("flowtable keyshadow", &Figures::hit) / o.hit, 1.0, true},
      {"shadow memory, bytes per entry (record 84 + 48)", get("flowtable shadow", &Figures::bytes),
       132.0, true},
      {"keyshadow memory, bytes per entry (key 36 + 24)",
       get("flowtable keyshadow", &Figures::bytes), 60.0, true},
  };
}

std::string keptNotes(std::string const& path) {
  std::ifstream f(path);
  std::stringstream ss;
  ss << f.rdbuf();
  std::string const s = ss.str();
  size_t const at = s.find(kNotesMarker);
  return at == std::string::npos ? std::string() : s.substr(at + sizeof(kNotesMarker) - 1);
}

void writeResults(Options const& o, std::vector<System> const& systems, Table const& t,
                  double latencyNs, uint64_t latencyBytes, std::string const& loadStart,
                  std::string const& loadEnd, std::string const& started) {
  std::string const path = o.out + "/RESULTS.md";
  std::string const notes = keptNotes(path);
  std::string s;
  auto add = [&s](std::string const& line) { s += line + "\n"; };
  utsname u{};
  ::uname(&u);
  add("# Flow table beside its peers");
  add("");
  add(fmt::format("Written by `flowtables-peers` ({}), started {}.",
                  o.config.quick ? "quick smoke run, not a measurement" : "full run", started));
  add("");
  add("```sh");
  add("cmake -S . -B build-peers -DCMAKE_BUILD_TYPE=Release -DFLOWTABLES_PEERS=ON "
      "-DFLOWTABLES_TESTS=OFF");
  add("cmake --build build-peers --target flowtables-peers");
  add(o.command);
  add("```");
  add("");
  add("## Machine");
  add("");
  add(fmt::format("- CPU: {}, {} online cores",
                  shell("grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'"),
                  ::sysconf(_SC_NPROCESSORS_ONLN)));
  add(fmt::format("- Memory: {}", shell("grep -m1 MemTotal /proc/meminfo | sed 's/  */ /g'")));
  add(fmt::format("- Kernel: {} {}", u.sysname, u.release));
  add(fmt::format("- Load average at start: {}; at end: {}", loadStart, loadEnd));
  add(
      fmt::format("- Random memory access latency ({} MiB array, dependent loads of random cache "
                  "lines): {:.1f} ns",
                  latencyBytes >> 20, latencyNs));
  add(
      fmt::format("- Repetitions: {} per size, medians reported; one lookup figure is at least {} "
                  "s of passes over all keys in random order",
                  o.config.reps, o.config.minLookupSeconds));
  add("");
  add("## Packages");
  add("");
  add("| package | version |");
  add("|---|---|");
  for (char const* p : {"g++-12", "libfmt-dev", "liblmdb-dev", "libboost1.74-dev", "libabsl-dev",
                        "libdpdk-dev", "gnuplot-nox"}) {
    std::string v = shell(fmt::format("dpkg-query -W -f '${{Version}}' {} 2>/dev/null", p));
    add(fmt::format("| {} | {} |", p, v.empty() ? "not installed" : v));
  }
  add("");
  add("## Systems");
  add("");
  add("- flowtable: a HoIpFlowConfig table in /dev/shm; this process writes (MirakWriter), readers "
      "are forked processes (MirakReader).");
  add("- std::unordered_map, absl::flat_hash_map: in this one process (the ceiling); no concurrent "
      "writer is possible.");
  add("- LMDB: an environment in /dev/shm, MDB_NOSYNC, one write transaction per write; readers "
      "are forked processes with their own environment. \"long txn\": one read transaction renewed "
      "every 4096 lookups; \"one txn per lookup\": reset/renew around each lookup.");
  add("- Boost.Interprocess: boost::unordered_map in managed_shared_memory (/dev/shm) behind an "
      "interprocess_sharable_mutex: exclusive per write, sharable per lookup; readers are forked "
      "processes.");
  add("- DPDK rte_hash: one process (no hugepages here, so no multi-process mode); lock-free "
      "read/write concurrency, CRC32 hash over the 36 key bytes, records in an rte_malloc pool; "
      "the writer under load is a second thread. Memory: rte_malloc heap growth + one 84-byte "
      "record per entry.");
  for (System const& sys : systems) {
    if (!sys.unavailable.empty())
      add(fmt::format("- **{} not measured**: {}", sys.name, sys.unavailable));
  }
  add("");
  add("Keys: 36-byte HoIpFlowKey, records: 84-byte HoIpFlowConfig (the key inside). Lookups copy "
      "the value out and are checked (a wrong result fails the run). Memory: allocated blocks of "
      "the files for shared systems, heap growth (mallinfo2) for in-process maps. Ratio in "
      "brackets: the figure divided by the flow table's, so above 1 means the flow table is faster "
      "(or smaller).");
  add("");
  uint32_t const largest = o.sizes.back();
  if (t.count("flowtable") && t.at("flowtable").count(largest)) {
    add(fmt::format("## Goals at N = {}", nLabel(largest)));
    add("");
    add("| goal | ratio | limit | met |");
    add("|---|---|---|---|");
    for (Goal const& g : goalsOf(t, largest)) {
      bool const met = !std::isnan(g.value) && (g.atMost ? g.value <= g.limit : g.value >= g.limit);
      add(fmt::format("| {} | {} | {} {} | {} |", g.text, cell(g.value, 2), g.atMost ? "≤" : "≥",
                      g.limit,
                      std::isnan(g.value) ? "not measured"
                      : met               ? "yes"
                                          : "**no**"));
    }
    add("");
  }
  for (uint32_t n : o.sizes) {
    add(fmt::format("## N = {}", nLabel(n)));
    add("");
    std::string head = "| figure |";
    std::string rule = "|---|";
    for (System const& sys : systems) {
      head += " " + sys.name + " |";
      rule += "---|";
    }
    add(head);
    add(rule);
    for (Row const& r : kRows) {
      std::string line = fmt::format("| {} |", r.label);
      bool any = false;
      double const ours = t.count("flowtable") && t.at("flowtable").count(n)
                              ? t.at("flowtable").at(n).*(r.field)
                              : kNone;
      for (System const& sys : systems) {
        double v = kNone;
        if (t.count(sys.name) && t.at(sys.name).count(n)) v = t.at(sys.name).at(n).*(r.field);
        any = any || !std::isnan(v);
        line += " " + (sys.name == "flowtable" ? cell(v) : withRatio(v, ours)) + " |";
      }
      if (any) add(line);
    }
    add("");
  }
  add("Plots: [lookup hit](peers-lookup.png), [insert](peers-insert.png).");
  add("");
  add(kNotesMarker);
  s += notes.empty() ? "\n" : notes;
  std::ofstream(path) << s;
}

void writePlotData(Options const& o, std::vector<System> const& systems, Table const& t) {
  for (auto [file, field] : {std::pair{"peers-lookup.dat", &Figures::hit},
                             std::pair{"peers-insert.dat", &Figures::insert}}) {
    std::ofstream f(o.out + "/" + file);
    f << "N";
    for (System const& sys : systems) f << "\t\"" << sys.name << "\"";
    f << "\n";
    for (uint32_t n : o.sizes) {
      f << n;
      for (System const& sys : systems) {
        double v = kNone;
        if (t.count(sys.name) && t.at(sys.name).count(n)) v = t.at(sys.name).at(n).*field;
        f << "\t" << (std::isnan(v) ? std::string("-") : fmt::format("{:.2f}", v));
      }
      f << "\n";
    }
  }
}

int run(int argc, char** argv) {
  Options o = parseOptions(argc, argv);
  std::filesystem::create_directories(o.out);
  char tmpl[] = "/dev/shm/flowtables-peers-XXXXXX";
  if (!::mkdtemp(tmpl))
    throw Lomi::RuntimeException("flowtables-peers: mkdtemp in /dev/shm failed");
  o.config.shmDir = tmpl;
  struct RemoveDir {
    std::string dir;
    ~RemoveDir() {
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
    }
  } removeDir{o.config.shmDir};
  Mem::RootPath::baseIs(o.config.shmDir);

  std::time_t const now = std::time(nullptr);
  char started[64];
  std::strftime(started, sizeof started, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  std::string const loadStart = loadAverage();

  // DPDK last: its environment starts threads, and the other systems fork.
  std::vector<System> systems = {
      {"flowtable", runOurs, ""},
      {"flowtable shadow", runValueShadow, ""},
      {"flowtable keyshadow", runKeyShadow, ""},
      {"std::unordered_map", runStdUnorderedMap, ""},
      {"absl::flat_hash_map", runAbslFlatHashMap, ""},
      {"LMDB", runLmdb, ""},
      {"Boost.Interprocess", runBoostInterprocess, ""},
      {"DPDK rte_hash", runDpdkHash, ""},
  };

  uint64_t const latencyBytes = o.config.quick ? (uint64_t{64} << 20) : (uint64_t{1} << 30);
  fmt::print(stderr, "[peers] random access latency, {} MiB array\n", latencyBytes >> 20);
  double const latencyNs = randomAccessLatencyNs(latencyBytes, o.config.quick ? 2000000 : 20000000);

  std::map<uint32_t, Workload> workloads;
  for (uint32_t n : o.sizes) workloads.emplace(n, makeWorkload(n));

  Table table;
  if (!o.systems.empty()) {
    std::vector<System> chosen;
    for (std::string const& name : o.systems) {
      auto it = std::find_if(systems.begin(), systems.end(),
                             [&](System const& s) { return s.name == name; });
      if (it == systems.end()) usage("--systems names an unknown system '" + name + "'");
      chosen.push_back(*it);
    }
    systems = chosen;
  }

  for (System& sys : systems) {
    if (sys.name == "DPDK rte_hash") {
      std::string error;
      if (!dpdkInit(error)) {
        sys.unavailable = "its environment did not start here without hugepages (" + error + ")";
        fmt::print(stderr, "[peers] {} not measured: {}\n", sys.name, sys.unavailable);
        continue;
      }
    }
    for (uint32_t n : o.sizes) {
      std::vector<Figures> reps;
      for (int rep = 0; rep < o.config.reps; rep++)
        reps.push_back(sys.run(o.config, workloads.at(n), rep));
      table[sys.name][n] = medianOf(reps);
    }
  }
  progressDone();

  writeResults(o, systems, table, latencyNs, latencyBytes, loadStart, loadAverage(), started);
  writePlotData(o, systems, table);
  fmt::print(stderr, "[peers] wrote {}/RESULTS.md\n", o.out);
  if (o.plot) {
    std::string const cmd = fmt::format("gnuplot -e \"datadir='{0}'; outdir='{0}'\" {1}/plot.gp",
                                        o.out, FLOWTABLES_BENCH_DIR);
    if (shell("command -v gnuplot").empty()) {
      fmt::print(stderr, "[peers] gnuplot not found: no plots\n");
    } else if (std::system(cmd.c_str()) != 0) {
      throw Lomi::RuntimeException("flowtables-peers: the plot command failed: {}", cmd);
    } else {
      fmt::print(stderr, "[peers] wrote {0}/peers-lookup.png and {0}/peers-insert.png\n", o.out);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (Lomi::Exception const& e) {
    Peers::progressDone();
    fmt::print(stderr, "flowtables-peers: {}\n", e.msg());
  } catch (std::exception const& e) {
    Peers::progressDone();
    fmt::print(stderr, "flowtables-peers: {}\n", e.what());
  }
  return 1;
}
