// FlowTracking::HoFlowCounter: the entity that an agent holds for the offload counter tables,
// one collection of IPv4 rows (`hoIpFlowCounter`, attribute 258, its control 259)
// and one of IPv6 rows (`hoIp6FlowCounter`, 260, its control 261).
//
// Contract of the attribute operations (the same for both collections):
//   hoIpFlowCounterIs(v)       writes the row (an existing one is overwritten), then
//                   tells the notifiees (attribute 258 with the row's key).
//                   Counts in "hoIpFlowCounterIs" and, once notified, "hoIpFlowCounterNotify".
//                   Throws what the back end throws (a full table, a
//                   read-only back end); then the Is count stands and nobody
//                   is told. A corrupt table never returns (see MirakMap).
//   hoIpFlowCounterDel(k)      removes the row of `k` and returns it; a default row and
//                   no notification when there is none. Counts in "hoIpFlowCounterDel".
//   hoIpFlowCounterDelAll()    removes every row, one Del (and one notification) each,
//                   in the table's walk order. Rows that a notifiee adds
//                   during the walk are met or not. A notifiee may drop the
//                   entity's last reference: the walk still ends, and the
//                   entity dies on return.
//   hoIpFlowCounterCommit(v)   ends a direct change of a row in place; counts as an Is.
//   hoIpFlowCounterNotify(k)   what the collection calls for a change from elsewhere.
//   hoIpFlowCounterControlIs(c) replaces the control seen by the framework (attribute
//                   259); ...NotifyQuiesced and ...NotifyMountStatus keep
//                   reporting to the control made by the constructor, as
//                   long as it lives, and to none once it is gone.
// Before any mount, each collection is a private table of 100 rows that only
// this entity sees; it is emptied when the entity gets its parent, and a
// mount replaces it (`handleParent`, IPv6 first). An entity gets a parent
// once: a second one throws Lomi::InvalidInitializeException.
//
// The tables have no change queue: a mount as shadow or keyshadow is refused,
// and other processes read them by lookup or walk only. Local callers still
// get notifications and the Notify count from Is and Del.
//
// Thread safety: none; one thread runs the operations of one entity, and
// notifiees run synchronously inside them (a notifiee may call back in).
#pragma once

#include <cstddef>
#include <cstdint>

#include "FlowTracking/Collections.h"
#include "FlowTracking/HoFlowCounter.h"
#include "Zeb/AllocTracking.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

namespace FlowTracking {

class HoFlowCounter : public Zeb::Entity {
 public:
  using HoIpFlowCounterMap =
      ZebMirak::ZebMirakMap<HoFlowCounter, HoIpFlowCounter, IpFlowKey, HoIpFlowCounterOps>;
  using HoIp6FlowCounterMap =
      ZebMirak::ZebMirakMap<HoFlowCounter, HoIp6FlowCounter, Ip6FlowKey, HoIp6FlowCounterOps>;

  static constexpr Zeb::AttributeId hoIpFlowCounterId = 258;
  static constexpr Zeb::AttributeId hoIpFlowCounterControlId = 259;
  static constexpr Zeb::AttributeId hoIp6FlowCounterId = 260;
  static constexpr Zeb::AttributeId hoIp6FlowCounterControlId = 261;
  static constexpr Zeb::AttributeId mountPathId = 262;

  // Hands the entity's last reference to its controls (which keep it alive
  // as long as somebody holds them) and leaves the notifiee list.
  class HoFlowCounterZeroReferencesNotifiee : public Zeb::PtrInterface::NotifieeConst {
   public:
    explicit HoFlowCounterZeroReferencesNotifiee(HoFlowCounter* entity) : entity_(entity) {}
    void onZeroReferences() override;

   private:
    HoFlowCounter* entity_;
  };

  // The factory under its second name.
  static Zeb::Ptr<HoFlowCounter> HoFlowCounterIs(Zeb::String const& name);
  // "flowtracking/{ftrTypeStr}/hwOffload/counter/{name}": one entity per
  // name below the path whose leaf "status" is HosStateCounter's. No check is made on the
  // arguments.
  static Zeb::String mountPath(Zeb::String const& ftrTypeStr, Zeb::String const& name);

  explicit HoFlowCounter(Zeb::String const& name);
  // Detaches nothing: a mount's sentry must be gone by now.
  ~HoFlowCounter() override;

  Zeb::NotifieeListPtr notifieeList() const override;
  // (module, index) of this type in the generic interface (FlowTracking/Modules.h).
  Zeb::FwkType fwkType() const override;
  // The argument isn't read; both collections follow the entity's parent,
  // IPv6 first. If that throws, the IPv4 collection is left as it was.
  void handleParent(Zeb::Ptr<Zeb::Entity> const& parent) override;

  // --- IPv4 collection, attribute 258 ---------------------------------
  void hoIpFlowCounterIs(HoIpFlowCounter const& v);
  HoIpFlowCounter hoIpFlowCounterDel(IpFlowKey const& k);
  void hoIpFlowCounterDelAll();
  void hoIpFlowCounterCommit(HoIpFlowCounter const* v);
  void hoIpFlowCounterNotify(IpFlowKey const& k);
  void hoIpFlowCounterNotifyQuiesced(bool q);
  void hoIpFlowCounterNotifyMountStatus();
  void hoIpFlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // --- IPv6 collection, attribute 260 ---------------------------------
  void hoIp6FlowCounterIs(HoIp6FlowCounter const& v);
  HoIp6FlowCounter hoIp6FlowCounterDel(Ip6FlowKey const& k);
  void hoIp6FlowCounterDelAll();
  void hoIp6FlowCounterCommit(HoIp6FlowCounter const* v);
  void hoIp6FlowCounterNotify(Ip6FlowKey const& k);
  void hoIp6FlowCounterNotifyQuiesced(bool q);
  void hoIp6FlowCounterNotifyMountStatus();
  void hoIp6FlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // The collections and their controls, for lookups, walks and mounting.
  HoIpFlowCounterMap& hoIpFlowCounter() { return hoIpFlowCounter_; }
  HoIpFlowCounterMap const& hoIpFlowCounter() const { return hoIpFlowCounter_; }
  HoIp6FlowCounterMap& hoIp6FlowCounter() { return hoIp6FlowCounter_; }
  HoIp6FlowCounterMap const& hoIp6FlowCounter() const { return hoIp6FlowCounter_; }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowCounterControl() const {
    return hoIpFlowCounterControl_;
  }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowCounterControl() const {
    return hoIp6FlowCounterControl_;
  }
  ZebMirak::CollectionControl* hoIpFlowCounterControlRaw() const {
    return hoIpFlowCounterControlRaw_;
  }
  ZebMirak::CollectionControl* hoIp6FlowCounterControlRaw() const {
    return hoIp6FlowCounterControlRaw_;
  }
  Zeb::Ptr<HoFlowCounterZeroReferencesNotifiee> const& zeroReferencesNotifiee() const {
    return zeroReferencesNotifiee_;
  }

  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

 private:
  Impl::Cells hoIpFlowCounterCells() const {
    return {hoIpFlowCounterIsCount_, hoIpFlowCounterDelCount_, hoIpFlowCounterNotifyCount_};
  }
  Impl::Cells hoIp6FlowCounterCells() const {
    return {hoIp6FlowCounterIsCount_, hoIp6FlowCounterDelCount_, hoIp6FlowCounterNotifyCount_};
  }

  // Statistics cells, IPv6 first; fetched by the constructor.
  uint64_t* hoIp6FlowCounterIsCount_ = nullptr;
  uint64_t* hoIp6FlowCounterDelCount_ = nullptr;
  uint64_t* hoIp6FlowCounterNotifyCount_ = nullptr;
  uint64_t* hoIpFlowCounterIsCount_ = nullptr;
  uint64_t* hoIpFlowCounterDelCount_ = nullptr;
  uint64_t* hoIpFlowCounterNotifyCount_ = nullptr;
  Zeb::Ptr<HoFlowCounterZeroReferencesNotifiee> zeroReferencesNotifiee_;
  // Destroyed in reverse order: the IPv6 control and collection go first.
  // Each ...ControlRaw_ is linked to the constructor's control, which nulls
  // it when it dies (CollectionControl::reportLinkIs); it is declared before
  // the control's Ptr so that it is still there when that Ptr drops the
  // control.
  HoIpFlowCounterMap hoIpFlowCounter_;
  ZebMirak::CollectionControl* hoIpFlowCounterControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIpFlowCounterControl_;
  HoIp6FlowCounterMap hoIp6FlowCounter_;
  ZebMirak::CollectionControl* hoIp6FlowCounterControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIp6FlowCounterControl_;
  Zeb::NotifieeList notifieeList_;
};

// The factory: a new entity with notifications active. Throws what the
// construction throws; then no entity exists.
Zeb::Ptr<HoFlowCounter> hoFlowCounterFactory(Zeb::String const& name);

}  // namespace FlowTracking
