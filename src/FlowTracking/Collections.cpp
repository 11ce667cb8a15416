// The one compilation of the front object and private table of the seven
// flow tables, and the non-generic helpers of the entities.
#include "FlowTracking/Collections.h"

#include "Thrum/Thrum.h"

FLOWTRACKING_ALL_COLLECTION_TEMPLATES();

namespace FlowTracking::Impl {

void controlIs(Zeb::Ptr<ZebMirak::CollectionControl>& field,
               Zeb::Ptr<ZebMirak::CollectionControl> const& c, Zeb::NotifieeList& list,
               Zeb::AttributeId controlId) {
  if (c.get() == field.get()) return;
  // Ptr assignment takes the new reference before it drops the old one, so
  // `c` may be reachable only through the old control.
  field = c;
  list.visit(controlId);
}

void controlLink(ZebMirak::CollectionControl*& raw,
                 Zeb::Ptr<ZebMirak::CollectionControl> const& control) {
  raw = control.get();
  control->reportLinkIs(&raw);
}

void controlUnlink(ZebMirak::CollectionControl* raw) {
  if (raw) raw->reportLinkIs(nullptr);
}

uint64_t* cell(char const* name) {
  return Thrum::writer().cell(name);
}

}  // namespace FlowTracking::Impl
