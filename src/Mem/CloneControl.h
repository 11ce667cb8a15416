// The name of a table directory's clone control file.
//
// A clone of a table (a copy of its files taken for inspection) is steered by
// this file in the table's directory. Only its name is fixed so far: `cleanup`
// removes it with the table's other files, so a stale one never outlives the
// table it described.
#pragma once

namespace Mem::Util::Clone {

inline constexpr char const CONTROL_FILENAME[] = "clone-control";

}  // namespace Mem::Util::Clone
