// The generic interface of the flow types: value methods, attribute
// operations, iterators and entity factories, and the four modules that
// register them at load (see FlowTracking/Modules.h).
#include "FlowTracking/Modules.h"

#include <cstring>
#include <iostream>
#include <new>
#include <type_traits>

#include "FlowTracking/Factories.h"
#include "Lomi/Trace.h"
#include "Zeb/Hash.h"
#include "Zeb/Strep.h"

namespace FlowTracking {
namespace {

using Zeb::AttributeId;
using Zeb::GenericIf::AttributeOp;
namespace Op = Zeb::GenericIf;
using Zeb::GenericIf::done;
using Zeb::GenericIf::undefinedOperation;
using Zeb::GenericIf::unknownAttribute;
using ControlPtr = Zeb::Ptr<ZebMirak::CollectionControl>;

template <typename F>
void copyOut(void* result, F const& v) {
  static_assert(std::is_trivially_copyable_v<F>);
  std::memcpy(result, &v, sizeof(F));
}

template <typename F>
F copyIn(void const* argument) {
  F v;
  std::memcpy(static_cast<void*>(&v), argument, sizeof(F));
  return v;
}

void boolOut(void* result, bool b) {
  unsigned char const byte = b ? 1 : 0;
  std::memcpy(result, &byte, 1);
}

// A field that only a constructor sets: readable, never written.
template <typename F>
int readOnly(void* result, AttributeOp op, F const& v) {
  if (op != Op::opGet) return undefinedOperation;
  copyOut(result, v);
  return done;
}

// A field with a writer. `WriteBytes` is how much of `argument` is taken:
// a VLAN tag carries its value in its first five bytes, and a write keeps the
// sixth byte of the field as it was.
template <typename F, size_t WriteBytes = sizeof(F), typename Set>
int readWrite(void* result, AttributeOp op, void const* argument, F const& current, Set&& set) {
  static_assert(WriteBytes <= sizeof(F));
  switch (op) {
    case Op::opGet:
      copyOut(result, current);
      return done;
    case Op::opSet: {
      F v = current;
      std::memcpy(static_cast<void*>(&v), argument, WriteBytes);
      set(v);
      return done;
    }
    default:
      return undefinedOperation;
  }
}

template <typename T>
int mirakStringOp(void* result, AttributeOp op, T const& v) {
  if (op != Op::opCall) return undefinedOperation;
  *static_cast<Zeb::String*>(result) = v.mirakString();
  return done;
}

// Operations on the value itself (no attribute). `HasLess`: keys only.
template <typename T, bool HasLess>
int valueOp(void* result, AttributeOp op, T const& v, void const* argument) {
  switch (op) {
    case Op::opBool:
      boolOut(result, static_cast<bool>(v));
      return done;
    case Op::opEqual:
      boolOut(result, v == copyIn<T>(argument));
      return done;
    case Op::opLess:
      if constexpr (HasLess) {
        boolOut(result, v < copyIn<T>(argument));
        return done;
      } else {
        return undefinedOperation;
      }
    default:
      return undefinedOperation;
  }
}

// --- value methods --------------------------------------------------------

template <typename T>
void genericIfConstruct(void* memory, void const* source) {
  if (source) {
    std::memcpy(memory, source, sizeof(T));
  } else {
    new (memory) T();
  }
}

template <typename T>
void genericIfDestruct(void*) {
  static_assert(std::is_trivially_destructible_v<T>);
}

template <typename T>
void genericIfStrepToValue(void* memory, Zeb::String const& text, Zeb::ZebType) {
  T const v = Zeb::strepToValue(text, static_cast<T*>(nullptr));
  std::memcpy(memory, &v, sizeof(T));
}

template <typename T>
Zeb::String genericIfStrRep(void const* value, Zeb::ZebType) {
  return valueToStrep(*static_cast<T const*>(value));
}

template <typename T>
uint32_t genericIfHash(void const* value, Zeb::ZebType type) {
  if constexpr (std::is_same_v<T, HoIpFlowKey> || std::is_same_v<T, HoIp6FlowKey>) {
    return static_cast<T const*>(value)->hash(0);
  } else if constexpr (std::is_same_v<T, HosStateCounterKey>) {
    auto const byte = static_cast<unsigned char>(static_cast<T const*>(value)->key());
    return Zeb::hashSingleAttr<unsigned char>(0, byte);
  } else {
    Zeb::GenericIfImpl::throwUnhashableException(type);
  }
}

void const* genericIfVoidPtrIs(void const* value, Zeb::ZebType from, Zeb::ZebType to) {
  if (from == to) return value;
  if (to && to->isPolymorphic()) {
    FMASSERT(from && from->isPolymorphic(), Lomi::Platform::getDebugHandler("Zeb", true),
             "GenericIfImpl", "type.isPolymorphic()");
    if (from->isDerived(*to)) return value;
  } else if (to) {
    FMASSERT(!from || !from->isPolymorphic() || !to->isPolymorphic(),
             Lomi::Platform::getDebugHandler("Zeb", true), "GenericIfImpl", "!t.isPolymorphic()");
  }
  Zeb::GenericIfImpl::throwTypeException(from, to);
}

template <typename T>
constexpr Zeb::ValueMethods valueMethods = {
    &genericIfConstruct<T>,
    &genericIfDestruct<T>,
    &genericIfStrepToValue<T>,
    &genericIfStrRep<T>,
    nullptr,
    nullptr,
    &genericIfHash<T>,
    &genericIfVoidPtrIs,
};

// --- constructors from arguments -----------------------------------------

template <typename K>
void keyFromCtorArgs(void* memory, void* const* args) {
  new (memory) K(*static_cast<typename K::FlowKey const*>(args[0]),
                 *static_cast<Nimbet::IntfId const*>(args[1]));
}

template <typename R>
void recordFromCtorArgs(void* memory, void* const* args) {
  new (memory) R(*static_cast<typename R::Key const*>(args[0]));
}

void counterKeyFromCtorArgs(void* memory, void* const* args) {
  new (memory) HosStateCounterKey(*static_cast<HoFlowState const*>(args[0]));
}

template <typename E, Zeb::Ptr<E> (*Factory)(Zeb::String const&)>
void entityFromCtorArgs(void* memory, void* const* args) {
  new (memory) Zeb::Ptr<Zeb::Entity>(Factory(*static_cast<Zeb::String const*>(args[0])));
}

// --- attribute operations of values ---------------------------------------

template <typename K>
int hoFlowKeyOp(void* result, void* object, AttributeId attribute, AttributeOp op, void const*,
                void const* argument) {
  K& k = *static_cast<K*>(object);
  auto const& f = k.ipFlowKey();
  switch (attribute) {
    case 0:
      return valueOp<K, true>(result, op, k, argument);
    case 2:
      return readOnly(result, op, f);
    case 3:
      return readOnly(result, op, f.vrfId());
    case 4:
      return readOnly(result, op, f.vlanId());
    case 5:
      return readOnly(result, op, f.srcAddr());
    case 6:
      return readOnly(result, op, f.dstAddr());
    case 7:
      return readOnly(result, op, f.ipProtocol());
    case 8:
      return readOnly(result, op, f.srcPort());
    case 9:
      return readOnly(result, op, f.dstPort());
    case 10:
      return readOnly(result, op, f.direction());
    case 11:
      return readOnly(result, op, f.ipProtocolNumber());
    case 12:
      return readOnly(result, op, k.intfId());
    case 13:
      return mirakStringOp(result, op, k);
    default:
      return unknownAttribute;
  }
}

// A field with a writer, by its accessor pair; `WriteBytes` as for readWrite
// (0: the whole field).
template <auto Get, auto Set, size_t WriteBytes = 0>
struct Rw {
  template <typename R>
  static int op(void* result, AttributeOp op, void const* argument, R& r) {
    using F = std::remove_cvref_t<decltype((r.*Get)())>;
    constexpr size_t kBytes = WriteBytes ? WriteBytes : sizeof(F);
    return readWrite<F, kBytes>(result, op, argument, (r.*Get)(), [&](F v) { (r.*Set)(v); });
  }
};

// The attribute operation of a record or plain key: 0 the value itself, 2 its
// key (read only), then the `Fields` numbered from 3 in order, then
// mirakString. The numbers are those of the type's AttributeInfo table below.
template <typename R, bool HasLess, typename... Fields>
struct RecordOp {
  static int op(void* result, void* object, AttributeId attribute, AttributeOp op, void const*,
                void const* argument) {
    R& r = *static_cast<R*>(object);
    if (attribute == 0) return valueOp<R, HasLess>(result, op, r, argument);
    if (attribute == 2) return readOnly(result, op, r.key());
    if (attribute == 3 + sizeof...(Fields)) return mirakStringOp(result, op, r);
    int rc = unknownAttribute;
    if constexpr (sizeof...(Fields) > 0) {
      AttributeId at = 3;
      // Stops at the field numbered `attribute`; none: unknownAttribute.
      (void)((attribute == at++ && (rc = Fields::op(result, op, argument, r), true)) || ...);
    }
    return rc;
  }
};

template <typename R>
using ConfigOp =
    RecordOp<R, false, Rw<&R::createTime, &R::createTimeIs>, Rw<&R::updateTime, &R::updateTimeIs>,
             Rw<&R::srcEthAddr, &R::srcEthAddrIs>, Rw<&R::dstEthAddr, &R::dstEthAddrIs>,
             Rw<&R::dot1qVlanTag, &R::dot1qVlanTagIs, 5>,
             Rw<&R::dot1qCustomerVlanTag, &R::dot1qCustomerVlanTagIs, 5>,
             Rw<&R::cachedIntfId, &R::cachedIntfIdIs>>;

template <typename R>
using StatusOp =
    RecordOp<R, false, Rw<&R::hoFlowState, &R::hoFlowStateIs>, Rw<&R::createTime, &R::createTimeIs>,
             Rw<&R::updateTime, &R::updateTimeIs>>;

template <typename R>
using CounterOp =
    RecordOp<R, false, Rw<&R::intfId, &R::intfIdIs>, Rw<&R::packets, &R::packetsIs>,
             Rw<&R::bytes, &R::bytesIs>, Rw<&R::createTime, &R::createTimeIs>,
             Rw<&R::updateTime, &R::updateTimeIs>, Rw<&R::hosEntries, &R::hosEntriesIs>>;

using CounterKeyOp = RecordOp<HosStateCounterKey, true>;
using CounterEntryOp =
    RecordOp<HosStateCounterEntry, false,
             Rw<&HosStateCounterEntry::hoFlows, &HosStateCounterEntry::hoFlowsIs>>;

// --- entities ---------------------------------------------------------------

// One collection of an entity, by its member operations.
#define FLOWTRACKING_COLLECTION(Policy, EntityT, coll)                         \
  struct Policy {                                                              \
    using E = EntityT;                                                         \
    using Map = std::remove_reference_t<decltype(std::declval<E&>().coll())>;  \
    using Record = typename Map::Record;                                       \
    using Key = typename Map::Key;                                             \
    using Iter = typename Map::IteratorConst;                                  \
    static Map& map(E& e) { return e.coll(); }                                 \
    static void is(E& e, Record const& r) { e.coll##Is(r); }                   \
    static Record del(E& e, Key const& k) { return e.coll##Del(k); }           \
    static ControlPtr control(E const& e) { return e.coll##Control(); }        \
    static void controlIs(E& e, ControlPtr const& c) { e.coll##ControlIs(c); } \
  }

FLOWTRACKING_COLLECTION(HoIpFlowConfigColl, HoFlowConfig, hoIpFlowConfig);
FLOWTRACKING_COLLECTION(HoIp6FlowConfigColl, HoFlowConfig, hoIp6FlowConfig);
FLOWTRACKING_COLLECTION(HoIpFlowStatusColl, HoFlowStatus, hoIpFlowStatus);
FLOWTRACKING_COLLECTION(HoIp6FlowStatusColl, HoFlowStatus, hoIp6FlowStatus);
FLOWTRACKING_COLLECTION(HoIpFlowCounterColl, HoFlowCounter, hoIpFlowCounter);
FLOWTRACKING_COLLECTION(HoIp6FlowCounterColl, HoFlowCounter, hoIp6FlowCounter);
FLOWTRACKING_COLLECTION(HosStateIpCounterColl, HosStateCounter, hosStateIpCounter);
FLOWTRACKING_COLLECTION(HosStateIp6CounterColl, HosStateCounter, hosStateIp6Counter);

#undef FLOWTRACKING_COLLECTION

template <typename C>
void rowOut(void* result, typename C::Map::Value const& v) {
  copyOut<typename C::Record>(result, v);
}

template <typename C>
int collectionOp(typename C::E& e, void* result, AttributeOp op, void const* key,
                 void const* argument) {
  using Key = typename C::Key;
  using Record = typename C::Record;
  auto& map = C::map(e);
  switch (op) {
    case Op::opGet:
    case Op::opExists: {
      bool found = false;
      // Absent: the lookup answers with the table's default row.
      auto const* v = map.safeLookup(*static_cast<Key const*>(key), found, nullptr);
      if (op == Op::opExists) {
        boolOut(result, found);
      } else {
        rowOut<C>(result, *v);
      }
      return done;
    }
    case Op::opSet:
      C::is(e, *static_cast<Record const*>(argument));
      return done;
    case Op::opDel:
      copyOut(result, C::del(e, *static_cast<Key const*>(key)));
      return done;
    case Op::opMembers:
      copyOut<uint32_t>(result, map.back()->members());
      return done;
    case Op::opReserved4:
      copyOut<uint32_t>(result, 0);
      return done;
    default:
      return undefinedOperation;
  }
}

template <typename C>
int controlOp(typename C::E& e, void* result, AttributeOp op, void const* argument) {
  switch (op) {
    case Op::opGet:
      *static_cast<ControlPtr*>(result) = C::control(e);
      return done;
    case Op::opSet:
      C::controlIs(e, *static_cast<ControlPtr const*>(argument));
      return done;
    default:
      return undefinedOperation;
  }
}

// The two collections of an entity and its mountPath.
template <typename E, typename V4, typename V6>
struct EntityImpl {
  static E& self(void* object) { return static_cast<E&>(*static_cast<Zeb::Entity*>(object)); }

  static int mountPathOp(void* result, AttributeOp op, void const* argument) {
    if (op != Op::opCall) return undefinedOperation;
    auto const* params = static_cast<Zeb::String const* const*>(argument);
    if constexpr (std::is_same_v<E, HoFlowCounter>) {
      *static_cast<Zeb::String*>(result) = E::mountPath(*params[0], *params[1]);
    } else {
      *static_cast<Zeb::String*>(result) = E::mountPath(*params[0]);
    }
    return done;
  }

  static int attributeOp(void* result, void* object, AttributeId attribute, AttributeOp op,
                         void const* key, void const* argument) {
    switch (attribute) {
      case 258:
        return collectionOp<V4>(self(object), result, op, key, argument);
      case 259:
        return controlOp<V4>(self(object), result, op, argument);
      case 260:
        return collectionOp<V6>(self(object), result, op, key, argument);
      case 261:
        return controlOp<V6>(self(object), result, op, argument);
      case 262:
        return mountPathOp(result, op, argument);
      default:
        return unknownAttribute;
    }
  }

  // Runs `fn` with the iterator typed for `attribute`.
  template <typename Fn>
  static auto withIter(void const* iter, AttributeId attribute, Fn&& fn) {
    if (attribute == 258) return fn(static_cast<typename V4::Iter const*>(iter), (V4*)nullptr);
    FMASSERT(attribute == 260, Lomi::Platform::getDebugHandler("Zeb", true), "GenericIfImpl",
             "iterator of attribute {} of {}: only 258 and 260 have iterators", attribute,
             typeid(E).name());
    return fn(static_cast<typename V6::Iter const*>(iter), (V6*)nullptr);
  }

  static void iterObj(void const* iter, AttributeId attribute, void* result) {
    withIter(iter, attribute, [&](auto const* it, auto* coll) {
      using C = std::remove_pointer_t<decltype(coll)>;
      rowOut<C>(result, it->row());
    });
  }
  static bool iterKey(void const* iter, AttributeId attribute, void* result) {
    return withIter(iter, attribute, [&](auto const* it, auto* coll) {
      using C = std::remove_pointer_t<decltype(coll)>;
      copyOut<typename C::Key>(result, it->row().key());
      return true;
    });
  }
  static bool iterNonnull(void const* iter, AttributeId attribute) {
    return withIter(iter, attribute, [](auto const* it, auto*) { return it->valid(); });
  }
  static void iterInc(void* iter, AttributeId attribute) {
    withIter(iter, attribute, [](auto const* it, auto*) {
      // The iterator was made non-const by genericIfIterator; the table
      // stays read only.
      const_cast<std::remove_const_t<std::remove_pointer_t<decltype(it)>>*>(it)->advance();
    });
  }
  static void iterDel(void* iter, AttributeId attribute) {
    withIter(iter, attribute, [](auto const* it, auto*) { delete it; });
  }

  static constexpr Zeb::IteratorMethods iteratorMethods = {&iterObj, &iterKey, &iterNonnull,
                                                           &iterInc, &iterDel};

  static void* genericIfIterator(void* object, void const* key, AttributeId attribute,
                                 Zeb::IteratorMethods const*& methods) {
    auto make = [&](auto* coll) -> void* {
      using C = std::remove_pointer_t<decltype(coll)>;
      auto& map = C::map(self(object));
      methods = &iteratorMethods;
      if (key) return new typename C::Iter(&map, *static_cast<typename C::Key const*>(key));
      return new typename C::Iter(&map);
    };
    if (attribute == 258) return make((V4*)nullptr);
    if (attribute == 260) return make((V6*)nullptr);
    return nullptr;
  }
};

template <typename E, Zeb::Ptr<E> (*Factory)(Zeb::String const&), Zeb::Module* M, uint32_t Index>
Zeb::Ptr<Zeb::Entity> newEntityForDir(Zeb::String const& name, void* args) {
  if (args) Zeb::throwNewEntityArgsException(M, Index);
  return Zeb::Ptr<Zeb::Entity>(Factory(name));
}

using HoFlowConfigImpl = EntityImpl<HoFlowConfig, HoIpFlowConfigColl, HoIp6FlowConfigColl>;
using HoFlowStatusImpl = EntityImpl<HoFlowStatus, HoIpFlowStatusColl, HoIp6FlowStatusColl>;
using HoFlowCounterImpl = EntityImpl<HoFlowCounter, HoIpFlowCounterColl, HoIp6FlowCounterColl>;
using HosStateCounterImpl =
    EntityImpl<HosStateCounter, HosStateIpCounterColl, HosStateIp6CounterColl>;

// --- type records -----------------------------------------------------------

using Zeb::AttributeInfo;
using Kind = Zeb::AttributeKind;

template <typename T>
constexpr uint32_t sizeOf = static_cast<uint32_t>(sizeof(T));

#define FLOWTRACKING_KEY_ATTRS(name, FlowKeyName, AddrName)              \
  AttributeInfo const name[] = {                                         \
      {2, "ipFlowKey", Kind::ctorField, FlowKeyName},                    \
      {3, "vrfId", Kind::flowKeyField, "FlowTracking::VrfId"},           \
      {4, "vlanId", Kind::flowKeyField, "FlowTracking::VlanId"},         \
      {5, "srcAddr", Kind::flowKeyField, AddrName},                      \
      {6, "dstAddr", Kind::flowKeyField, AddrName},                      \
      {7, "ipProtocol", Kind::flowKeyField, "Nimbet::IpProtocol"},       \
      {8, "srcPort", Kind::flowKeyField, "U16"},                         \
      {9, "dstPort", Kind::flowKeyField, "U16"},                         \
      {10, "direction", Kind::flowKeyField, "Nimbet::TrafficDirection"}, \
      {11, "ipProtocolNumber", Kind::flowKeyField, "U8"},                \
      {12, "intfId", Kind::ctorField, "Nimbet::IntfId"},                 \
      {13, "mirakString", Kind::valueFunction, "Zeb::String"},           \
  }
FLOWTRACKING_KEY_ATTRS(hoIpFlowKeyAttrs, "FlowTracking::IpFlowKey", "Nimbet::IpAddr");
FLOWTRACKING_KEY_ATTRS(hoIp6FlowKeyAttrs, "FlowTracking::Ip6FlowKey", "Nimbet::Ip6Addr");

#define FLOWTRACKING_CONFIG_ATTRS(name, KeyName)                 \
  AttributeInfo const name[] = {                                 \
      {2, "key", Kind::ctorField, KeyName},                      \
      {3, "createTime", Kind::field, "Zeb::Seconds"},            \
      {4, "updateTime", Kind::field, "Zeb::Seconds"},            \
      {5, "srcEthAddr", Kind::field, "Nimbet::EthAddr"},         \
      {6, "dstEthAddr", Kind::field, "Nimbet::EthAddr"},         \
      {7, "dot1qVlanTag", Kind::field, "Ovie::VlanTag"},         \
      {8, "dot1qCustomerVlanTag", Kind::field, "Ovie::VlanTag"}, \
      {9, "cachedIntfId", Kind::field, "Nimbet::IntfId"},        \
      {10, "mirakString", Kind::valueFunction, "Zeb::String"},   \
  }
FLOWTRACKING_CONFIG_ATTRS(hoIpFlowConfigAttrs, "FlowTracking::HoIpFlowKey");
FLOWTRACKING_CONFIG_ATTRS(hoIp6FlowConfigAttrs, "FlowTracking::HoIp6FlowKey");

#define FLOWTRACKING_STATUS_ATTRS(name, KeyName)                    \
  AttributeInfo const name[] = {                                    \
      {2, "key", Kind::ctorField, KeyName},                         \
      {3, "hoFlowState", Kind::field, "FlowTracking::HoFlowState"}, \
      {4, "createTime", Kind::field, "Zeb::Seconds"},               \
      {5, "updateTime", Kind::field, "Zeb::Seconds"},               \
      {6, "mirakString", Kind::valueFunction, "Zeb::String"},       \
  }
FLOWTRACKING_STATUS_ATTRS(hoIpFlowStatusAttrs, "FlowTracking::HoIpFlowKey");
FLOWTRACKING_STATUS_ATTRS(hoIp6FlowStatusAttrs, "FlowTracking::HoIp6FlowKey");

#define FLOWTRACKING_COUNTER_ATTRS(name, KeyName)             \
  AttributeInfo const name[] = {                              \
      {2, "key", Kind::ctorField, KeyName},                   \
      {3, "intfId", Kind::field, "Nimbet::IntfId"},           \
      {4, "packets", Kind::field, "U64"},                     \
      {5, "bytes", Kind::field, "U64"},                       \
      {6, "createTime", Kind::field, "Zeb::Seconds"},         \
      {7, "updateTime", Kind::field, "Zeb::Seconds"},         \
      {8, "hosEntries", Kind::field, "U32"},                  \
      {9, "mirakString", Kind::valueFunction, "Zeb::String"}, \
  }
FLOWTRACKING_COUNTER_ATTRS(hoIpFlowCounterAttrs, "FlowTracking::IpFlowKey");
FLOWTRACKING_COUNTER_ATTRS(hoIp6FlowCounterAttrs, "FlowTracking::Ip6FlowKey");

AttributeInfo const hosStateCounterKeyAttrs[] = {
    {2, "key", Kind::ctorField, "FlowTracking::HoFlowState"},
    {3, "mirakString", Kind::valueFunction, "Zeb::String"},
};

AttributeInfo const hosStateCounterEntryAttrs[] = {
    {2, "key", Kind::ctorField, "FlowTracking::HosStateCounterKey"},
    {3, "hoFlows", Kind::field, "U32"},
    {4, "mirakString", Kind::valueFunction, "Zeb::String"},
};

char const* const mountPathParams1[] = {"ftrTypeStr"};
char const* const mountPathParams2[] = {"ftrTypeStr", "name"};

#define FLOWTRACKING_ENTITY_ATTRS(name, v4, v6, Row4, Row6, Key4, Key6, params) \
  AttributeInfo const name[] = {                                                \
      {258, #v4, Kind::collection, Row4, Key4},                                 \
      {259, #v4 "Control", Kind::control, "ZebMirak::CollectionControl"},       \
      {260, #v6, Kind::collection, Row6, Key6},                                 \
      {261, #v6 "Control", Kind::control, "ZebMirak::CollectionControl"},       \
      {262, "mountPath", Kind::staticFunction, "Zeb::String", nullptr, params}, \
  }
FLOWTRACKING_ENTITY_ATTRS(hoFlowConfigAttrs, hoIpFlowConfig, hoIp6FlowConfig,
                          "FlowTracking::HoIpFlowConfig", "FlowTracking::HoIp6FlowConfig",
                          "FlowTracking::HoIpFlowKey", "FlowTracking::HoIp6FlowKey",
                          mountPathParams1);
FLOWTRACKING_ENTITY_ATTRS(hoFlowStatusAttrs, hoIpFlowStatus, hoIp6FlowStatus,
                          "FlowTracking::HoIpFlowStatus", "FlowTracking::HoIp6FlowStatus",
                          "FlowTracking::HoIpFlowKey", "FlowTracking::HoIp6FlowKey",
                          mountPathParams1);
FLOWTRACKING_ENTITY_ATTRS(hoFlowCounterAttrs, hoIpFlowCounter, hoIp6FlowCounter,
                          "FlowTracking::HoIpFlowCounter", "FlowTracking::HoIp6FlowCounter",
                          "FlowTracking::IpFlowKey", "FlowTracking::Ip6FlowKey", mountPathParams2);
FLOWTRACKING_ENTITY_ATTRS(hosStateCounterAttrs, hosStateIpCounter, hosStateIp6Counter,
                          "FlowTracking::HosStateCounterEntry",
                          "FlowTracking::HosStateCounterEntry", "FlowTracking::HosStateCounterKey",
                          "FlowTracking::HosStateCounterKey", mountPathParams1);

#undef FLOWTRACKING_KEY_ATTRS
#undef FLOWTRACKING_CONFIG_ATTRS
#undef FLOWTRACKING_STATUS_ATTRS
#undef FLOWTRACKING_COUNTER_ATTRS
#undef FLOWTRACKING_ENTITY_ATTRS

template <typename T>
Zeb::ZebTypeBase valueType(char const* name, uint16_t flags, std::span<AttributeInfo const> attrs,
                           Zeb::ConstructFromCtorArgsFn ctor, Zeb::AttributeOpFn op) {
  return Zeb::ZebTypeBase{name,
                          flags,
                          Zeb::kKindValue,
                          sizeOf<T>,
                          nullptr,
                          attrs,
                          Zeb::TypeImpl{nullptr, nullptr, &valueMethods<T>, ctor, op, nullptr}};
}

// A record of an offload table, made from its key and operated on by
// `Op<R>::op`.
template <typename R, template <typename> class Op>
Zeb::ZebTypeBase recordType(char const* name, std::span<AttributeInfo const> attrs) {
  return valueType<R>(name, Zeb::kFlagsValue, attrs, &recordFromCtorArgs<R>, &Op<R>::op);
}

template <typename E, typename Impl>
Zeb::ZebTypeBase entityType(char const* name, std::span<AttributeInfo const> attrs,
                            Zeb::NewEntityForDirFn newForDir, Zeb::ConstructFromCtorArgsFn ctor) {
  return Zeb::ZebTypeBase{name,
                          Zeb::kFlagsEntity,
                          Zeb::kKindEntity,
                          sizeOf<E>,
                          "Zeb::Entity",
                          attrs,
                          Zeb::TypeImpl{newForDir, nullptr, nullptr, ctor, &Impl::attributeOp,
                                        &Impl::genericIfIterator}};
}

}  // namespace
}  // namespace FlowTracking

// --- the modules --------------------------------------------------------------

namespace {

using namespace FlowTracking;

char const* const hoFlowImports[] = {
    "_IntfId_2da7d77e_zebModule", "_IpAddr_a3351900_zebModule",
    "_Ip_bb465fd1_zebModule",     "_TrafficDirection_9bb1a0a1_zebModule",
    "_VlanId_a7f886d5_zebModule", "_FlowTable_b9c42498_zebModule",
};
char const* const ho6FlowImports[] = {
    "_IntfId_2da7d77e_zebModule", "_Ip6Addr_acdcd70c_zebModule",
    "_Ip_bb465fd1_zebModule",     "_TrafficDirection_9bb1a0a1_zebModule",
    "_VlanId_a7f886d5_zebModule", "_FlowTable_b9c42498_zebModule",
};
char const* const hoFlowConfigImports[] = {
    "_HoFlow_adf6f25f_zebModule",  "_Ho6Flow_e944d5d2_zebModule",
    "_IntfId_2da7d77e_zebModule",  "_EthAddr_8b9415d4_zebModule",
    "_VlanTag_28eef3c3_zebModule", "_CollectionControl_e111d95_zebModule",
};
char const* const hoFlowStatusImports[] = {
    "_HoFlow_adf6f25f_zebModule",           "_Ho6Flow_e944d5d2_zebModule",
    "_IntfId_2da7d77e_zebModule",           "_FlowTable_b9c42498_zebModule",
    "_CollectionControl_e111d95_zebModule", "_FlowTrackingCairnTypes_28a9bdff_zebModule",
};

Zeb::ZebTypeBase hoFlowTypes[] = {
    valueType<HoIpFlowKey>("FlowTracking::HoIpFlowKey", Zeb::kFlagsValue, hoIpFlowKeyAttrs,
                           &keyFromCtorArgs<HoIpFlowKey>, &hoFlowKeyOp<HoIpFlowKey>),
};

Zeb::ZebTypeBase ho6FlowTypes[] = {
    valueType<HoIp6FlowKey>("FlowTracking::HoIp6FlowKey", Zeb::kFlagsValue, hoIp6FlowKeyAttrs,
                            &keyFromCtorArgs<HoIp6FlowKey>, &hoFlowKeyOp<HoIp6FlowKey>),
};

}  // namespace

extern "C" {
Zeb::Module _HoFlow_adf6f25f_zebModule("_HoFlow_adf6f25f_zebModule", hoFlowTypes, hoFlowImports);
Zeb::Module _Ho6Flow_e944d5d2_zebModule("_Ho6Flow_e944d5d2_zebModule", ho6FlowTypes,
                                        ho6FlowImports);
}

namespace {

Zeb::ZebTypeBase hoFlowConfigTypes[] = {
    recordType<HoIpFlowConfig, ConfigOp>("FlowTracking::HoIpFlowConfig", hoIpFlowConfigAttrs),
    recordType<HoIp6FlowConfig, ConfigOp>("FlowTracking::HoIp6FlowConfig", hoIp6FlowConfigAttrs),
    entityType<HoFlowConfig, HoFlowConfigImpl>(
        "FlowTracking::HoFlowConfig", hoFlowConfigAttrs,
        &newEntityForDir<HoFlowConfig, &hoFlowConfigFactory, &_HoFlowConfig_d7c62409_zebModule, 2>,
        &entityFromCtorArgs<HoFlowConfig, &HoFlowConfig::HoFlowConfigIs>),
};

Zeb::ZebTypeBase hoFlowStatusTypes[] = {
    recordType<HoIpFlowStatus, StatusOp>("FlowTracking::HoIpFlowStatus", hoIpFlowStatusAttrs),
    recordType<HoIp6FlowStatus, StatusOp>("FlowTracking::HoIp6FlowStatus", hoIp6FlowStatusAttrs),
    entityType<HoFlowStatus, HoFlowStatusImpl>(
        "FlowTracking::HoFlowStatus", hoFlowStatusAttrs,
        &newEntityForDir<HoFlowStatus, &hoFlowStatusFactory, &_HoFlowStatus_b4e443f4_zebModule, 2>,
        &entityFromCtorArgs<HoFlowStatus, &HoFlowStatus::HoFlowStatusIs>),
    valueType<HosStateCounterKey>("FlowTracking::HosStateCounterKey", Zeb::kFlagsPlainValue,
                                  hosStateCounterKeyAttrs, &counterKeyFromCtorArgs,
                                  &CounterKeyOp::op),
    valueType<HosStateCounterEntry>("FlowTracking::HosStateCounterEntry", Zeb::kFlagsPlainValue,
                                    hosStateCounterEntryAttrs,
                                    &recordFromCtorArgs<HosStateCounterEntry>, &CounterEntryOp::op),
    entityType<HosStateCounter, HosStateCounterImpl>(
        "FlowTracking::HosStateCounter", hosStateCounterAttrs,
        &newEntityForDir<HosStateCounter, &hosStateCounterFactory,
                         &_HoFlowStatus_b4e443f4_zebModule, 5>,
        &entityFromCtorArgs<HosStateCounter, &HosStateCounter::HosStateCounterIs>),
    recordType<HoIpFlowCounter, CounterOp>("FlowTracking::HoIpFlowCounter", hoIpFlowCounterAttrs),
    recordType<HoIp6FlowCounter, CounterOp>("FlowTracking::HoIp6FlowCounter",
                                            hoIp6FlowCounterAttrs),
    entityType<HoFlowCounter, HoFlowCounterImpl>(
        "FlowTracking::HoFlowCounter", hoFlowCounterAttrs,
        &newEntityForDir<HoFlowCounter, &hoFlowCounterFactory, &_HoFlowStatus_b4e443f4_zebModule,
                         8>,
        &entityFromCtorArgs<HoFlowCounter, &HoFlowCounter::HoFlowCounterIs>),
};

}  // namespace

extern "C" {
Zeb::Module _HoFlowConfig_d7c62409_zebModule("_HoFlowConfig_d7c62409_zebModule", hoFlowConfigTypes,
                                             hoFlowConfigImports);
Zeb::Module _HoFlowStatus_b4e443f4_zebModule("_HoFlowStatus_b4e443f4_zebModule", hoFlowStatusTypes,
                                             hoFlowStatusImports);
}

// --- load-time initialisers -----------------------------------------------------
//
// One per source group, in the order HoFlow, HoFlowConfig, HoFlowStatus,
// Ho6Flow. Each makes sure the standard streams exist (the types print on
// them), keeps its file-level name prefix until exit, and registers its
// module. Nothing else runs at load: no table, no file, no thread.

namespace {

struct ModuleInit {
  explicit ModuleInit(Zeb::Module* module) : prefix("ns-") { Zeb::zebModuleIs(module); }
  std::ios_base::Init streams;
  Zeb::String prefix;
};

ModuleInit const hoFlowInit(&_HoFlow_adf6f25f_zebModule);
ModuleInit const hoFlowConfigInit(&_HoFlowConfig_d7c62409_zebModule);
ModuleInit const hoFlowStatusInit(&_HoFlowStatus_b4e443f4_zebModule);
ModuleInit const ho6FlowInit(&_Ho6Flow_e944d5d2_zebModule);

}  // namespace

// --- fwkType of the entities ------------------------------------------------------

namespace FlowTracking {

Zeb::FwkType HoFlowConfig::fwkType() const {
  return {&_HoFlowConfig_d7c62409_zebModule, 2};
}
Zeb::FwkType HoFlowStatus::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, 2};
}
Zeb::FwkType HosStateCounter::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, 5};
}
Zeb::FwkType HoFlowCounter::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, 8};
}

}  // namespace FlowTracking
