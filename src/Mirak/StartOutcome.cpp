// Text form and side file of a writer's start outcome.
#include "Mirak/StartOutcome.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string_view>

#include <fmt/format.h>

#include "Lomi/Trace.h"
#include "Mem/SharedGround.h"

namespace Mirak {

std::string formatStartOutcomeKind(StartOutcome::Kind kind) {
  switch (kind) {
    case StartOutcome::Kind::none:
      return "none";
    case StartOutcome::Kind::created:
      return "new";
    case StartOutcome::Kind::adopted:
      return "adopted";
    case StartOutcome::Kind::salvaged:
      return "salvaged";
    case StartOutcome::Kind::reformatted:
      return "re-formatted";
  }
  return fmt::format("Kind({})", static_cast<unsigned>(kind));
}

std::string StartOutcome::toString() const {
  std::string text = kindText();
  if (!sideFileRefused.empty()) text += "; salvage side file refused: " + sideFileRefused;
  return text;
}

std::string StartOutcome::kindText() const {
  switch (kind) {
    case Kind::none:
      return "not started";
    case Kind::created:
      return "new table";
    case Kind::adopted:
      return fmt::format("adopted {} rows", rows);
    case Kind::salvaged: {
      std::string why;
      auto add = [&why](uint32_t n, char const* what) {
        if (n) why += fmt::format("{}{} {}", why.empty() ? "" : ", ", n, what);
      };
      add(unfinished, "unfinished");
      add(torn, "torn");
      add(badHash, "bad hash");
      add(duplicates, "duplicate");
      add(noRoom, "no room");
      return fmt::format("salvaged {} rows ({} dropped{}{}) after: {}", rows, dropped(),
                         why.empty() ? "" : ": ", why, reason);
    }
    case Kind::reformatted:
      return fmt::format("re-formatted: {}", reason);
  }
  return formatStartOutcomeKind(kind);
}

namespace {

// The side file: the text form first, for a human who cats it, then the
// fields one per line as "name value"; the reason last, to the end of file.
std::string encode(StartOutcome const& o) {
  return fmt::format(
      "{}\nkind {}\nrows {}\nunfinished {}\ntorn {}\nbadHash {}\nduplicates {}\nnoRoom {}\n"
      "reason {}\n{}",
      o.toString(), static_cast<unsigned>(o.kind), o.rows, o.unfinished, o.torn, o.badHash,
      o.duplicates, o.noRoom, o.reason,
      o.sideFileRefused.empty() ? std::string() : "sideFileRefused " + o.sideFileRefused + "\n");
}

bool number(std::string_view text, uint32_t& out) {
  auto const [p, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && p == text.data() + text.size();
}

std::optional<StartOutcome> decode(std::string_view text) {
  StartOutcome o;
  size_t const first = text.find('\n');
  if (first == std::string_view::npos) return std::nullopt;
  text.remove_prefix(first + 1);
  struct Field {
    char const* name;
    uint32_t* to;
  };
  uint32_t kind = 0;
  Field const fields[] = {{"kind", &kind},       {"rows", &o.rows},     {"unfinished", &o.unfinished},
                          {"torn", &o.torn},     {"badHash", &o.badHash}, {"duplicates", &o.duplicates},
                          {"noRoom", &o.noRoom}};
  for (Field const& f : fields) {
    size_t const end = text.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view const line = text.substr(0, end);
    std::string_view const name(f.name);
    if (line.substr(0, name.size()) != name || line.size() <= name.size() ||
        line[name.size()] != ' ' || !number(line.substr(name.size() + 1), *f.to)) {
      return std::nullopt;
    }
    text.remove_prefix(end + 1);
  }
  if (kind > static_cast<uint32_t>(StartOutcome::Kind::reformatted)) return std::nullopt;
  o.kind = static_cast<StartOutcome::Kind>(kind);
  if (text.substr(0, 7) != "reason ") return std::nullopt;
  text.remove_prefix(7);
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  // The refused side file's line comes last, after the reason: a reader
  // that knows nothing of it takes it as part of the reason.
  constexpr std::string_view kRefused = "\nsideFileRefused ";
  if (size_t const at = text.find(kRefused); at != std::string_view::npos) {
    o.sideFileRefused = std::string(text.substr(at + kRefused.size()));
    text = text.substr(0, at);
  }
  o.reason = std::string(text);
  return o;
}

}  // namespace

bool writeStartOutcome(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                       StartOutcome const& outcome) {
  if (rootPath.isLocal()) return true;
  std::string error;
  if (!Mem::replaceSharedFile(rootPath.filePath(START_OUTCOME_FILENAME), encode(outcome), 0644,
                              error)) {
    FMTRACE(handler, 0, "StartOutcome", "cannot record the start of {}: {}", rootPath, error);
    return false;
  }
  return true;
}

std::optional<StartOutcome> readStartOutcome(std::string const& dir) {
  std::string error;
  int const fd =
      Mem::openSharedFile(dir + "/" + START_OUTCOME_FILENAME, O_RDONLY, 0, error);
  if (fd < 0) return std::nullopt;
  // Bounded: the file lies on ground anyone may write.
  char buffer[4096];
  size_t got = 0;
  while (got < sizeof buffer) {
    ssize_t const n = ::read(fd, buffer + got, sizeof buffer - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  return decode(std::string_view(buffer, got));
}

}  // namespace Mirak
