// Zeb::Seconds: a time or a duration in seconds, an IEEE f64. Records store it
// by its bytes, so it is exactly eight bytes everywhere.
#pragma once

namespace Zeb {

using Seconds = double;
static_assert(sizeof(Seconds) == 8, "Seconds is stored as an f64 in table records");

}  // namespace Zeb
