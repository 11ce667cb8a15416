// The generic interface of the flow types, shared by the files that describe
// them: the value methods, the attribute operations of records and entities,
// the named attribute ids and type indices, and the builders of type records.
// Internal to FlowTracking: the record files (FlowKeyModule.cpp,
// HoFlowConfigModule.cpp, ...) include it and Modules.cpp puts what they make
// into the four modules (see Modules.h for the ids and operations).
//
// A type record is built at load, by Modules.cpp, from what the record files
// give: their attribute tables are constinit, so they are in place before any
// load-time code in another file reads them.
#pragma once

#include <array>
#include <cstring>
#include <new>
#include <span>
#include <type_traits>
#include <typeinfo>

#include "FlowTracking/Factories.h"
#include "FlowTracking/Modules.h"
#include "Lomi/Trace.h"
#include "Zeb/Hash.h"
#include "Zeb/Strep.h"

namespace FlowTracking::ModuleImpl {

using Zeb::AttributeId;
using Zeb::AttributeInfo;
using Zeb::GenericIf::AttributeOp;
using Kind = Zeb::AttributeKind;
namespace Op = Zeb::GenericIf;
using Zeb::GenericIf::done;
using Zeb::GenericIf::undefinedOperation;
using Zeb::GenericIf::unknownAttribute;
using ControlPtr = Zeb::Ptr<ZebMirak::CollectionControl>;

// --- attribute ids and type indices -----------------------------------------

// Every type: 0 names the value itself; the type's own attributes are
// numbered from 2 in field order, mirakString last. A record's (and the
// counter key's) first attribute is its key.
inline constexpr AttributeId kValueItself = 0;
inline constexpr AttributeId kFirstAttribute = 2;
inline constexpr AttributeId kRecordKey = kFirstAttribute;

// The attributes of every entity: its two collections with their controls,
// and the static mountPath.
namespace EntityAttr {
inline constexpr AttributeId ipCollection = 258;
inline constexpr AttributeId ipControl = ipCollection + 1;
inline constexpr AttributeId ip6Collection = ipControl + 1;
inline constexpr AttributeId ip6Control = ip6Collection + 1;
inline constexpr AttributeId mountPath = ip6Control + 1;
}  // namespace EntityAttr

// The position of each type in its module's type array (Modules.cpp), which
// is its index in the registry: fwkType and the entity factories name it.
struct HoFlowConfigIndex {
  enum : uint32_t { hoIpFlowConfig, hoIp6FlowConfig, hoFlowConfig, count };
};
struct HoFlowStatusIndex {
  enum : uint32_t {
    hoIpFlowStatus,
    hoIp6FlowStatus,
    hoFlowStatus,
    hosStateCounterKey,
    hosStateCounterEntry,
    hosStateCounter,
    hoIpFlowCounter,
    hoIp6FlowCounter,
    hoFlowCounter,
    count
  };
};

// --- operations on values ---------------------------------------------------

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

inline void boolOut(void* result, bool b) {
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
// a VLAN tag carries its value in its first kVlanTagWriteBytes bytes, and a
// write keeps the sixth byte of the field as it was.
inline constexpr size_t kVlanTagWriteBytes = 5;

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

inline void const* genericIfVoidPtrIs(void const* value, Zeb::ZebType from, Zeb::ZebType to) {
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
inline constexpr Zeb::ValueMethods valueMethods = {
    &genericIfConstruct<T>,
    &genericIfDestruct<T>,
    &genericIfStrepToValue<T>,
    &genericIfStrRep<T>,
    nullptr,
    nullptr,
    &genericIfHash<T>,
    &genericIfVoidPtrIs,
};

template <typename K>
void keyFromCtorArgs(void* memory, void* const* args) {
  new (memory) K(*static_cast<typename K::FlowKey const*>(args[0]),
                 *static_cast<Nimbet::IntfId const*>(args[1]));
}

template <typename R>
void recordFromCtorArgs(void* memory, void* const* args) {
  new (memory) R(*static_cast<typename R::Key const*>(args[0]));
}

template <typename E, Zeb::Ptr<E> (*Factory)(Zeb::String const&)>
void entityFromCtorArgs(void* memory, void* const* args) {
  new (memory) Zeb::Ptr<Zeb::Entity>(Factory(*static_cast<Zeb::String const*>(args[0])));
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

// The attribute operation of a record or plain key: the value itself, its
// key (read only), then the `Fields` numbered on from the key in order, then
// mirakString. Each record's file checks that `mirakStringId` is the last id
// of the type's AttributeInfo table, so the two agree.
template <typename R, bool HasLess, typename... Fields>
struct RecordOp {
  static constexpr AttributeId firstFieldId = kRecordKey + 1;
  static constexpr AttributeId mirakStringId = firstFieldId + sizeof...(Fields);

  static int op(void* result, void* object, AttributeId attribute, AttributeOp op, void const*,
                void const* argument) {
    R& r = *static_cast<R*>(object);
    if (attribute == kValueItself) return valueOp<R, HasLess>(result, op, r, argument);
    if (attribute == kRecordKey) return readOnly(result, op, r.key());
    if (attribute == mirakStringId) return mirakStringOp(result, op, r);
    int rc = unknownAttribute;
    if constexpr (sizeof...(Fields) > 0) {
      AttributeId at = firstFieldId;
      // Stops at the field numbered `attribute`; none: unknownAttribute.
      (void)((attribute == at++ && (rc = Fields::op(result, op, argument, r), true)) || ...);
    }
    return rc;
  }
};

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
      case EntityAttr::ipCollection:
        return collectionOp<V4>(self(object), result, op, key, argument);
      case EntityAttr::ipControl:
        return controlOp<V4>(self(object), result, op, argument);
      case EntityAttr::ip6Collection:
        return collectionOp<V6>(self(object), result, op, key, argument);
      case EntityAttr::ip6Control:
        return controlOp<V6>(self(object), result, op, argument);
      case EntityAttr::mountPath:
        return mountPathOp(result, op, argument);
      default:
        return unknownAttribute;
    }
  }

  // Runs `fn` with the iterator typed for `attribute`.
  template <typename Fn>
  static auto withIter(void const* iter, AttributeId attribute, Fn&& fn) {
    if (attribute == EntityAttr::ipCollection)
      return fn(static_cast<typename V4::Iter const*>(iter), (V4*)nullptr);
    FMASSERT(attribute == EntityAttr::ip6Collection, Lomi::Platform::getDebugHandler("Zeb", true),
             "GenericIfImpl", "iterator of attribute {} of {}: only {} and {} have iterators",
             attribute, typeid(E).name(), EntityAttr::ipCollection, EntityAttr::ip6Collection);
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
    if (attribute == EntityAttr::ipCollection) return make((V4*)nullptr);
    if (attribute == EntityAttr::ip6Collection) return make((V6*)nullptr);
    return nullptr;
  }
};

template <typename E, Zeb::Ptr<E> (*Factory)(Zeb::String const&), Zeb::Module* M, uint32_t Index>
Zeb::Ptr<Zeb::Entity> newEntityForDir(Zeb::String const& name, void* args) {
  if (args) Zeb::throwNewEntityArgsException(M, Index);
  return Zeb::Ptr<Zeb::Entity>(Factory(name));
}

// The attribute table of an entity: its two collections (rows and keys by
// full type name), their controls and mountPath with its parameters.
constexpr std::array<AttributeInfo, 5> entityAttrs(char const* v4, char const* v4Control,
                                                   char const* v6, char const* v6Control,
                                                   char const* row4, char const* row6,
                                                   char const* key4, char const* key6,
                                                   std::span<char const* const> params) {
  return {{
      {EntityAttr::ipCollection, v4, Kind::collection, row4, key4},
      {EntityAttr::ipControl, v4Control, Kind::control, "ZebMirak::CollectionControl"},
      {EntityAttr::ip6Collection, v6, Kind::collection, row6, key6},
      {EntityAttr::ip6Control, v6Control, Kind::control, "ZebMirak::CollectionControl"},
      {EntityAttr::mountPath, "mountPath", Kind::staticFunction, "Zeb::String", nullptr, params},
  }};
}

inline constexpr char const* mountPathParams1[] = {"ftrTypeStr"};
inline constexpr char const* mountPathParams2[] = {"ftrTypeStr", "name"};

// --- type records -----------------------------------------------------------

template <typename T>
constexpr uint32_t sizeOf = static_cast<uint32_t>(sizeof(T));

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

// An entity type: made by `Factory` for newEntityForDir (which takes no
// arguments) and by `CtorFactory` from a name, operated on by `Impl`; `Index`
// is its position in module `M`.
template <typename E, typename Impl, Zeb::Ptr<E> (*Factory)(Zeb::String const&),
          Zeb::Ptr<E> (*CtorFactory)(Zeb::String const&), Zeb::Module* M, uint32_t Index>
Zeb::ZebTypeBase entityType(char const* name, std::span<AttributeInfo const> attrs) {
  return Zeb::ZebTypeBase{name,
                          Zeb::kFlagsEntity,
                          Zeb::kKindEntity,
                          sizeOf<E>,
                          "Zeb::Entity",
                          attrs,
                          Zeb::TypeImpl{&newEntityForDir<E, Factory, M, Index>, nullptr, nullptr,
                                        &entityFromCtorArgs<E, CtorFactory>, &Impl::attributeOp,
                                        &Impl::genericIfIterator}};
}

// What the record files give Modules.cpp, one type record each, in the
// order of the modules' type arrays.
Zeb::ZebTypeBase hoIpFlowKeyType();
Zeb::ZebTypeBase hoIp6FlowKeyType();
Zeb::ZebTypeBase hoIpFlowConfigType();
Zeb::ZebTypeBase hoIp6FlowConfigType();
Zeb::ZebTypeBase hoFlowConfigType();
Zeb::ZebTypeBase hoIpFlowStatusType();
Zeb::ZebTypeBase hoIp6FlowStatusType();
Zeb::ZebTypeBase hoFlowStatusType();
Zeb::ZebTypeBase hosStateCounterKeyType();
Zeb::ZebTypeBase hosStateCounterEntryType();
Zeb::ZebTypeBase hosStateCounterType();
Zeb::ZebTypeBase hoIpFlowCounterType();
Zeb::ZebTypeBase hoIp6FlowCounterType();
Zeb::ZebTypeBase hoFlowCounterType();

}  // namespace FlowTracking::ModuleImpl
