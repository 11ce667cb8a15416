// errno turned into text with context, in one place.
#pragma once

#include <string>
#include <string_view>

namespace Mem {

// "<context>: <strerror(err)> (errno <err>)".
std::string posixError(std::string_view context, int err);

}  // namespace Mem
