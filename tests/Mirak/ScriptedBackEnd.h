// A back end for tests of the front object and the entities: a table of one
// type (reader or writer) whose answers the test sets, which records what it
// was asked, and which can be told to throw Lomi::CorruptionDetectedException
// from every data operation, as a damaged table does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/MirakInterface.h"

namespace MirakTest {

struct BackEndLog {
  std::vector<std::string> calls;
  int destroyed = 0;
  bool notifying = false;
  double yieldTime = -1;
};

template <typename OpsT>
class ScriptedBackEnd : public Mirak::MirakInterface<OpsT> {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;

  ScriptedBackEnd(BackEndLog& log, Mirak::MirakType type, bool corrupt,
                  std::string name = "scripted/table")
      : log_(log),
        type_(type),
        corrupt_(corrupt),
        root_(Lomi::Platform::getDebugHandler("ScriptedBackEnd"), std::move(name), false) {}
  ~ScriptedBackEnd() override { log_.destroyed++; }

  Mem::MountStatus status = Mem::mountStatusMounted;
  Mem::CacheVersionAnchor anchor;
  Mirak::Writer::Counters writer;
  Mirak::Reader::Counters reader;

  bool initialize(std::string const&) override { return note("initialize", true); }
  void detach(bool force) override { note(force ? "detach(true)" : "detach(false)", 0); }
  void cleanup() override { note("cleanup", 0); }
  uint32_t members() const override { return 0; }
  uint32_t buckets() const override { return 0; }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override { return 0; }
  uint32_t capacity() const override { return 0; }
  Mirak::MirakType type() const override { return type_; }
  Mirak::Writer::Counters writerCounters() const override { return writer; }
  Mirak::Reader::Counters readerCounters() const override { return reader; }
  void notifyingIs(bool n) override { log_.notifying = n; }
  void yieldTimeIs(double const& s) override { log_.yieldTime = s; }
  Mem::NaoRootPath rootPath() const override { return root_; }
  std::string mirakName() const override { return root_.dirName(); }
  Mem::MountStatus mountStatus() const override { return status; }
  bool validateVersionAnchor() const override { return true; }
  Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return anchor; }

  Value const* write(Value const& v, bool) override {
    damage("write");
    stored_ = v;
    return &stored_;
  }
  bool remove(Key const&, Value&) override {
    damage("remove");
    return false;
  }
  void directCommit() override { damage("directCommit"); }
  Value const* lookup(Key const&, bool& found, void*) const override {
    found = false;
    damage("lookup");
    return &Ops::defaultValue();
  }
  bool first(Value&, Mirak::IterHint&) const override {
    damage("first");
    return false;
  }
  bool next(Key const&, Value&, Mirak::IterHint&) const override {
    damage("next");
    return false;
  }

 private:
  template <typename T>
  T note(char const* what, T result) const {
    log_.calls.push_back(what);
    return result;
  }
  void damage(char const* what) const {
    log_.calls.push_back(what);
    if (corrupt_) throw Lomi::CorruptionDetectedException("bad chain in {} during {}", root_, what);
  }

  BackEndLog& log_;
  Mirak::MirakType type_;
  bool corrupt_;
  Mem::NaoRootPath root_;
  Value stored_{};
};

}  // namespace MirakTest
