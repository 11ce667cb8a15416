// Small whole-file records of a table directory (kestor, owner) and their
// private-memory stand-ins for local tables.
//
// A record is always replaced whole: written to a temporary file in the same
// directory, then renamed over the old one. rename(2) is atomic between
// processes, so a reader (or an inotify watcher waiting for IN_MOVED_TO) sees
// the old record or the new one, never a partly written one. There is no
// fsync: the files live on tmpfs by default and a table never outlives the
// machine's uptime, so the only failure that matters is a process dying in the
// middle, which leaves at most a stray temporary file ("<name>.tmp-<pid>").
//
// A local table has no directory. Its records live in a process-wide store
// keyed by the table's name and the record's name, so that the objects a
// writer builds one after another (each attach, validateFiles, cleanup) see
// the same record, as they would see the same file.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Parcel::Impl {

// The file's bytes, or nullopt if it does not exist. A file longer than
// `maxSize` yields its first maxSize + 1 bytes, so the caller can tell it is
// too long. Other failures (permissions, a directory in the way) give nullopt
// with the reason in `error`.
std::optional<std::string> readSmallFile(std::string const& path, size_t maxSize,
                                         std::string& error);

// Replaces `path` whole with `bytes` (mode 0644 under the umask). Throws
// Lomi::InvalidInitializeException naming the file and the system's reason.
void replaceFile(std::string const& path, std::string_view bytes);

// Unlinks `path`; a missing file is fine. Throws Lomi::RuntimeException with
// the file and the reason otherwise.
void removeFile(std::string const& path);

// The private store of local tables' records.
std::optional<std::string> localRecord(std::string const& table, std::string_view record);
void localRecordIs(std::string const& table, std::string_view record, std::string bytes);
void localRecordDel(std::string const& table, std::string_view record);

}  // namespace Parcel::Impl
