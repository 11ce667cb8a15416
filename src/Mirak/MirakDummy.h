// Mirak::MirakDummy<Ops> and Mirak::MirakStrictDummy<Ops>: the placeholder
// back ends of a collection.
//
// The front object always has a back end to call. While a reader waits for
// a writer's files, after a detach, and once an entity is an orphan, a
// placeholder stands in:
//
//   MirakDummy        answers as an empty, read-only reader table: lookups
//                     find nothing and hand back the default value, walks
//                     are empty, sizes are 0, type() is reader, writes and
//                     removes throw Lomi::NoPermissionException.
//   MirakStrictDummy  makes any access to the table's content a programming
//                     error: it stops the process with a message that names
//                     the collection, its root path and (for a key or an
//                     event) what was asked, then `orphanSuffix_`. What the
//                     teardown itself needs (detach, validate, validateFiles,
//                     cleanup, mountStatus, rootPath, mirakName) and the
//                     defaults of MirakInterfaceBase stay allowed.
//
// Ownership: a placeholder that replaced a back end owns it as `prevBack_`
// and deletes it in its destructor. Until then `cleanup` still reaches it, so
// a collection detached from its writer can still remove the writer's files.
//
// Every operation that traces does so at level 5, class "MirakDummy", with
// the root path (and the event for `initialize`), and nothing else.
//
// Thread safety: used on the owner's thread, like every back end.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Lomi/Trace.h"
#include "Mirak/MirakInterface.h"

namespace Mirak {

template <TablePolicy OpsT>
class MirakDummy : public MirakInterface<OpsT> {
 public:
  using Base = MirakInterface<OpsT>;
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;

  // `name` is the collection's name; its root path is the shared one, also
  // for a local collection, because a placeholder has no files either way.
  // Throws Lomi::InvalidInitializeException for a name that cannot be a
  // table's directory (see Mem::NaoRootPath).
  MirakDummy(Ops const& ops, Lomi::Platform::DebugHandler& handler, std::string name,
             std::unique_ptr<Base> prevBack = nullptr)
      : ops_(ops),
        debugHandler_(&handler),
        name_(std::move(name)),
        rootPath_(handler, name_, false),
        prevBack_(std::move(prevBack)) {}

  ~MirakDummy() override = default;

  bool initialize(std::string const& event) override {
    FMTRACE(*debugHandler_, 5, "MirakDummy", "{} event:{}", rootPath_, event);
    return true;
  }
  void detach(bool) override { trace(__func__); }
  bool validate() override {
    trace(__func__);
    return true;
  }
  bool validateFiles() override {
    trace(__func__);
    return true;
  }
  // Reaches the retired back end: after a detach, this is how its files go.
  void cleanup() override {
    trace(__func__);
    if (prevBack_) prevBack_->cleanup();
  }

  uint32_t members() const override { return traced(__func__, 0u); }
  uint32_t buckets() const override { return traced(__func__, 0u); }
  uint32_t minSize() const override { return traced(__func__, 0u); }
  uint32_t maxSize() const override { return traced(__func__, 0u); }
  uint32_t capacity() const override { return traced(__func__, 0u); }
  // Reader, in every kind of collection: `attach` of a shadow tells the
  // placeholder from a shadow by this.
  MirakType type() const override { return traced(__func__, MirakType::reader); }

  Reader::Counters readerCounters() const override { return traced(__func__, Reader::Counters()); }

  Mem::NaoRootPath rootPath() const override { return rootPath_; }
  std::string mirakName() const override { return rootPath_.dirName(); }
  Mem::MountStatus mountStatus() const override {
    return traced(__func__, Mem::mountStatusNotMounted);
  }

  // An anchor exists only after a successful read, and no read succeeds here.
  bool validateVersionAnchor() const override {
    Lomi::fmassert(*debugHandler_, "MirakDummy", __func__,
                   "should never be called since it's impossible for a lookup to succeed");
  }

  // `buffer` is left alone; the result is the address of the default value.
  Value const* lookup(Key const&, bool& found, void*) const override {
    trace(__func__);
    found = false;
    return &Ops::defaultValue();
  }
  bool first(Value& value, IterHint&) const override {
    trace(__func__);
    value = Ops::defaultValue();
    return false;
  }
  bool next(Key const&, Value& value, IterHint& hint) const override {
    trace(__func__);
    return this->first(value, hint);
  }

  Ops const& ops() const { return ops_; }
  std::string const& name() const { return name_; }
  Lomi::Platform::DebugHandler& debugHandler() const { return *debugHandler_; }
  // The back end this placeholder replaced; null if it was made by init or
  // attach.
  Base* prevBack() const { return prevBack_.get(); }

 protected:
  // The level-5 trace of the root path, under the name of the operation.
  void trace(char const* func) const {
    if (debugHandler_->enabled(5)) {
      Lomi::Platform::emit(*debugHandler_, 5, "MirakDummy", func, rootPath_.str());
    }
  }
  template <typename T>
  T traced(char const* func, T result) const {
    trace(func);
    return result;
  }

  Mem::NaoRootPath const& rootPathRef() const { return rootPath_; }

 private:
  Ops ops_;
  Lomi::Platform::DebugHandler* debugHandler_;
  std::string name_;
  Mem::NaoRootPath rootPath_;
  std::unique_ptr<Base> prevBack_;
};

template <TablePolicy OpsT>
class MirakStrictDummy : public MirakDummy<OpsT> {
 public:
  using Dummy = MirakDummy<OpsT>;
  using Base = MirakInterface<OpsT>;
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;

  // The text the front object's orphan placeholder adds to every message.
  static constexpr char const* kOrphanSuffix =
      ". If you're seeing this, you're trying to operate on an orphan mirak entity";

  MirakStrictDummy(Ops const& ops, Lomi::Platform::DebugHandler& handler, std::string name,
                   std::unique_ptr<Base> prevBack = nullptr, std::string orphanSuffix = "")
      : Dummy(ops, handler, std::move(name), std::move(prevBack)),
        orphanSuffix_(std::move(orphanSuffix)) {}

 private:
  // Stop the process; typed by the caller's result so that each caller can
  // `return` it.
  template <typename R>
  [[noreturn]] R invoked(char const* func) const {
    Lomi::fmassert(this->debugHandler(), "MirakStrictDummy", func, "invoked, name:{} rootpath:{}{}",
                   this->name(), this->rootPathRef(), orphanSuffix_);
  }
  template <typename R>
  [[noreturn]] R invokedWithKey(char const* func, Key const& key) const {
    Lomi::fmassert(this->debugHandler(), "MirakStrictDummy", func,
                   "invoked, name:{} rootpath:{} key:{}{}", this->name(), this->rootPathRef(),
                   Ops::keyText(key), orphanSuffix_);
  }

 public:
  bool initialize(std::string const& event) override {
    Lomi::fmassert(this->debugHandler(), "MirakStrictDummy", __func__, "{} rootPath:{} event:{}{}",
                   this->name(), this->rootPathRef(), event, orphanSuffix_);
  }

  uint32_t members() const override { return invoked<uint32_t>(__func__); }
  uint32_t buckets() const override { return invoked<uint32_t>(__func__); }
  uint32_t minSize() const override { return invoked<uint32_t>(__func__); }
  uint32_t maxSize() const override { return invoked<uint32_t>(__func__); }
  uint32_t capacity() const override { return invoked<uint32_t>(__func__); }
  MirakType type() const override { return invoked<MirakType>(__func__); }
  Reader::Counters readerCounters() const override { return invoked<Reader::Counters>(__func__); }
  Mem::MountStatus mountStatus() const override { return Mem::mountStatusNotMounted; }
  bool validateVersionAnchor() const override { return invoked<bool>(__func__); }

  Value const* lookup(Key const& key, bool&, void*) const override {
    return invokedWithKey<Value const*>(__func__, key);
  }
  bool first(Value&, IterHint&) const override { return invoked<bool>(__func__); }
  bool next(Key const& key, Value&, IterHint&) const override {
    return invokedWithKey<bool>(__func__, key);
  }

  std::string const& orphanSuffix() const { return orphanSuffix_; }

 private:
  std::string orphanSuffix_;
};

}  // namespace Mirak
