// FlowTracking::HoFlowStatus: the entity that an agent holds for the offload status tables,
// one collection of IPv4 rows (`hoIpFlowStatus`, attribute 258, its control 259)
// and one of IPv6 rows (`hoIp6FlowStatus`, 260, its control 261).
//
// Contract of the attribute operations (the same for both collections):
//   hoIpFlowStatusIs(v)       writes the row (an existing one is overwritten), then
//                   tells the notifiees (attribute 258 with the row's key).
//                   Counts in "hoIpFlowStatusIs" and, once notified, "hoIpFlowStatusNotify".
//                   Throws what the back end throws (a full table, a
//                   read-only back end); then the Is count stands and nobody
//                   is told. A corrupt table never returns (see MirakMap).
//   hoIpFlowStatusDel(k)      removes the row of `k` and returns it; a default row and
//                   no notification when there is none. Counts in "hoIpFlowStatusDel".
//   hoIpFlowStatusDelAll()    removes every row, one Del (and one notification) each,
//                   in the table's walk order. Rows that a notifiee adds
//                   during the walk are met or not. A notifiee may drop the
//                   entity's last reference: the walk still ends, and the
//                   entity dies on return.
//   hoIpFlowStatusCommit(v)   ends a direct change of a row in place; counts as an Is.
//   hoIpFlowStatusNotify(k)   what the collection calls for a change from elsewhere.
//   hoIpFlowStatusControlIs(c) replaces the control seen by the framework (attribute
//                   259); ...NotifyQuiesced and ...NotifyMountStatus keep
//                   reporting to the control made by the constructor, as
//                   long as it lives, and to none once it is gone.
// Before any mount, each collection is a private table of 100 rows that only
// this entity sees; it is emptied when the entity gets its parent, and a
// mount replaces it (`handleParent`, IPv6 first). An entity gets a parent
// once: a second one throws Lomi::InvalidInitializeException.
//
// Thread safety: none; one thread runs the operations of one entity, and
// notifiees run synchronously inside them (a notifiee may call back in).
#pragma once

#include <cstddef>
#include <cstdint>

#include "FlowTracking/Collections.h"
#include "FlowTracking/HoFlowStatus.h"
#include "Zeb/AllocTracking.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

namespace FlowTracking {

class HoFlowStatus : public Zeb::Entity {
 public:
  using HoIpFlowStatusMap =
      ZebMirak::ZebMirakMap<HoFlowStatus, HoIpFlowStatus, HoIpFlowKey, HoIpFlowStatusOps>;
  using HoIp6FlowStatusMap =
      ZebMirak::ZebMirakMap<HoFlowStatus, HoIp6FlowStatus, HoIp6FlowKey, HoIp6FlowStatusOps>;

  static constexpr Zeb::AttributeId hoIpFlowStatusId = 258;
  static constexpr Zeb::AttributeId hoIpFlowStatusControlId = 259;
  static constexpr Zeb::AttributeId hoIp6FlowStatusId = 260;
  static constexpr Zeb::AttributeId hoIp6FlowStatusControlId = 261;
  static constexpr Zeb::AttributeId mountPathId = 262;

  // Hands the entity's last reference to its controls (which keep it alive
  // as long as somebody holds them) and leaves the notifiee list.
  class HoFlowStatusZeroReferencesNotifiee : public Zeb::PtrInterface::NotifieeConst {
   public:
    explicit HoFlowStatusZeroReferencesNotifiee(HoFlowStatus* entity) : entity_(entity) {}
    void onZeroReferences() override;

   private:
    HoFlowStatus* entity_;
  };

  // The factory under its second name.
  static Zeb::Ptr<HoFlowStatus> HoFlowStatusIs(Zeb::String const& name);
  // "flowtracking/{ftrTypeStr}/hwOffload/status". No check is made on the arguments.
  static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

  explicit HoFlowStatus(Zeb::String const& name);
  // Detaches nothing: a mount's sentry must be gone by now.
  ~HoFlowStatus() override;

  Zeb::NotifieeListPtr notifieeList() const override;
  // (module, index) of this type in the generic interface (FlowTracking/Modules.h).
  Zeb::FwkType fwkType() const override;
  // The argument isn't read; both collections follow the entity's parent,
  // IPv6 first. If that throws, the IPv4 collection is left as it was.
  void handleParent(Zeb::Ptr<Zeb::Entity> const& parent) override;

  // --- IPv4 collection, attribute 258 ---------------------------------
  void hoIpFlowStatusIs(HoIpFlowStatus const& v);
  HoIpFlowStatus hoIpFlowStatusDel(HoIpFlowKey const& k);
  void hoIpFlowStatusDelAll();
  void hoIpFlowStatusCommit(HoIpFlowStatus const* v);
  void hoIpFlowStatusNotify(HoIpFlowKey const& k);
  void hoIpFlowStatusNotifyQuiesced(bool q);
  void hoIpFlowStatusNotifyMountStatus();
  void hoIpFlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // --- IPv6 collection, attribute 260 ---------------------------------
  void hoIp6FlowStatusIs(HoIp6FlowStatus const& v);
  HoIp6FlowStatus hoIp6FlowStatusDel(HoIp6FlowKey const& k);
  void hoIp6FlowStatusDelAll();
  void hoIp6FlowStatusCommit(HoIp6FlowStatus const* v);
  void hoIp6FlowStatusNotify(HoIp6FlowKey const& k);
  void hoIp6FlowStatusNotifyQuiesced(bool q);
  void hoIp6FlowStatusNotifyMountStatus();
  void hoIp6FlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // The collections and their controls, for lookups, walks and mounting.
  HoIpFlowStatusMap& hoIpFlowStatus() { return hoIpFlowStatus_; }
  HoIpFlowStatusMap const& hoIpFlowStatus() const { return hoIpFlowStatus_; }
  HoIp6FlowStatusMap& hoIp6FlowStatus() { return hoIp6FlowStatus_; }
  HoIp6FlowStatusMap const& hoIp6FlowStatus() const { return hoIp6FlowStatus_; }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowStatusControl() const {
    return hoIpFlowStatusControl_;
  }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowStatusControl() const {
    return hoIp6FlowStatusControl_;
  }
  ZebMirak::CollectionControl* hoIpFlowStatusControlRaw() const {
    return hoIpFlowStatusControlRaw_;
  }
  ZebMirak::CollectionControl* hoIp6FlowStatusControlRaw() const {
    return hoIp6FlowStatusControlRaw_;
  }
  Zeb::Ptr<HoFlowStatusZeroReferencesNotifiee> const& zeroReferencesNotifiee() const {
    return zeroReferencesNotifiee_;
  }

  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

 private:
  Impl::Cells hoIpFlowStatusCells() const {
    return {hoIpFlowStatusIsCount_, hoIpFlowStatusDelCount_, hoIpFlowStatusNotifyCount_};
  }
  Impl::Cells hoIp6FlowStatusCells() const {
    return {hoIp6FlowStatusIsCount_, hoIp6FlowStatusDelCount_, hoIp6FlowStatusNotifyCount_};
  }

  // Statistics cells, IPv6 first; fetched by the constructor.
  uint64_t* hoIp6FlowStatusIsCount_ = nullptr;
  uint64_t* hoIp6FlowStatusDelCount_ = nullptr;
  uint64_t* hoIp6FlowStatusNotifyCount_ = nullptr;
  uint64_t* hoIpFlowStatusIsCount_ = nullptr;
  uint64_t* hoIpFlowStatusDelCount_ = nullptr;
  uint64_t* hoIpFlowStatusNotifyCount_ = nullptr;
  Zeb::Ptr<HoFlowStatusZeroReferencesNotifiee> zeroReferencesNotifiee_;
  // Destroyed in reverse order: the IPv6 control and collection go first.
  // Each ...ControlRaw_ is linked to the constructor's control, which nulls
  // it when it dies (CollectionControl::reportLinkIs); it is declared before
  // the control's Ptr so that it is still there when that Ptr drops the
  // control.
  HoIpFlowStatusMap hoIpFlowStatus_;
  ZebMirak::CollectionControl* hoIpFlowStatusControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIpFlowStatusControl_;
  HoIp6FlowStatusMap hoIp6FlowStatus_;
  ZebMirak::CollectionControl* hoIp6FlowStatusControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIp6FlowStatusControl_;
  Zeb::NotifieeList notifieeList_;
};

// The factory: a new entity with notifications active. Throws what the
// construction throws; then no entity exists.
Zeb::Ptr<HoFlowStatus> hoFlowStatusFactory(Zeb::String const& name);

}  // namespace FlowTracking
