// The type registry of the generic interface and its checked helpers.
#include "Zeb/Module.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "Lomi/Trace.h"
#include "Zeb/Entity.h"

namespace Zeb {

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<Module const*> modules;
  std::vector<ZebType> types;
  std::map<std::string, ZebType, std::less<>> byName;
};

// Made on first use: modules register from static initialisers of other
// files, whose order against this file's is not defined.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

// The framework's own entity base, so that an entity type can be checked
// against Zeb::Entity.
ZebTypeBase zebTypes[] = {
    {"Zeb::Entity", kFlagsEntity, kKindEntity, sizeof(Entity), nullptr, {}, {}},
};
char const* const zebImports[] = {};
Module zebModule("_Zeb_zebModule", zebTypes, std::span<char const* const>(zebImports, 0));

struct ZebModuleInit {
  ZebModuleInit() { zebModuleIs(&zebModule); }
} const zebModuleInit;

}  // namespace

void throwNewEntityArgsException(Module const* module, uint32_t index) {
  ZebType const t = module && index < module->numTypes() ? &module->type(index) : nullptr;
  throw NewEntityArgsException(
      "entity type {} takes no constructor arguments in newEntityForDir",
      t ? t->name : fmt::format("{} of module {}", index, module ? module->name() : "(none)"));
}

namespace GenericIfImpl {

void throwUnhashableException(ZebType type) {
  throw UnhashableException("values of type {} can't be hashed generically",
                            type ? type->name : "(unknown)");
}

void throwTypeException(ZebType from, ZebType to) {
  throw TypeException("a {} is not a {}", from ? from->name : "(unknown)",
                      to ? to->name : "(unknown)");
}

}  // namespace GenericIfImpl

bool ZebTypeBase::isDerived(ZebTypeBase const& base) const {
  ZebTypeBase const* t = this;
  // A chain of bases is short; the bound only guards against a cycle in
  // registered data.
  for (int depth = 0; t && depth < 64; ++depth) {
    if (t == &base) return true;
    t = t->baseName ? findType(t->baseName) : nullptr;
  }
  return false;
}

AttributeInfo const* ZebTypeBase::attribute(AttributeId id) const {
  for (auto const& a : attributes) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

AttributeInfo const* ZebTypeBase::attribute(std::string_view n) const {
  for (auto const& a : attributes) {
    if (n == a.name) return &a;
  }
  return nullptr;
}

ZebTypeBase const& Module::type(uint32_t index) const {
  if (index >= types_.size()) {
    throw UnknownTypeException("module {} has no type {} (it has {})", name_, index, types_.size());
  }
  return types_[index];
}

void zebModuleIs(Module* module) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (std::find(r.modules.begin(), r.modules.end(), module) != r.modules.end()) return;
  for (uint32_t i = 0; i < module->types_.size(); ++i) {
    ZebTypeBase& t = module->types_[i];
    auto const found = r.byName.find(std::string_view(t.name));
    if (found != r.byName.end()) {
      Lomi::fmassert(Lomi::Platform::getDebugHandler("Zeb", true), "Zeb", __func__,
                     "type {} registered by module {} and again by {}", t.name,
                     found->second->module->name(), module->name());
    }
    t.module = module;
    t.index = i;
  }
  for (auto& t : module->types_) {
    r.byName.emplace(t.name, &t);
    r.types.push_back(&t);
  }
  r.modules.push_back(module);
}

Module const* moduleByName(std::string_view name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (Module const* m : r.modules) {
    if (name == m->name()) return m;
  }
  return nullptr;
}

ZebType findType(std::string_view fullName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto const it = r.byName.find(fullName);
  return it == r.byName.end() ? nullptr : it->second;
}

ZebTypeBase const& typeByName(std::string_view fullName) {
  ZebType const t = findType(fullName);
  if (!t) throw UnknownTypeException("unknown type {}: no module registered it", fullName);
  return *t;
}

ZebType typeOf(FwkType const& t) {
  if (!t.module) return nullptr;
  auto const* m = static_cast<Module const*>(t.module);
  return t.index < m->numTypes() ? &m->type(t.index) : nullptr;
}

std::vector<Module const*> modules() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.modules;
}

std::vector<ZebType> types() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.types;
}

// ---------------------------------------------------------------------------

namespace {

ValueMethods const& methodsOf(ZebTypeBase const& type) {
  if (!type.impl.methods) {
    throw UnknownTypeException("type {} has no value methods: it is not a value type", type.name);
  }
  return *type.impl.methods;
}

size_t wordsFor(size_t bytes) {
  return (bytes + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
}

}  // namespace

GenericValue::GenericValue(ZebTypeBase const& type) : type_(&type), storage_(wordsFor(type.size)) {
  methodsOf(type).construct(data(), nullptr);
}

GenericValue::GenericValue(ZebTypeBase const& type, String const& strep) : GenericValue(type) {
  methodsOf(type).strepToValue(data(), strep, type_);
}

GenericValue::GenericValue(GenericValue const& o) : type_(o.type_), storage_(o.storage_.size()) {
  methodsOf(*type_).construct(data(), o.data());
}

GenericValue& GenericValue::operator=(GenericValue const& o) {
  if (this == &o) return *this;
  methodsOf(*o.type_).voidPtrIs(o.data(), o.type_, type_);
  methodsOf(*type_).destruct(data());
  methodsOf(*type_).construct(data(), o.data());
  return *this;
}

GenericValue::~GenericValue() {
  type_->impl.methods->destruct(data());
}

String GenericValue::strep() const {
  return methodsOf(*type_).strRep(data(), type_);
}

int attributeOp(ZebTypeBase const& type, void* result, void* object, AttributeId attribute,
                GenericIf::AttributeOp operation, void const* key, void const* argument) {
  if (!type.impl.attributeOp) {
    throw UnknownTypeException("type {} has no attribute operations", type.name);
  }
  return type.impl.attributeOp(result, object, attribute, operation, key, argument);
}

}  // namespace Zeb
