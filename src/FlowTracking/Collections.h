// The collections of the flow table entities: the front object, shadow and
// private table of each of the seven tables, compiled once in Collections.cpp and
// `extern` everywhere else, and the helpers that give the four entities their
// attribute operations.
//
// Every entity operation on a collection is one of the functions below over
// that collection's adapter, its statistics cells and the entity's notifiee
// list, so the four entities behave alike by construction:
//
//   collectionIs      Is cell +1; key copied; safeWrite; visit(id, &key);
//                     Notify cell +1. A failing write (other than corruption,
//                     which never returns) leaves the Is count and sends
//                     nothing.
//   collectionDel     Del cell +1; key copied; safeRemove. Absent: a default
//                     row, no notification. Present: visit(id, &caller's key),
//                     Notify cell +1, the removed row.
//   collectionDelAll  walks the table with first/next and Dels each row's key,
//                     so each row counts once as a Del and is notified before
//                     the walk goes on. Corruption in the walk is handed to
//                     doCorruptionDetected and ends it quietly. The entity is
//                     held by a counted reference for the walk: a notifiee
//                     may drop its last outside reference, and the entity
//                     then dies on return, not under the walk.
//   collectionCommit  ends a direct change: Is cell +1; key copied before the
//                     commit; directCommit; visit(id, &key); Notify cell +1.
//   collectionNotify  a change from elsewhere: visit(id, &key); Notify cell +1.
//   controlIs         a new control for the collection: stored, then
//                     visit(controlId) without a key; the same one: nothing.
//   controlLink       the entity's plain pointer to the constructor's control,
//                     which the control nulls when it dies (controlUnlink
//                     when the entity dies first). The Notify... reports go
//                     through it and are skipped once it is null.
#pragma once

#include <cstdint>

#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "FlowTracking/Tables.h"
#include "Lomi/Exception.h"
#include "Mirak/IterHint.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/Tmp.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

namespace FlowTracking::Impl {

// The three statistics cells of one collection.
struct Cells {
  uint64_t* is;
  uint64_t* del;
  uint64_t* notify;
};

template <typename Map>
void collectionIs(Map& map, Cells const& cells, Zeb::NotifieeList& list, Zeb::AttributeId id,
                  typename Map::Record const& v) {
  ++*cells.is;
  // The notification carries the key as it was at the call, whatever `v`
  // refers to afterwards (a notifiee may change it).
  typename Map::Key const key = v.key();
  map.safeWrite(v);
  list.visit(id, &key);
  ++*cells.notify;
}

template <typename Map>
typename Map::Record collectionDel(Map& map, Cells const& cells, Zeb::NotifieeList& list,
                                   Zeb::AttributeId id, typename Map::Key const& k) {
  ++*cells.del;
  typename Map::Key const key = k;
  typename Map::Value removed;
  if (!map.safeRemove(key, removed)) return typename Map::Record();
  list.visit(id, &k);
  ++*cells.notify;
  return removed.record();
}

template <typename Map, typename DelFn>
void collectionDelAll(Map& map, DelFn const& del) {
  using Ops = typename Map::Ops;
  // Each Del notifies; the walk then reads the table again, which lives in
  // the entity.
  auto const keep = Zeb::keepAlive(map.entityPtr());
  Mirak::IterHint hint;
  typename Map::Value current;
  bool valid;
  try {
    valid = map.back()->first(current, hint);
  } catch (Lomi::CorruptionDetectedException const& e) {
    map.doCorruptionDetected(e.msg());
    return;
  }
  while (valid) {
    typename Map::Key const key = Ops::key(current);
    del(key);
    // The key is gone from the table now; `next` finds its successor from
    // the key and the hint. The back end is asked afresh: a notifiee may
    // have replaced it.
    try {
      valid = map.back()->next(key, current, hint);
    } catch (Lomi::CorruptionDetectedException const& e) {
      map.doCorruptionDetected(e.msg());
      return;
    }
  }
}

template <typename Map>
void collectionCommit(Map& map, Cells const& cells, Zeb::NotifieeList& list, Zeb::AttributeId id,
                      typename Map::Record const* v) {
  ++*cells.is;
  // `v` points into the slot, which the commit may change.
  typename Map::Key const key = v->key();
  map.directCommit();
  list.visit(id, &key);
  ++*cells.notify;
}

template <typename Key>
void collectionNotify(Cells const& cells, Zeb::NotifieeList& list, Zeb::AttributeId id,
                      Key const& k) {
  list.visit(id, &k);
  ++*cells.notify;
}

// `control` is null once the constructor's control died (the entity let go
// of it with its own last reference, or replaced it): a later orphaning or
// detach must not reach a freed control, and nobody is left to tell.
inline void collectionNotifyQuiesced(ZebMirak::CollectionControl* control, bool q) {
  if (control) control->quiescedIs(q);
}

template <typename Map>
void collectionNotifyMountStatus(Map const& map, ZebMirak::CollectionControl* control) {
  if (!control) return;
  Mem::MountStatus const status = map.mountStatus();
  control->mountStatusIs(static_cast<ZebParcel::MountStatus>(status & 0xff));
}

void controlIs(Zeb::Ptr<ZebMirak::CollectionControl>& field,
               Zeb::Ptr<ZebMirak::CollectionControl> const& c, Zeb::NotifieeList& list,
               Zeb::AttributeId controlId);

void controlLink(ZebMirak::CollectionControl*& raw,
                 Zeb::Ptr<ZebMirak::CollectionControl> const& control);
void controlUnlink(ZebMirak::CollectionControl* raw);

// The cell of `name` in the process's statistics.
uint64_t* cell(char const* name);

}  // namespace FlowTracking::Impl

// The shadow comes with its front object: a shadow mount of a table without a
// change queue is refused by init, but the class exists for every table.
#define FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, Ops) \
  Prefix template class Mirak::MirakMap<Ops>;          \
  Prefix template class Mirak::MirakShadow<Ops>;       \
  Prefix template class Mirak::Tmp<Ops>

#define FLOWTRACKING_ALL_COLLECTION_TEMPLATES(Prefix)                           \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIpFlowConfigOps);   \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIp6FlowConfigOps);  \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIpFlowStatusOps);   \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIp6FlowStatusOps);  \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIpFlowCounterOps);  \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HoIp6FlowCounterOps); \
  FLOWTRACKING_COLLECTION_TEMPLATES(Prefix, FlowTracking::HosStateCounterOps)

FLOWTRACKING_ALL_COLLECTION_TEMPLATES(extern);
