#include "Mem/Error.h"

#include <cstring>

#include <fmt/format.h>

namespace Mem {

std::string posixError(std::string_view context, int err) {
  char buf[256];
  // GNU strerror_r returns the text, which may or may not live in buf.
  char const* text = ::strerror_r(err, buf, sizeof buf);
  return fmt::format("{}: {} (errno {})", context, text, err);
}

}  // namespace Mem
