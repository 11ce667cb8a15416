// FlowTracking::HosStateCounter: the entity that an agent holds for the per-state flow count
// tables, one collection of IPv4 rows (`hosStateIpCounter`, attribute 258, its control 259) and one
// of IPv6 rows (`hosStateIp6Counter`, 260, its control 261).
//
// Contract of the attribute operations (the same for both collections):
//   hosStateIpCounterIs(v)       writes the row (an existing one is overwritten), then
//                   tells the notifiees (attribute 258 with the row's key).
//                   Counts in "hosStateIpCounterIs" and, once notified, "hosStateIpCounterNotify".
//                   Throws what the back end throws (a full table, a
//                   read-only back end); then the Is count stands and nobody
//                   is told. A corrupt table never returns (see MirakMap).
//   hosStateIpCounterDel(k)      removes the row of `k` and returns it; a default row and
//                   no notification when there is none. Counts in "hosStateIpCounterDel".
//   hosStateIpCounterDelAll()    removes every row, one Del (and one notification) each,
//                   in the table's walk order. Rows that a notifiee adds
//                   during the walk are met or not. A notifiee may drop the
//                   entity's last reference: the walk still ends, and the
//                   entity dies on return.
//   hosStateIpCounterCommit(v)   ends a direct change of a row in place; counts as an Is.
//   hosStateIpCounterNotify(k)   what the collection calls for a change from elsewhere.
//   hosStateIpCounterControlIs(c) replaces the control seen by the framework (attribute
//                   259); ...NotifyQuiesced and ...NotifyMountStatus keep
//                   reporting to the control made by the constructor, as
//                   long as it lives, and to none once it is gone.
// Before any mount, each collection is a private table of 100 rows that only
// this entity sees; it is emptied when the entity gets its parent, and a
// mount replaces it (`handleParent`, IPv6 first). An entity gets a parent
// once: a second one throws Lomi::InvalidInitializeException.
//
// Both collections are of one table type; rows and keys go by value, and
// the "not found" row of a Del is an entry of all zeros. The tables have no
// change queue: a mount as shadow or keyshadow is refused.
//
// Thread safety: none; one thread runs the operations of one entity, and
// notifiees run synchronously inside them (a notifiee may call back in).
#pragma once

#include <cstddef>
#include <cstdint>

#include "FlowTracking/Collections.h"
#include "FlowTracking/HosStateCounter.h"
#include "Zeb/AllocTracking.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

namespace FlowTracking {

class HosStateCounter : public Zeb::Entity {
 public:
  using HosStateCounterEntryMap = ZebMirak::ZebMirakMap<HosStateCounter, HosStateCounterEntry,
                                                        HosStateCounterKey, HosStateCounterOps>;

  static constexpr Zeb::AttributeId hosStateIpCounterId = 258;
  static constexpr Zeb::AttributeId hosStateIpCounterControlId = 259;
  static constexpr Zeb::AttributeId hosStateIp6CounterId = 260;
  static constexpr Zeb::AttributeId hosStateIp6CounterControlId = 261;
  static constexpr Zeb::AttributeId mountPathId = 262;

  // Hands the entity's last reference to its controls (which keep it alive
  // as long as somebody holds them) and leaves the notifiee list.
  class HosStateCounterZeroReferencesNotifiee : public Zeb::PtrInterface::NotifieeConst {
   public:
    explicit HosStateCounterZeroReferencesNotifiee(HosStateCounter* entity) : entity_(entity) {}
    void onZeroReferences() override;

   private:
    HosStateCounter* entity_;
  };

  // The factory under its second name.
  static Zeb::Ptr<HosStateCounter> HosStateCounterIs(Zeb::String const& name);
  // "flowtracking/{ftrTypeStr}/hwOffload/counter/status". No check is made on the arguments.
  static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

  explicit HosStateCounter(Zeb::String const& name);
  // Detaches nothing: a mount's sentry must be gone by now.
  ~HosStateCounter() override;

  Zeb::NotifieeListPtr notifieeList() const override;
  // (module, index) of this type in the generic interface (FlowTracking/Modules.h).
  Zeb::FwkType fwkType() const override;
  // The argument isn't read; both collections follow the entity's parent,
  // IPv6 first. If that throws, the IPv4 collection is left as it was.
  void handleParent(Zeb::Ptr<Zeb::Entity> const& parent) override;

  // --- IPv4 collection, attribute 258 ---------------------------------
  void hosStateIpCounterIs(HosStateCounterEntry v);
  HosStateCounterEntry hosStateIpCounterDel(HosStateCounterKey k);
  void hosStateIpCounterDelAll();
  void hosStateIpCounterCommit(HosStateCounterEntry const* v);
  void hosStateIpCounterNotify(HosStateCounterKey const& k);
  void hosStateIpCounterNotifyQuiesced(bool q);
  void hosStateIpCounterNotifyMountStatus();
  void hosStateIpCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // --- IPv6 collection, attribute 260 ---------------------------------
  void hosStateIp6CounterIs(HosStateCounterEntry v);
  HosStateCounterEntry hosStateIp6CounterDel(HosStateCounterKey k);
  void hosStateIp6CounterDelAll();
  void hosStateIp6CounterCommit(HosStateCounterEntry const* v);
  void hosStateIp6CounterNotify(HosStateCounterKey const& k);
  void hosStateIp6CounterNotifyQuiesced(bool q);
  void hosStateIp6CounterNotifyMountStatus();
  void hosStateIp6CounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // The collections and their controls, for lookups, walks and mounting.
  HosStateCounterEntryMap& hosStateIpCounter() { return hosStateIpCounter_; }
  HosStateCounterEntryMap const& hosStateIpCounter() const { return hosStateIpCounter_; }
  HosStateCounterEntryMap& hosStateIp6Counter() { return hosStateIp6Counter_; }
  HosStateCounterEntryMap const& hosStateIp6Counter() const { return hosStateIp6Counter_; }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hosStateIpCounterControl() const {
    return hosStateIpCounterControl_;
  }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hosStateIp6CounterControl() const {
    return hosStateIp6CounterControl_;
  }
  ZebMirak::CollectionControl* hosStateIpCounterControlRaw() const {
    return hosStateIpCounterControlRaw_;
  }
  ZebMirak::CollectionControl* hosStateIp6CounterControlRaw() const {
    return hosStateIp6CounterControlRaw_;
  }
  Zeb::Ptr<HosStateCounterZeroReferencesNotifiee> const& zeroReferencesNotifiee() const {
    return zeroReferencesNotifiee_;
  }

  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

 private:
  Impl::Cells hosStateIpCounterCells() const {
    return {hosStateIpCounterIsCount_, hosStateIpCounterDelCount_, hosStateIpCounterNotifyCount_};
  }
  Impl::Cells hosStateIp6CounterCells() const {
    return {hosStateIp6CounterIsCount_, hosStateIp6CounterDelCount_,
            hosStateIp6CounterNotifyCount_};
  }

  // Statistics cells, IPv6 first; fetched by the constructor.
  uint64_t* hosStateIp6CounterIsCount_ = nullptr;
  uint64_t* hosStateIp6CounterDelCount_ = nullptr;
  uint64_t* hosStateIp6CounterNotifyCount_ = nullptr;
  uint64_t* hosStateIpCounterIsCount_ = nullptr;
  uint64_t* hosStateIpCounterDelCount_ = nullptr;
  uint64_t* hosStateIpCounterNotifyCount_ = nullptr;
  Zeb::Ptr<HosStateCounterZeroReferencesNotifiee> zeroReferencesNotifiee_;
  // Destroyed in reverse order: the IPv6 control and collection go first.
  // Each ...ControlRaw_ is linked to the constructor's control, which nulls
  // it when it dies (CollectionControl::reportLinkIs); it is declared before
  // the control's Ptr so that it is still there when that Ptr drops the
  // control.
  HosStateCounterEntryMap hosStateIpCounter_;
  ZebMirak::CollectionControl* hosStateIpCounterControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hosStateIpCounterControl_;
  HosStateCounterEntryMap hosStateIp6Counter_;
  ZebMirak::CollectionControl* hosStateIp6CounterControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hosStateIp6CounterControl_;
  Zeb::NotifieeList notifieeList_;
};

// The factory: a new entity with notifications active. Throws what the
// construction throws; then no entity exists.
Zeb::Ptr<HosStateCounter> hosStateCounterFactory(Zeb::String const& name);

}  // namespace FlowTracking
