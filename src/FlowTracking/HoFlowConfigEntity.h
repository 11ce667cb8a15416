// FlowTracking::HoFlowConfig: the entity that an agent holds for the offload config tables,
// one collection of IPv4 rows (`hoIpFlowConfig`, attribute 258, its control 259)
// and one of IPv6 rows (`hoIp6FlowConfig`, 260, its control 261).
//
// Contract of the attribute operations (the same for both collections):
//   hoIpFlowConfigIs(v)       writes the row (an existing one is overwritten), then
//                   tells the notifiees (attribute 258 with the row's key).
//                   Counts in "hoIpFlowConfigIs" and, once notified, "hoIpFlowConfigNotify".
//                   Throws what the back end throws (a full table, a
//                   read-only back end); then the Is count stands and nobody
//                   is told. A corrupt table never returns (see MirakMap).
//   hoIpFlowConfigDel(k)      removes the row of `k` and returns it; a default row and
//                   no notification when there is none. Counts in "hoIpFlowConfigDel".
//   hoIpFlowConfigDelAll()    removes every row, one Del (and one notification) each,
//                   in the table's walk order. Rows that a notifiee adds
//                   during the walk are met or not. A notifiee may drop the
//                   entity's last reference: the walk still ends, and the
//                   entity dies on return.
//   hoIpFlowConfigCommit(v)   ends a direct change of a row in place; counts as an Is.
//   hoIpFlowConfigNotify(k)   what the collection calls for a change from elsewhere.
//   hoIpFlowConfigControlIs(c) replaces the control seen by the framework (attribute
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
#include "FlowTracking/HoFlowConfig.h"
#include "Zeb/AllocTracking.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

namespace FlowTracking {

class HoFlowConfig : public Zeb::Entity {
 public:
  using HoIpFlowConfigMap =
      ZebMirak::ZebMirakMap<HoFlowConfig, HoIpFlowConfig, HoIpFlowKey, HoIpFlowConfigOps>;
  using HoIp6FlowConfigMap =
      ZebMirak::ZebMirakMap<HoFlowConfig, HoIp6FlowConfig, HoIp6FlowKey, HoIp6FlowConfigOps>;

  static constexpr Zeb::AttributeId hoIpFlowConfigId = 258;
  static constexpr Zeb::AttributeId hoIpFlowConfigControlId = 259;
  static constexpr Zeb::AttributeId hoIp6FlowConfigId = 260;
  static constexpr Zeb::AttributeId hoIp6FlowConfigControlId = 261;
  static constexpr Zeb::AttributeId mountPathId = 262;

  // Hands the entity's last reference to its controls (which keep it alive
  // as long as somebody holds them) and leaves the notifiee list.
  class HoFlowConfigZeroReferencesNotifiee : public Zeb::PtrInterface::NotifieeConst {
   public:
    explicit HoFlowConfigZeroReferencesNotifiee(HoFlowConfig* entity) : entity_(entity) {}
    void onZeroReferences() override;

   private:
    HoFlowConfig* entity_;
  };

  // The factory under its second name.
  static Zeb::Ptr<HoFlowConfig> HoFlowConfigIs(Zeb::String const& name);
  // "flowtracking/{ftrTypeStr}/hwOffload/config". No check is made on the arguments.
  static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

  explicit HoFlowConfig(Zeb::String const& name);
  // Detaches nothing: a mount's sentry must be gone by now.
  ~HoFlowConfig() override;

  Zeb::NotifieeListPtr notifieeList() const override;
  // (module, index) of this type in the generic interface (FlowTracking/Modules.h).
  Zeb::FwkType fwkType() const override;
  // The argument isn't read; both collections follow the entity's parent,
  // IPv6 first. If that throws, the IPv4 collection is left as it was.
  void handleParent(Zeb::Ptr<Zeb::Entity> const& parent) override;

  // --- IPv4 collection, attribute 258 ---------------------------------
  void hoIpFlowConfigIs(HoIpFlowConfig const& v);
  HoIpFlowConfig hoIpFlowConfigDel(HoIpFlowKey const& k);
  void hoIpFlowConfigDelAll();
  void hoIpFlowConfigCommit(HoIpFlowConfig const* v);
  void hoIpFlowConfigNotify(HoIpFlowKey const& k);
  void hoIpFlowConfigNotifyQuiesced(bool q);
  void hoIpFlowConfigNotifyMountStatus();
  void hoIpFlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // --- IPv6 collection, attribute 260 ---------------------------------
  void hoIp6FlowConfigIs(HoIp6FlowConfig const& v);
  HoIp6FlowConfig hoIp6FlowConfigDel(HoIp6FlowKey const& k);
  void hoIp6FlowConfigDelAll();
  void hoIp6FlowConfigCommit(HoIp6FlowConfig const* v);
  void hoIp6FlowConfigNotify(HoIp6FlowKey const& k);
  void hoIp6FlowConfigNotifyQuiesced(bool q);
  void hoIp6FlowConfigNotifyMountStatus();
  void hoIp6FlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c);

  // The collections and their controls, for lookups, walks and mounting.
  HoIpFlowConfigMap& hoIpFlowConfig() { return hoIpFlowConfig_; }
  HoIpFlowConfigMap const& hoIpFlowConfig() const { return hoIpFlowConfig_; }
  HoIp6FlowConfigMap& hoIp6FlowConfig() { return hoIp6FlowConfig_; }
  HoIp6FlowConfigMap const& hoIp6FlowConfig() const { return hoIp6FlowConfig_; }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowConfigControl() const {
    return hoIpFlowConfigControl_;
  }
  Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowConfigControl() const {
    return hoIp6FlowConfigControl_;
  }
  ZebMirak::CollectionControl* hoIpFlowConfigControlRaw() const {
    return hoIpFlowConfigControlRaw_;
  }
  ZebMirak::CollectionControl* hoIp6FlowConfigControlRaw() const {
    return hoIp6FlowConfigControlRaw_;
  }
  Zeb::Ptr<HoFlowConfigZeroReferencesNotifiee> const& zeroReferencesNotifiee() const {
    return zeroReferencesNotifiee_;
  }

  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

 private:
  Impl::Cells hoIpFlowConfigCells() const {
    return {hoIpFlowConfigIsCount_, hoIpFlowConfigDelCount_, hoIpFlowConfigNotifyCount_};
  }
  Impl::Cells hoIp6FlowConfigCells() const {
    return {hoIp6FlowConfigIsCount_, hoIp6FlowConfigDelCount_, hoIp6FlowConfigNotifyCount_};
  }

  // Statistics cells, IPv6 first; fetched by the constructor.
  uint64_t* hoIp6FlowConfigIsCount_ = nullptr;
  uint64_t* hoIp6FlowConfigDelCount_ = nullptr;
  uint64_t* hoIp6FlowConfigNotifyCount_ = nullptr;
  uint64_t* hoIpFlowConfigIsCount_ = nullptr;
  uint64_t* hoIpFlowConfigDelCount_ = nullptr;
  uint64_t* hoIpFlowConfigNotifyCount_ = nullptr;
  Zeb::Ptr<HoFlowConfigZeroReferencesNotifiee> zeroReferencesNotifiee_;
  // Destroyed in reverse order: the IPv6 control and collection go first.
  // Each ...ControlRaw_ is linked to the constructor's control, which nulls
  // it when it dies (CollectionControl::reportLinkIs); it is declared before
  // the control's Ptr so that it is still there when that Ptr drops the
  // control.
  HoIpFlowConfigMap hoIpFlowConfig_;
  ZebMirak::CollectionControl* hoIpFlowConfigControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIpFlowConfigControl_;
  HoIp6FlowConfigMap hoIp6FlowConfig_;
  ZebMirak::CollectionControl* hoIp6FlowConfigControlRaw_ = nullptr;
  Zeb::Ptr<ZebMirak::CollectionControl> hoIp6FlowConfigControl_;
  Zeb::NotifieeList notifieeList_;
};

// The factory: a new entity with notifications active. Throws what the
// construction throws; then no entity exists.
Zeb::Ptr<HoFlowConfig> hoFlowConfigFactory(Zeb::String const& name);

}  // namespace FlowTracking
