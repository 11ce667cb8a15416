// Zeb's type registry: the generic interface through which a program that has
// never seen a type's header creates, reads, writes, walks, prints and parses
// its values and entities by name.
//
// A module is constant data: a list of types (full name, index, kind, size,
// attributes) and each type's implementation (value methods, constructor from
// arguments, attribute operation, iterator, entity factory). A module is
// registered once, at load, by `zebModuleIs`; from then on its types are found
// by full name ("FlowTracking::HoFlowConfig") or by (module, index), the pair
// that an entity's `fwkType()` returns.
//
// Contract:
//   - Registration only adds: a module is never removed, so every pointer
//     handed out (types, modules, attribute records) lives until exit.
//     Registering a module twice is a no-op; two modules that register the
//     same type name are a broken promise (fmassert).
//   - Lookups are safe from any thread once loading is over; registration
//     itself happens in static initialisation, on one thread.
//   - The value methods and operations never allocate a value for the caller:
//     `memory` and `result` point at storage of the type's size. Results that
//     are objects with a lifecycle (a Zeb::String, a Zeb::Ptr) are assigned
//     to an existing, constructed object of that type.
//   - `attributeOp` answers with a status, not an exception, for an operation
//     that an attribute does not have (1) or an attribute the type does not
//     have (2). What the value or table operation itself throws passes
//     through unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Lomi/Exception.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"

namespace Zeb {

class Entity;
class Module;
class ZebTypeBase;
using ZebType = ZebTypeBase const*;

// The exceptions of the generic interface.
using Lomi::Exception;
LOMI_EXCEPTION_KIND(UnhashableException, Exception);
LOMI_EXCEPTION_KIND(TypeException, Exception);
LOMI_EXCEPTION_KIND(NewEntityArgsException, Exception);
LOMI_EXCEPTION_KIND(UnknownTypeException, Exception);

// "entity type <name> takes no constructor arguments in newEntityForDir".
[[noreturn]] void throwNewEntityArgsException(Module const* module, uint32_t index);

namespace GenericIfImpl {
// "values of type <name> can't be hashed generically" (records).
[[noreturn]] void throwUnhashableException(ZebType type);
// "a <from> is not a <to>".
[[noreturn]] void throwTypeException(ZebType from, ZebType to);
}  // namespace GenericIfImpl

namespace GenericIf {

// The operations of `attributeOp`. Numbers 0 to 5 act on a stored field or a
// collection, 10 calls a function attribute, 11 to 13 act on the value itself
// (attribute 0).
enum AttributeOp : uint32_t {
  opGet = 0,        // field: copy to result; collection: lookup of `key`
  opSet = 1,        // field: store `argument`; collection: write the row
  opDel = 2,        // collection: remove `key`, the removed row to result
  opMembers = 3,    // collection: number of rows (u32)
  opReserved4 = 4,  // collection: always 0 (u32)
  opExists = 5,     // collection: whether `key` is present (one byte)
  opCall = 10,      // function attribute: its result
  opBool = 11,      // value: operator bool, one byte
  opEqual = 12,     // value: operator== with `argument`, one byte
  opLess = 13,      // key: operator< with `argument`, one byte
};

// What `attributeOp` returns.
enum Status : int {
  done = 0,
  undefinedOperation = 1,
  unknownAttribute = 2,
};

}  // namespace GenericIf

// Attribute kinds, as the framework numbers them.
enum class AttributeKind : uint32_t {
  ctorField = 0x1012c00,       // stored, set at construction only
  field = 0x1011c00,           // stored, with a writer
  flowKeyField = 0x0002800,    // read-only field of the imported flow key
  valueFunction = 0x0000810,   // function of a value (mirakString)
  staticFunction = 0x0000818,  // static function of an entity (mountPath)
  collection = 0x1015c01,
  control = 0x1015c20,
};

struct AttributeInfo {
  AttributeId id;
  char const* name;
  AttributeKind kind;
  // Full name of the field's type, the collection's row type or the
  // function's result type; the key type of a collection in `keyType`.
  char const* typeName;
  char const* keyType = nullptr;
  // Parameter names of a function attribute, in order.
  std::span<char const* const> parameters = {};
};

// The eight entries of a value type's methods, in the framework's order.
struct ValueMethods {
  // With `source`, a byte copy of it; without, the default value.
  void (*construct)(void* memory, void const* source);
  void (*destruct)(void* memory);
  // Parses the whole of `text` into the constructed value at `memory`.
  // Throws Zeb::RangeException; `memory` is unchanged then.
  void (*strepToValue)(void* memory, String const& text, ZebType type);
  String (*strRep)(void const* value, ZebType type);
  void const* reserved4;
  void const* reserved5;
  // The generic hash (seed 0) of a key; records throw UnhashableException.
  uint32_t (*hash)(void const* value, ZebType type);
  // Checked assignment of a pointer of type `from` to one of type `to`:
  // returns `value` if `to` is `from` or a base of it, else throws
  // TypeException.
  void const* (*voidPtrIs)(void const* value, ZebType from, ZebType to);
};

// The five entries of an entity's iterator table. Each takes the attribute
// the iterator was made for: an entity's collections have iterators of
// different types.
struct IteratorMethods {
  // Copies the current row to `result`.
  void (*iterObj)(void const* iter, AttributeId attribute, void* result);
  // Copies the current row's key to `result`; true.
  bool (*iterKey)(void const* iter, AttributeId attribute, void* result);
  // Whether the iterator stands on a row.
  bool (*iterNonnull)(void const* iter, AttributeId attribute);
  void (*iterInc)(void* iter, AttributeId attribute);
  // Frees the iterator (never a row).
  void (*iterDel)(void* iter, AttributeId attribute);
};

using NewEntityForDirFn = Ptr<Entity> (*)(String const& name, void* args);
using ConstructFromCtorArgsFn = void (*)(void* memory, void* const* args);
using AttributeOpFn = int (*)(void* result, void* object, AttributeId attribute,
                              GenericIf::AttributeOp operation, void const* key,
                              void const* argument);
using IteratorFn = void* (*)(void* entity, void const* key, AttributeId attribute,
                             IteratorMethods const*& methods);

// The six implementation words of one type.
struct TypeImpl {
  NewEntityForDirFn newEntityForDir = nullptr;  // entities only
  void const* reserved = nullptr;
  ValueMethods const* methods = nullptr;  // values only
  ConstructFromCtorArgsFn constructFromCtorArgs = nullptr;
  AttributeOpFn attributeOp = nullptr;
  IteratorFn iterator = nullptr;  // entities only
};

// Type flags.
constexpr uint16_t kFlagsValue = 0x0401;
constexpr uint16_t kFlagsPlainValue = 0x0001;
constexpr uint16_t kFlagsEntity = 0x0440;
// Word 8 of a type record.
constexpr uint16_t kKindValue = 0xffff;
constexpr uint16_t kKindEntity = 0xfffd;

class ZebTypeBase {
 public:
  char const* name;
  uint16_t flags;
  uint16_t kind;
  uint32_t size;  // bytes; for an entity, its object's size
  // The type it derives from, by full name; null if none.
  char const* baseName;
  std::span<AttributeInfo const> attributes;
  TypeImpl impl;

  // Set by registration.
  Module const* module = nullptr;
  uint32_t index = 0;

  bool isPolymorphic() const { return kind == kKindEntity; }
  bool isEntity() const { return kind == kKindEntity; }
  // Whether `base` is this type or one it derives from.
  bool isDerived(ZebTypeBase const& base) const;
  AttributeInfo const* attribute(AttributeId id) const;
  AttributeInfo const* attribute(std::string_view name) const;
  FwkType fwkType() const { return FwkType{module, index}; }
};

class Module {
 public:
  Module(char const* name, std::span<ZebTypeBase> types, std::span<char const* const> imports)
      : name_(name), types_(types), imports_(imports) {}
  Module(Module const&) = delete;
  Module& operator=(Module const&) = delete;

  char const* name() const { return name_; }
  uint32_t numTypes() const { return static_cast<uint32_t>(types_.size()); }
  // Throws UnknownTypeException for an index out of range.
  ZebTypeBase const& type(uint32_t index) const;
  std::span<ZebTypeBase const> types() const { return types_; }
  std::span<char const* const> imports() const { return imports_; }

 private:
  friend void zebModuleIs(Module* module);
  char const* name_;
  std::span<ZebTypeBase> types_;
  std::span<char const* const> imports_;
};

// Registers `module` and each of its types (setting their module and index).
void zebModuleIs(Module* module);

// Lookups. The pointer forms give null when nothing is registered under the
// name; `typeByName` throws UnknownTypeException
// "unknown type <name>: no module registered it".
Module const* moduleByName(std::string_view name);
ZebType findType(std::string_view fullName);
ZebTypeBase const& typeByName(std::string_view fullName);
ZebType typeOf(FwkType const& t);
// Every registered module and type, in registration order.
std::vector<Module const*> modules();
std::vector<ZebType> types();

// ---------------------------------------------------------------------------
// Convenience over the implementation table, checked: each throws
// UnknownTypeException naming the type when it lacks the operation asked for.

// A value of a registered type, by its bytes, owned here.
class GenericValue {
 public:
  explicit GenericValue(ZebTypeBase const& type);  // the default value
  GenericValue(ZebTypeBase const& type, String const& strep);
  GenericValue(GenericValue const& o);
  GenericValue& operator=(GenericValue const& o);
  ~GenericValue();

  ZebTypeBase const& type() const { return *type_; }
  void* data() { return storage_.data(); }
  void const* data() const { return storage_.data(); }
  String strep() const;

 private:
  ZebTypeBase const* type_;
  std::vector<std::max_align_t> storage_;
};

// attributeOp of the object's type. `object` is a value's bytes, or for an
// entity type its `Zeb::Entity*` (as void*), or null for a static function.
int attributeOp(ZebTypeBase const& type, void* result, void* object, AttributeId attribute,
                GenericIf::AttributeOp operation, void const* key = nullptr,
                void const* argument = nullptr);

}  // namespace Zeb
