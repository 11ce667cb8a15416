// The shared machinery of the peer benchmark harness: rows, timing, reader
// processes with their writer load, memory figures, progress.
#include "Harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include <fmt/format.h>

#include "../BenchRows.h"
#include "Lomi/Exception.h"

namespace Peers {

Key keyOf(uint32_t i) {
  Key key = BenchRows::keyOf(i);
  // The bytes no field covers (14-15 and 25-27 of the flow key) are zeroed,
  // so that the byte-wise peers see the same key as the field-wise ones.
  auto* bytes = reinterpret_cast<unsigned char*>(&key);
  std::memset(bytes + 14, 0, 2);
  std::memset(bytes + 25, 0, 3);
  return key;
}

Value rowOf(uint32_t i, uint32_t version) {
  Record r(keyOf(i));
  r.createTimeIs(i);
  r.updateTimeIs(version);
  return Value(r);
}

Workload makeWorkload(uint32_t n) {
  Workload w;
  w.n = n;
  w.keys.reserve(n);
  w.rows.reserve(n);
  for (uint32_t i = 0; i < n; i++) {
    w.keys.push_back(keyOf(i));
    w.rows.push_back(rowOf(i, 0));
  }
  w.order.resize(n);
  for (uint32_t i = 0; i < n; i++) w.order[i] = i;
  std::shuffle(w.order.begin(), w.order.end(), std::mt19937(kOrderSeed));
  w.hitKeys.reserve(n);
  w.missKeys.reserve(n);
  for (uint32_t i : w.order) {
    w.hitKeys.push_back(w.keys[i]);
    w.missKeys.push_back(keyOf(n + i));
  }
  return w;
}

uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

double median(std::vector<double> v) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
  if (v.empty()) return kNone;
  std::sort(v.begin(), v.end());
  size_t const m = v.size() / 2;
  return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

void fail(std::string const& system, std::string const& what) {
  throw Lomi::RuntimeException("peer benchmark {}: {}", system, what);
}

// --- processes ---------------------------------------------------------------

namespace {

// The child's message: a tag byte, then the result or an error text.
constexpr char kOk = 'R';
constexpr char kError = 'E';

bool writeAll(int fd, void const* data, size_t size) {
  auto const* p = static_cast<char const*>(data);
  while (size) {
    ssize_t const r = ::write(fd, p, size);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    size -= static_cast<size_t>(r);
  }
  return true;
}

std::string readAll(int fd) {
  std::string s;
  char buf[4096];
  for (;;) {
    ssize_t const r = ::read(fd, buf, sizeof buf);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    s.append(buf, static_cast<size_t>(r));
  }
  return s;
}

}  // namespace

ReaderProcess::ReaderProcess(std::function<ReaderResult()> body) {
  int fds[2];
  if (::pipe(fds) != 0) {
    throw Lomi::RuntimeException("peer benchmark: pipe for a reader process: {}",
                                 std::strerror(errno));
  }
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) {
    throw Lomi::RuntimeException("peer benchmark: fork of a reader process: {}",
                                 std::strerror(errno));
  }
  if (pid_ == 0) {
    ::close(fds[0]);
    std::string msg;
    try {
      ReaderResult const r = body();
      msg.push_back(kOk);
      msg.append(reinterpret_cast<char const*>(&r), sizeof r);
    } catch (Lomi::Exception const& e) {
      msg = std::string(1, kError) + e.msg();
    } catch (std::exception const& e) {
      msg = std::string(1, kError) + e.what();
    }
    // _exit: the child must not run the parent's destructors (its writer
    // objects, mapped tables and temporary directories are the parent's).
    ::_exit(writeAll(fds[1], msg.data(), msg.size()) ? 0 : 3);
  }
  ::close(fds[1]);
  fd_ = fds[0];
}

ReaderProcess::~ReaderProcess() {
  if (fd_ >= 0) ::close(fd_);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status;
    ::waitpid(pid_, &status, 0);
  }
}

bool ReaderProcess::done() {
  if (!done_) {
    pollfd p{fd_, POLLIN, 0};
    done_ = ::poll(&p, 1, 0) > 0;
  }
  return done_;
}

ReaderResult ReaderProcess::result(std::string const& system) {
  std::string const msg = readAll(fd_);
  ::close(fd_);
  fd_ = -1;
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  if (!msg.empty() && msg[0] == kError) fail(system, "reader process: " + msg.substr(1));
  if (msg.size() != 1 + sizeof(ReaderResult) || msg[0] != kOk) {
    fail(system, fmt::format("reader process ended without a result (wait status {:#x})", status));
  }
  ReaderResult r;
  std::memcpy(&r, msg.data() + 1, sizeof r);
  return r;
}

char const* loadName(Load load) {
  switch (load) {
    case Load::idle:
      return "no writer";
    case Load::busy:
      return "full-speed writer";
    case Load::paced:
      return "paced writer";
  }
  return "?";
}

ReaderResult readUnderLoad(std::string const& system, Load load, uint32_t n,
                           std::function<ReaderResult()> reader,
                           std::function<void(uint32_t, uint32_t)> const& overwrite) {
  ReaderProcess child(std::move(reader));
  std::mt19937 rng(kWriterSeed);
  uint32_t version = 1;
  uint64_t writes = 0;
  if (load == Load::busy) {
    while (!child.done()) {
      for (int j = 0; j < 256; j++) overwrite(rng() % n, version++);
      writes += 256;
    }
  } else if (load == Load::paced) {
    // Batches of one millisecond against an absolute clock: a late batch is
    // made up by the next ones, so the rate holds on average.
    constexpr uint64_t kTickNs = 1000000;
    uint64_t const perTick = static_cast<uint64_t>(kPacedRate / 1000.0);
    timespec next;
    ::clock_gettime(CLOCK_MONOTONIC, &next);
    while (!child.done()) {
      for (uint64_t j = 0; j < perTick; j++) overwrite(rng() % n, version++);
      writes += perTick;
      next.tv_nsec += kTickNs;
      if (next.tv_nsec >= 1000000000) {
        next.tv_nsec -= 1000000000;
        next.tv_sec++;
      }
      ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
  } else {
    pollfd p{-1, 0, 0};
    while (!child.done()) ::poll(&p, 0, 1);
  }
  ReaderResult r = child.result(system);
  if (load != Load::idle && writes == 0) fail(system, "the writer wrote nothing during the read");
  return r;
}

// --- memory --------------------------------------------------------------------

uint64_t allocatedBytesOf(std::string const& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_blocks) * 512u;
}

uint64_t allocatedBytesUnder(std::string const& dir) {
  uint64_t total = 0;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return allocatedBytesOf(dir);
  while (dirent* e = ::readdir(d)) {
    std::string const name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string const path = dir + "/" + name;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) continue;
    total += S_ISDIR(st.st_mode) ? allocatedBytesUnder(path)
                                 : static_cast<uint64_t>(st.st_blocks) * 512u;
  }
  ::closedir(d);
  return total;
}

uint64_t heapGrowth(std::function<void()> const& fill) {
  // Resident memory would undercount here: the heap keeps what earlier maps
  // freed, and a new map reuses it without a single new page.
  struct mallinfo2 const before = ::mallinfo2();
  fill();
  struct mallinfo2 const after = ::mallinfo2();
  return (after.uordblks + after.hblkhd) - (before.uordblks + before.hblkhd);
}

// --- progress ------------------------------------------------------------------

namespace {
bool const stderrIsTerminal = ::isatty(2);
}

void progress(std::string const& system, uint32_t n, int rep, int reps, char const* step) {
  std::string const line =
      fmt::format("[peers] {:<22} N={:<8} rep {}/{}  {}", system, n, rep + 1, reps, step);
  if (stderrIsTerminal) {
    fmt::print(stderr, "\r\033[K{}", line);
  } else {
    fmt::print(stderr, "{}\n", line);
  }
  std::fflush(stderr);
}

void progressDone() {
  if (stderrIsTerminal) fmt::print(stderr, "\n");
}

// --- the machine -----------------------------------------------------------------

double randomAccessLatencyNs(uint64_t bytes, uint64_t loads) {
  constexpr size_t kLine = 64 / sizeof(uint64_t);
  size_t const lines = bytes / 64;
  std::vector<uint64_t> a(lines * kLine);
  // Sattolo's shuffle: one cycle through every line, so the chase visits
  // each line once per lap in random order.
  std::vector<uint32_t> perm(lines);
  for (size_t i = 0; i < lines; i++) perm[i] = static_cast<uint32_t>(i);
  std::mt19937_64 rng(kOrderSeed);
  for (size_t i = lines - 1; i > 0; i--) {
    size_t const j = rng() % i;
    std::swap(perm[i], perm[j]);
  }
  for (size_t i = 0; i < lines; i++) a[perm[i] * kLine] = perm[(i + 1) % lines] * kLine;
  uint64_t p = 0;
  for (uint64_t i = 0; i < loads / 8; i++) p = a[p];  // warm the page tables a little
  uint64_t const start = nowNs();
  for (uint64_t i = 0; i < loads; i++) p = a[p];
  uint64_t const ns = nowNs() - start;
  // The end of the chase is used, so the loads cannot be dropped.
  if (p == ~uint64_t{0}) std::abort();
  return static_cast<double>(ns) / static_cast<double>(loads);
}

}  // namespace Peers
