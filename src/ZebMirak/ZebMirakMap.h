// ZebMirak::ZebMirakMap<Entity, Record, Key, Ops>: one collection of one
// entity, the front object (Mirak::MirakMap) bound to an attribute.
//
// The adapter gives the front object what it can't know by itself:
//   - its name, "{entity path}/{attribute}", which follows the entity's
//     place in the tree (the entity's own name while it has no parent);
//   - the client callbacks, which end in the entity's ...Notify,
//     ...NotifyMountStatus and ...NotifyQuiesced members: a change and a
//     removal arriving from elsewhere both end in ...Notify(key); with them,
//     notifications on (notifying()), which a shadow mount relies on;
//   - a first back end, a private table of capacity 100, so the collection
//     answers every operation from the entity's construction on;
//   - an iterator over the collection for the generic interface.
//
// Lifecycle, driven by the entity:
//   entity(...)        once, from the entity's constructor: bound, private
//                      table named "{entity name}/{attribute}".
//   handleParent()     on every change of the entity's parent. The first
//                      parent renames the collection and replaces its private
//                      table with an empty one: rows written before are gone.
//                      Losing the parent detaches the collection (placeholder,
//                      strict if the mount asked for assertOnOrphanAccess). A
//                      second parent throws Lomi::InvalidInitializeException
//                      "Entity {} already initialized"; the name has changed
//                      by then, the back end has not.
//
// The adapter holds a plain pointer to its entity and is held by value inside
// it; its callbacks hold the adapter's address. It can't be copied or moved.
//
// Thread safety: none; the entity's thread.
#pragma once

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/IterHint.h"
#include "Mirak/MirakMap.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"

namespace ZebMirak {

template <typename EntityT, typename RecordT, typename KeyT, Mirak::TablePolicy OpsT>
class ZebMirakMap : public Mirak::MirakMap<OpsT> {
 public:
  using Base = Mirak::MirakMap<OpsT>;
  using Entity = EntityT;
  using Record = RecordT;
  using Key = KeyT;
  using Ops = OpsT;
  using Value = typename Ops::Value;
  using NotifyMember = void (Entity::*)(Key const&);
  using MountStatusMember = void (Entity::*)();
  using QuiescedMember = void (Entity::*)(bool);

  static_assert(std::is_same_v<Key, typename Ops::Key>, "the adapter's key is its table's key");
  static_assert(std::is_base_of_v<Record, Value>, "the table's value wraps the adapter's record");

  // A walk over the collection that holds no pointer into the table: a copy
  // of the current row and the hint of the back end. Each step asks for the
  // successor of the current key, so rows removed under the iterator, the
  // current one too, don't stop it. The copy of the current row is not
  // refreshed when the row changes. Corruption seen by a step is handed to
  // doCorruptionDetected and ends the walk. The iterator holds a counted
  // reference to the entity: a walk that removes rows notifies, a notifiee
  // may drop the entity's last outside reference, and the next step still
  // reads the table; the entity dies with the iterator instead.
  class IteratorConst {
   public:
    // At the first row; at its end for a null or empty collection.
    explicit IteratorConst(ZebMirakMap const* map);
    // At `key` if present, else at its successor in the walk order.
    IteratorConst(ZebMirakMap const* map, Key const& key);

    // Precondition: valid(). Steps to the successor of the current row.
    void advance();

    bool valid() const { return valid_; }
    Value const& row() const { return row_; }
    Value const* rowPtr() const { return &row_; }
    Mirak::IterHint const& hint() const { return hint_; }

   private:
    ZebMirakMap const* map_;
    Zeb::Ptr<Entity> keep_;
    Mirak::IterHint hint_;
    Value row_;
    bool valid_ = false;
  };

  ZebMirakMap() = default;
  ~ZebMirakMap() override;
  ZebMirakMap(ZebMirakMap const&) = delete;
  ZebMirakMap& operator=(ZebMirakMap const&) = delete;

  // The binding step, called once by the entity's constructor. `id` is the
  // entity's business (it gives attribute ids to its notifiee list) and is
  // not kept. Throws what creating the private table throws.
  void entity(Zeb::String attributeName, Entity* e, Zeb::AttributeId id, NotifyMember notify,
              MountStatusMember mountStatusChanged, QuiescedMember quiescedChanged);
  // Called by the entity after its parent changed (see the top of the file).
  void handleParent();

  // From the writer sentry; both arguments are ignored.
  bool validateFiles(std::string const& path, unsigned int mask) override;
  // The demangled dynamic type of the entity, e.g. "FlowTracking::HoFlowConfig".
  // Throws std::bad_typeid before entity() was called.
  std::string classType() const override;

  Entity* entityPtr() const { return entity_; }
  bool parentSeen() const { return parentSeen_; }

 private:
  // Runs a change callback with the entity kept alive past the back end's
  // processing (see the definition).
  template <typename Fn>
  static void held(Entity* e, Fn const& fn);

  Entity* entity_ = nullptr;
  bool parentSeen_ = false;
};

// ---------------------------------------------------------------------------

// A change callback runs inside the back end's processing of the change (a
// shadow's walk of its queue or sweep), which goes on after the callback
// returns. A notifiee may drop the entity's last outside reference (its list
// keeps the entity only for the dispatch), and the entity owns this
// collection and so the back end: the last reference is then handed to the
// event loop and dropped on its next pass, outside the walk. Costs a count up
// and down per callback; the hand-over happens only when the entity goes.
template <typename E, typename R, typename K, Mirak::TablePolicy O>
template <typename Fn>
void ZebMirakMap<E, R, K, O>::held(Entity* e, Fn const& fn) {
  Zeb::Ptr<Entity> hold = Zeb::keepAlive(e);
  fn();
  if (hold && static_cast<Zeb::PtrInterface const*>(hold.get())->references() == 1) {
    Mem::RootPath::eventLoop().deferredTaskIs([last = std::move(hold)] {});
  }
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
ZebMirakMap<E, R, K, O>::~ZebMirakMap() {
  FMTRACE(*this->debugHandler_, 2, "ZebMirakMap", "deleting state");
  // The callbacks reach the entity through this object; the front object's
  // destructor, which runs after this one, must not call them any more.
  this->notify_ = Mem::Notify<Key, Value>();
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
void ZebMirakMap<E, R, K, O>::entity(Zeb::String attributeName, Entity* e, Zeb::AttributeId,
                                     NotifyMember notify, MountStatusMember mountStatusChanged,
                                     QuiescedMember quiescedChanged) {
  entity_ = e;
  this->traceName_ = attributeName.stdString();
  // The shared handler of collections without a mount; a mount brings the
  // collection's own.
  this->debugHandler_ = &Lomi::Platform::getDebugHandler("MirakTemp", true);
  this->name_ = fmt::format("{}/{}", e->name(), this->traceName_);

  // The callbacks hold the entity itself, not this adapter: entity_ is set
  // here once and never changes, and a callback that reached the entity
  // through a captured `this` was checked by g++ 12's vptr sanitizer against
  // the closure's own address (a false "not an object of type ZebMirakMap").
  Mem::Notify<Key, Value> n;
  n.changeFn = [e, notify](Value const& row) {
    held(e, [&] { (e->*notify)(Ops::key(row)); });
  };
  n.keyFn = [e, notify](Key const& key) { held(e, [&] { (e->*notify)(key); }); };
  n.keyDelFn = [e, notify](Key const& key) { held(e, [&] { (e->*notify)(key); }); };
  n.mountStatusFn = [e, mountStatusChanged] { (e->*mountStatusChanged)(); };
  n.quiescedFn = [e, quiescedChanged](bool q) { (e->*quiescedChanged)(q); };
  n.notifyLive = true;
  this->notify_ = std::move(n);
  // An entity always has notifiees to tell, so its collections want change
  // notifications from the start: an asynchronous shadow mount, whose
  // changes arrive only that way, needs no extra call before init.
  this->notifying_ = true;

  FMTRACE(*this->debugHandler_, 5, "ZebMirakMap", "creating local MirakWriter {}", this->name_);
  this->backIs(this->createDefaultLocalWriter(*this->debugHandler_));
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
void ZebMirakMap<E, R, K, O>::handleParent() {
  std::string const oldName = this->name_;
  Zeb::Entity const* parent = entity_->parent();
  Zeb::String const where = parent ? entity_->fullName() : entity_->name();
  this->name_ = fmt::format("{}/{}", where, this->traceName_);

  if (!parent) {
    FMTRACE(*this->debugHandler_, 5, "ZebMirakMap", "{} is now an orphan", this->name_);
    this->assertOnOrphanAccess_ = this->descriptor_.assertOnOrphanAccess;
    this->controlDetach();
    return;
  }
  // An entity moves into the tree once in its life: its collections' names
  // and files follow that one place.
  if (parentSeen_) {
    throw Lomi::InvalidInitializeException("Entity {} already initialized", entity_->name());
  }
  parentSeen_ = true;
  FMTRACE(*this->debugHandler_, 5, "ZebMirakMap", "old:{} new:{}", oldName, this->name_);
  this->backIs(this->createDefaultLocalWriter(*this->debugHandler_));
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
bool ZebMirakMap<E, R, K, O>::validateFiles(std::string const& path, unsigned int mask) {
  FMTRACE(*this->debugHandler_, 5, "ZebMirakMap", "delegating to MirakMap::validateFiles");
  return Base::validateFiles(path, mask);
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
std::string ZebMirakMap<E, R, K, O>::classType() const {
  if (!entity_) throw std::bad_typeid();
  char const* mangled = typeid(*entity_).name();
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
ZebMirakMap<E, R, K, O>::IteratorConst::IteratorConst(ZebMirakMap const* map)
    : map_(map), keep_(Zeb::keepAlive(map ? map->entityPtr() : nullptr)) {
  if (!map_) return;
  try {
    valid_ = map_->back()->first(row_, hint_);
  } catch (Lomi::CorruptionDetectedException const& e) {
    map_->doCorruptionDetected(e.msg());
    valid_ = false;
  }
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
ZebMirakMap<E, R, K, O>::IteratorConst::IteratorConst(ZebMirakMap const* map, Key const& key)
    : map_(map), keep_(Zeb::keepAlive(map ? map->entityPtr() : nullptr)) {
  if (!map_) return;
  Value const* p;
  try {
    p = map_->back()->lookup(key, valid_, nullptr);
  } catch (Lomi::CorruptionDetectedException const& e) {
    map_->doCorruptionDetected(e.msg());
    valid_ = false;
    p = &Ops::defaultValue();
  }
  row_ = *p;
  if (valid_) return;
  try {
    valid_ = map_->back()->next(key, row_, hint_);
  } catch (Lomi::CorruptionDetectedException const& e) {
    map_->doCorruptionDetected(e.msg());
    valid_ = false;
  }
}

template <typename E, typename R, typename K, Mirak::TablePolicy O>
void ZebMirakMap<E, R, K, O>::IteratorConst::advance() {
  if (!map_) {
    valid_ = false;
    return;
  }
  // `next` overwrites row_ while it reads the key: the key goes first.
  Key const key = Ops::key(row_);
  try {
    valid_ = map_->back()->next(key, row_, hint_);
  } catch (Lomi::CorruptionDetectedException const& e) {
    map_->doCorruptionDetected(e.msg());
    valid_ = false;
  }
}

}  // namespace ZebMirak
