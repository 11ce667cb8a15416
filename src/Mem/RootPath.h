// Mem::RootPath and Mem::NaoRootPath: where the files of a table live.
//
// Every shared table has one directory: the process-wide base directory, "/",
// then the table's name, which may itself hold "/" (a mount path such as
// "flowtracking/ip/hwOffload/config"). The base defaults to "/dev/shm/mirak";
// an agent, the CLI (--root) or a test sets another with RootPath::baseIs
// before it builds tables. A NaoRootPath takes the base at its construction
// and keeps it: moving the base later never moves an existing table.
//
// A local table (private memory of one process) has no directory: its path()
// is empty and createDirectories() does nothing.
//
// Contract:
//   - RootPath::baseIs throws Lomi::InvalidInitializeException for a base that
//     is empty or not absolute. It is safe to call from any thread.
//   - NaoRootPath's constructor throws Lomi::InvalidInitializeException for a
//     shared table whose name is empty, is absolute, or has a "." or ".."
//     component: such a name would put the table's files (and the removal of
//     them by `cleanup`) outside its own directory under the base.
//   - createDirectories() makes the directory with its parents (mode 0755
//     under the umask) and throws Lomi::InvalidInitializeException naming the
//     path and the system's reason when it cannot. It is the writer's way in,
//     and it trusts only what a writer may: the base and every directory below
//     it down to the table's must be a directory (no link), owned by this
//     process's user or by root, and not writable by others unless sticky;
//     anything else is refused with what to fix. Above the base nothing is
//     checked: the base is the deployment's choice (/dev/shm/mirak, /tmp/x).
#pragma once

#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Lomi {
class EventLoop;
namespace Platform {
class DebugHandler;
}
}  // namespace Lomi

namespace Mem {

class RootPath {
 public:
  static constexpr char const* kDefaultBase = "/dev/shm/mirak";

  // Sets the process-wide base directory. Trailing slashes are dropped.
  static void baseIs(std::string const& dir);
  static std::string base();

  // The process-wide default event loop, where sentries, sockets and sweeps
  // register (Lomi::EventLoop::defaultLoop()).
  static Lomi::EventLoop& eventLoop();
};

class NaoRootPath {
 public:
  NaoRootPath(Lomi::Platform::DebugHandler& handler, std::string name, bool local);

  // The name the table was given.
  std::string const& name() const { return name_; }
  // The last component of the name: the table's own directory name.
  std::string dirName() const;
  // base + "/" + name for a shared table; empty for a local one.
  std::string const& path() const { return path_; }
  bool isLocal() const { return local_; }
  // path() for a shared table, "local:<name>" for a local one: the text of
  // traces and messages.
  std::string str() const;
  // The file `file` inside the table's directory. A local table has none:
  // Lomi::InvalidInitializeException.
  std::string filePath(std::string_view file) const;

  void createDirectories() const;

  Lomi::Platform::DebugHandler& debugHandler() const { return *handler_; }

  friend bool operator==(NaoRootPath const& a, NaoRootPath const& b) {
    return a.local_ == b.local_ && a.name_ == b.name_ && a.path_ == b.path_;
  }

 private:
  // Throws unless `dir` may hold a writer's files (see createDirectories).
  void checkTrusted(std::string const& dir) const;

  Lomi::Platform::DebugHandler* handler_;
  std::string name_;
  std::string path_;
  // Length of the base within path_: the trusted part starts there.
  size_t baseLength_ = 0;
  bool local_;
};

}  // namespace Mem

template <>
struct fmt::formatter<Mem::NaoRootPath> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mem::NaoRootPath const& p, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}", p.str());
  }
};
