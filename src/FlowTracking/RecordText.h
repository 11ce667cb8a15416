// Pieces of the text form (strep) that the offload records share: the opening
// "Value('<type>', ** {'key': <key>" and the ", '<name>': <value>" of each
// field. Included only by the records' .cpp files.
//
// Every literal is passed whole to Zeb::needString, so a parse error quotes
// the exact text that was expected.
#pragma once

#include "Zeb/Strep.h"

namespace FlowTracking::RecordText {

// Reads `open` ("Value('<type>', ** {") and the key that follows it. A key
// that does not parse is reported as field 'key'.
template <typename Key>
Key openAndKey(Zeb::StrepIt& it, Zeb::StrepIt const& end, char const* open) {
  Zeb::needString(it, end, open);
  Zeb::needString(it, end, "'key': ");
  try {
    return Key(it, end);
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, "key");
  }
}

// Reads `separator` (", '<name>': ") and the value of the field `name`.
template <typename F>
F field(Zeb::StrepIt& it, Zeb::StrepIt const& end, char const* separator, char const* name) {
  Zeb::needString(it, end, separator);
  return Zeb::deserializeAttr<F>(it, end, name);
}

}  // namespace FlowTracking::RecordText
