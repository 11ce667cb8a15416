// Opening files on shared ground. Tables live under a directory that every
// local user may write (/dev/shm), and the processes that open them are often
// privileged: a name there may be a link, a FIFO or a directory planted by
// someone else. Every open of a table's file goes through here:
//   - the directory that holds the file is opened with O_DIRECTORY|O_NOFOLLOW
//     (a table directory that is a link is refused), and the file relative to
//     it with O_NOFOLLOW|O_CLOEXEC: no link is followed to the file;
//   - O_NONBLOCK always, so that a FIFO in place of a file cannot block the
//     open (it has no effect on a regular file);
//   - the result must be a regular file, checked with fstat on the open
//     descriptor, or it is closed and refused; a file opened for writing
//     must also be owned by this process's user and not writable by others;
//   - a file is replaced through a temporary made with O_CREAT|O_EXCL under
//     an unpredictable name in the same directory, then renamed over the
//     name: a link planted at a guessable temporary name is never followed.
// Errors name the path and what was found there.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Mem {

// Opens `path` as told above with `flags` (O_RDONLY, O_RDWR, O_CREAT, ...)
// and `mode` for a file it creates. Returns the descriptor, or -1 with
// `error` set and errno saying why: ENOENT when there is no such file (the
// caller may take that as normal), ELOOP for a link, EINVAL for anything that
// is not a regular file.
int openSharedFile(std::string const& path, int flags, mode_t mode, std::string& error);

// Opens the directory `dir` itself, refusing a link in its last component.
// Returns the descriptor or -1 with `error` set and errno kept.
int openSharedDirectory(std::string const& dir, int extraFlags, std::string& error);

// Replaces the file `path` with `bytes` (mode `mode`) by a temporary made with
// O_EXCL beside it, then renameat. False with `error` set on any failure; the
// temporary is removed then.
bool replaceSharedFile(std::string const& path, std::string_view bytes, mode_t mode,
                       std::string& error);

// Creates `path` with `bytes` only if no entry of that name exists (O_EXCL:
// a planted link is not followed). False with errno EEXIST when it exists.
bool createSharedFile(std::string const& path, std::string_view bytes, mode_t mode,
                      std::string& error);

}  // namespace Mem
