#include "Mem/SharedGround.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <random>

#include <fmt/format.h>

#include "Mem/Error.h"
#include "Mem/Fd.h"

namespace Mem {

namespace {

struct Split {
  std::string dir;
  std::string name;
};

Split split(std::string const& path) {
  size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  if (slash == 0) return {"/", path.substr(1)};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

char const* kindOf(mode_t m) {
  if (S_ISDIR(m)) return "a directory";
  if (S_ISFIFO(m)) return "a FIFO";
  if (S_ISSOCK(m)) return "a socket";
  if (S_ISCHR(m)) return "a character device";
  if (S_ISBLK(m)) return "a block device";
  if (S_ISLNK(m)) return "a symbolic link";
  return "not a regular file";
}

bool writeAll(int fd, std::string_view bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t const n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Opens `dir` for `context` (the path that the caller wanted), refusing a
// link: the message says so when one is there.
int openDirectoryFor(std::string const& dir, std::string const& context, int extraFlags,
                     std::string& error) {
  int const fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | extraFlags);
  if (fd < 0) {
    int const err = errno;
    struct stat st;
    if ((err == ELOOP || err == ENOTDIR) && ::lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
      error = fmt::format("{}: {} is a symbolic link; a table directory never is", context, dir);
      errno = ELOOP;
    } else {
      error = posixError(fmt::format("open {}", context), err);
      errno = err;
    }
  }
  return fd;
}

}  // namespace

int openSharedDirectory(std::string const& dir, int extraFlags, std::string& error) {
  return openDirectoryFor(dir, dir, extraFlags, error);
}

int openSharedFile(std::string const& path, int flags, mode_t mode, std::string& error) {
  Split const p = split(path);
  Fd dir(openDirectoryFor(p.dir, path, 0, error));
  if (dir.get() < 0) return -1;
  Fd fd(::openat(dir.get(), p.name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode));
  if (fd.get() < 0) {
    int err = errno;
    if (err == ELOOP) {
      error = fmt::format("{} is a symbolic link; a table file never is", path);
    } else if (err == EISDIR) {
      error = fmt::format("{} is a directory; a table file must be a regular file", path);
      err = EINVAL;
    } else {
      error = posixError(fmt::format("open {}", path), err);
    }
    errno = err;
    return -1;
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    int const err = errno;
    error = posixError(fmt::format("fstat {}", path), err);
    errno = err;
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    error = fmt::format("{} is {}; a table file must be a regular file", path, kindOf(st.st_mode));
    errno = EINVAL;
    return -1;
  }
  // A file this process will write must be its own and writable by nobody
  // else: another user could cut it shorter under the writer, or rewrite it.
  if ((flags & O_ACCMODE) != O_RDONLY) {
    uid_t const me = ::geteuid();
    if (st.st_uid != me) {
      error = fmt::format(
          "{} is owned by uid {}, not by this process's user ({}); remove it or give it to this "
          "user",
          path, st.st_uid, me);
      errno = EPERM;
      return -1;
    }
    if (st.st_mode & S_IWOTH) {
      error = fmt::format("{} may be written by anyone (mode {:o}); chmod o-w it", path,
                          st.st_mode & 07777);
      errno = EPERM;
      return -1;
    }
  }
  // Back to blocking reads and writes; on a regular file the flag is moot,
  // but the descriptor is the caller's and should not surprise it.
  int const fl = ::fcntl(fd.get(), F_GETFL);
  if (fl >= 0) ::fcntl(fd.get(), F_SETFL, fl & ~O_NONBLOCK);
  return fd.release();
}

bool createSharedFile(std::string const& path, std::string_view bytes, mode_t mode,
                      std::string& error) {
  Split const p = split(path);
  Fd dir(openDirectoryFor(p.dir, path, 0, error));
  if (dir.get() < 0) return false;
  Fd fd(::openat(dir.get(), p.name.c_str(),
                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode));
  if (fd.get() < 0) {
    int const err = errno;
    error = posixError(fmt::format("create {}", path), err);
    errno = err;
    return false;
  }
  if (!writeAll(fd.get(), bytes)) {
    int const err = errno;
    error = posixError(fmt::format("write {}", path), err);
    ::unlinkat(dir.get(), p.name.c_str(), 0);
    errno = err;
    return false;
  }
  return true;
}

bool replaceSharedFile(std::string const& path, std::string_view bytes, mode_t mode,
                       std::string& error) {
  Split const p = split(path);
  Fd dir(openDirectoryFor(p.dir, path, 0, error));
  if (dir.get() < 0) return false;
  // An unpredictable name, made with O_EXCL: whatever is planted under a
  // name is never opened, a clash only draws again.
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  std::string tmp;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; attempt++) {
    tmp = fmt::format(".{}.tmp-{:016x}", p.name, rng());
    fd = ::openat(dir.get(), tmp.c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) {
    int const err = errno;
    error = posixError(fmt::format("create a temporary file beside {}", path), err);
    errno = err;
    return false;
  }
  Fd file(fd);
  auto fail = [&](std::string const& what) {
    int const err = errno;
    error = posixError(fmt::format("{} {}", what, path), err);
    ::unlinkat(dir.get(), tmp.c_str(), 0);
    errno = err;
    return false;
  };
  if (!writeAll(file.get(), bytes)) return fail("write the temporary of");
  if (::close(file.release()) != 0) return fail("close the temporary of");
  if (::renameat(dir.get(), tmp.c_str(), dir.get(), p.name.c_str()) != 0) {
    return fail("rename the temporary over");
  }
  return true;
}

}  // namespace Mem
