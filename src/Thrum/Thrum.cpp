// The name -> cell registry of the process's statistics.
#include "Thrum/Thrum.h"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "Lomi/Exception.h"

namespace Thrum {

struct Writer::Impl {
  mutable std::mutex mutex;
  // deque: elements never move when it grows, so handed-out pointers stay
  // valid for the writer's life.
  std::deque<uint64_t> storage;
  std::map<std::string, uint64_t*, std::less<>> byName;

  uint64_t* find(std::string_view name) const {
    auto it = byName.find(name);
    return it == byName.end() ? nullptr : it->second;
  }
};

Writer::Writer() : impl_(std::make_unique<Impl>()) {}

Writer::~Writer() = default;

uint64_t* Writer::cell(char const* name) {
  if (name == nullptr) throw Lomi::RuntimeException("Thrum cell name is null");
  return cell(std::string_view(name));
}

uint64_t* Writer::cell(std::string_view name) {
  if (name.empty()) throw Lomi::RuntimeException("Thrum cell name is empty");
  std::lock_guard lock(impl_->mutex);
  if (uint64_t* c = impl_->find(name)) return c;
  uint64_t* c = &impl_->storage.emplace_back(0);
  impl_->byName.emplace(std::string(name), c);
  return c;
}

void Writer::cellInc(std::string_view name, uint64_t n) {
  uint64_t* c = cell(name);
  std::atomic_ref<uint64_t>(*c).store(cellLoad(c) + n, std::memory_order_relaxed);
}

uint64_t Writer::cellValue(std::string_view name) const {
  std::lock_guard lock(impl_->mutex);
  uint64_t* c = impl_->find(name);
  return c ? cellLoad(c) : 0;
}

bool Writer::hasCell(std::string_view name) const {
  std::lock_guard lock(impl_->mutex);
  return impl_->find(name) != nullptr;
}

size_t Writer::cells() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->byName.size();
}

std::vector<std::pair<std::string, uint64_t>> Writer::snapshot() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<std::pair<std::string, uint64_t>> out;
  out.reserve(impl_->byName.size());
  for (auto const& [name, c] : impl_->byName) out.emplace_back(name, cellLoad(c));
  return out;
}

Writer& writer() {
  static Writer* w = new Writer;  // never destroyed: see Thrum.h
  return *w;
}

uint64_t cellLoad(uint64_t const* cell) {
  // atomic_ref needs a non-const object; the load writes nothing.
  return std::atomic_ref<uint64_t>(*const_cast<uint64_t*>(cell)).load(std::memory_order_relaxed);
}

}  // namespace Thrum
