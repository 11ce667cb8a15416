// Mounting a collection: init's choice of back end and its failures, a
// reader that waits on its placeholder and attaches by itself through its
// sentry and the default event loop, re-attach after a re-mount, tryAttach,
// owner, and the writer sentry's validation on a reader's marker. Real files
// in a temp base. (A second live writer refused: tests/Parcel/WriterLock and
// tests/FlowTracking/WriterLifecycle; counter tables refused as shadows:
// tests/FlowTracking/Mounting_test.cpp, with the words.)
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/Collections.h"
#include "FlowTracking/TableRows.h"
#include "Lomi/EventLoop.h"
#include "Lomi/Thrown.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/ScriptedBackEnd.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Util.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"

namespace {

using Mirak::MapDescriptor;
using Mirak::MirakType;

constexpr double kWait = 20;  // seconds; a hang becomes a failure

Lomi::EventLoop& loop() {
  return Mem::RootPath::eventLoop();
}

MapDescriptor desc(MirakType type, uint32_t size = 1000) {
  MapDescriptor d(size);
  d.type = type;
  return d;
}

// A collection as the mounting code sees it, with its client callbacks
// recorded in order.
template <typename OpsT>
class MountMap : public Mirak::MirakMap<OpsT> {
 public:
  using Base = Mirak::MirakMap<OpsT>;
  using Back = Mirak::MirakInterface<OpsT>;

  explicit MountMap(std::string name = "mount/coll") {
    this->name_ = std::move(name);
    this->notify_.quiescedFn = [this](bool q) {
      events.push_back(q ? "quiesced(true)" : "quiesced(false)");
    };
    this->notify_.mountStatusFn = [this] {
      events.push_back("mountStatus " + std::to_string(this->mountStatus()));
    };
    this->notify_.keyFn = [this](typename OpsT::Key const&) { events.push_back("keyFn"); };
    this->backIs(this->createDefaultLocalWriter(this->debugHandler()));
  }

  std::vector<std::string> events;
  // When set, the writer of a mount comes from here.
  std::function<std::unique_ptr<Back>()> writerFactory;

 protected:
  std::unique_ptr<Back> newWriter(std::string const& classType,
                                  std::function<void(bool)> quiesced) override {
    if (writerFactory) return writerFactory();
    return Base::newWriter(classType, std::move(quiesced));
  }
};

using ConfigOps = FlowTracking::HoIpFlowConfigOps;
using ConfigMap = MountMap<ConfigOps>;

auto row(uint32_t i, uint32_t v = 0) {
  return FlowTrackingTest::row<FlowTracking::HoIpFlowConfig>(i, v);
}

template <typename Map>
bool finds(Map const& m, uint32_t i, uint32_t v) {
  bool found = false;
  auto const* value = m.safeLookup(ConfigOps::key(row(i)), found, nullptr);
  return found && *value == row(i, v);
}

std::string initError(std::function<void()> const& f) {
  return LomiTest::thrown<Lomi::InvalidInitializeException>(f);
}

bool fileExists(std::string const& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

class RecordingMounter : public Mirak::MirakMapBase::Mounter {
 public:
  explicit RecordingMounter(std::vector<std::string>& events) : events_(events) {}
  void event(std::string const& name, bool) override { events_.push_back("event " + name); }

 private:
  std::vector<std::string>& events_;
};

class Mounting : public ::testing::Test {
 protected:
  MirakTest::TempRoot root;
};

TEST_F(Mounting, AWriterMountIsReadyOnReturnAndHeardOnceInOrder) {
  ConfigMap w;
  w.init(desc(MirakType::writer));
  EXPECT_TRUE(w.initialized());
  EXPECT_NE(dynamic_cast<Mirak::MirakWriter<ConfigOps>*>(w.back()), nullptr);
  EXPECT_NE(dynamic_cast<Parcel::WriterSentry*>(w.mounter()), nullptr);
  EXPECT_EQ(w.events, (std::vector<std::string>{"quiesced(true)", "mountStatus 1"}));
  EXPECT_EQ(w.debugHandler().name(), "mount/coll");
  EXPECT_TRUE(fileExists(w.rootPath().filePath(Parcel::KestorFile::KESTOR_NAME)));
  w.safeWrite(row(1));
  EXPECT_TRUE(finds(w, 1, 0));

  w.detach(false);
  EXPECT_EQ(w.events, (std::vector<std::string>{"quiesced(true)", "mountStatus 1",
                                                "quiesced(false)", "mountStatus 0"}));
}

TEST_F(Mounting, AReaderWaitsOnItsPlaceholderAndTheSentryAttachesIt) {
  ConfigMap r;
  r.init(desc(MirakType::reader, 0));  // a reader may have size 0
  EXPECT_TRUE(r.initialized());
  EXPECT_EQ(r.mountStatus(), 0u);
  EXPECT_TRUE(r.events.empty());
  EXPECT_NE(dynamic_cast<Mirak::MirakDummy<ConfigOps>*>(r.back()), nullptr);
  EXPECT_NE(dynamic_cast<Parcel::ReaderSentry*>(r.mounter()), nullptr);
  EXPECT_THROW(r.safeWrite(row(1)), Lomi::NoPermissionException);

  auto w = std::make_unique<ConfigMap>();
  w->init(desc(MirakType::writer));
  for (uint32_t i = 0; i < 50; i++) w->safeWrite(row(i));
  ASSERT_TRUE(loop().runUntil([&] { return r.mountStatus() == 1; }, kWait));
  EXPECT_EQ(r.events, (std::vector<std::string>{"quiesced(true)", "mountStatus 1"}));
  EXPECT_NE(dynamic_cast<Mirak::MirakReader<ConfigOps>*>(r.back()), nullptr);
  EXPECT_EQ(r.kestorId(), w->kestorId());
  for (uint32_t i = 0; i < 50; i++) EXPECT_TRUE(finds(r, i, 0)) << i;

  // The writer ends the table and mounts it anew: the reader detaches and
  // attaches again by itself, to the new generation.
  Parcel::KestorId const first = w->kestorId();
  w->cleanupAndDetach();
  w = std::make_unique<ConfigMap>();
  w->init(desc(MirakType::writer));
  w->safeWrite(row(7, 3));
  ASSERT_TRUE(loop().runUntil([&] { return r.mountStatus() == 1 && r.kestorId() == w->kestorId(); },
                              kWait));
  EXPECT_NE(r.kestorId(), first);
  EXPECT_EQ(r.events,
            (std::vector<std::string>{"quiesced(true)", "mountStatus 1", "quiesced(false)",
                                      "mountStatus 0", "quiesced(true)", "mountStatus 1"}));
  EXPECT_TRUE(finds(r, 7, 3));
  EXPECT_FALSE(finds(r, 8, 0));

  // The writer goes without cleanup: the files stay, and so does the reader.
  w.reset();
  loop().runOnce(0.05);
  EXPECT_EQ(r.mountStatus(), 1u);
  EXPECT_TRUE(finds(r, 7, 3));
}

TEST_F(Mounting, ARepeatedInitWithTheSameDescriptorDoesNothingAndAnotherIsRefused) {
  ConfigMap w;
  MapDescriptor d = desc(MirakType::writer);
  w.init(d);
  auto* back = w.back();
  w.init(d);
  EXPECT_EQ(w.back(), back);
  EXPECT_EQ(w.events.size(), 2u);

  MapDescriptor other = d;
  other.size = 2000;
  EXPECT_EQ(initError([&] { w.init(other); }), "name:mount/coll already initialized, old " +
                                                   d.toString() + ", new " + other.toString());
  EXPECT_EQ(w.back(), back);

  // cleanupOnInit cleans first, also when the rest is a repeat.
  MapDescriptor cleaning = d;
  cleaning.cleanupOnInit = true;
  ConfigMap c("mount/cleaned");
  c.init(cleaning);
  std::string const kestor = c.rootPath().filePath(Parcel::KestorFile::KESTOR_NAME);
  EXPECT_TRUE(fileExists(kestor));
  c.init(cleaning);
  EXPECT_FALSE(fileExists(kestor));
}

TEST_F(Mounting, BadDescriptorsAreRefusedWithTheirMessages) {
  ConfigMap m;
  MapDescriptor heap = desc(MirakType::writer);
  heap.heap = true;
  EXPECT_EQ(initError([&] { m.init(heap); }),
            "cannot initialize collection mount/coll heap allocation in non-local mode not "
            "allowed");
  EXPECT_EQ(initError([&] { m.init(desc(MirakType::writer, 0)); }),
            "0 is not a valid initialization size for collection mount/coll in writer mode");
  EXPECT_FALSE(m.initialized());
  // The private table still answers: nothing was taken down.
  EXPECT_NE(dynamic_cast<Mirak::Tmp<ConfigOps>*>(m.back()), nullptr);
  struct OtherKind : Mem::CollectionDescriptor {};
  OtherKind other;
  EXPECT_THROW(m.init(static_cast<Mem::CollectionDescriptor const&>(other)), std::bad_cast);
}

// An initialize that fails, or that throws as a second live writer's refusal
// does, leaves the collection uninitialised on a placeholder; it mounts later.
TEST_F(Mounting, AWriterThatFailsToInitializeLeavesAnUninitializedPlaceholder) {
  for (bool throws : {false, true}) {
    MirakTest::BackEndLog log;
    ConfigMap m;
    auto* tmp = m.back();
    m.writerFactory = [&] {
      struct Failing : MirakTest::ScriptedBackEnd<ConfigOps> {
        using ScriptedBackEnd::ScriptedBackEnd;
        bool throws = false;
        bool initialize(std::string const&) override {
          if (throws) throw Lomi::InvalidInitializeException("owned by a live writer");
          return false;
        }
      };
      auto f = std::make_unique<Failing>(log, MirakType::writer, false);
      f->throws = throws;
      return f;
    };
    EXPECT_EQ(initError([&] { m.init(desc(MirakType::writer)); }),
              throws ? "owned by a live writer" : "failed to initialize collection mount/coll");
    EXPECT_FALSE(m.initialized());
    EXPECT_EQ(m.mounter(), nullptr);
    EXPECT_EQ(m.mountStatus(), 0u);
    EXPECT_TRUE(m.events.empty());
    EXPECT_EQ(log.destroyed, 1);
    auto* dummy = dynamic_cast<Mirak::MirakDummy<ConfigOps>*>(m.back());
    ASSERT_NE(dummy, nullptr);
    EXPECT_EQ(dummy->prevBack(), tmp);
    // The next init is free to try again.
    m.writerFactory = nullptr;
    m.init(desc(MirakType::writer));
    EXPECT_TRUE(m.initialized());
  }
}

TEST_F(Mounting, AWriterMadeByInitIsHandedTheSettingsOfTheFrontObject) {
  for (bool local : {true, false}) {
    SCOPED_TRACE(local ? "local" : "shared");
    MirakTest::BackEndLog log;
    ConfigMap m(local ? "mount/local" : "mount/shared");
    m.yieldTimeIs(0.25);
    m.notifyingIs(true);
    m.writerFactory = [&] {
      return std::make_unique<MirakTest::ScriptedBackEnd<ConfigOps>>(log, MirakType::writer, false,
                                                                     m.name());
    };
    MapDescriptor d = desc(MirakType::writer);
    d.local = local;
    m.init(d);
    ASSERT_TRUE(m.initialized());
    EXPECT_EQ(log.yieldTime, 0.25);
    EXPECT_TRUE(log.notifying);
  }
}

TEST_F(Mounting, AReaderSentryFailureIsIgnoredOnlyUnderQ7Chroot) {
  // A file where the table's directory should be: nothing can be watched.
  std::ofstream(root.path() + "/mount").put('x');
  ConfigMap m;
  ::unsetenv("Q7_CHROOT");
  std::string const msg = initError([&] { m.init(desc(MirakType::reader)); });
  EXPECT_EQ(msg, "cannot watch Mirak table " + root.path() + "/mount/coll: " + root.path() +
                     "/mount is in the way and is not a directory");
  EXPECT_FALSE(m.initialized());
  EXPECT_EQ(m.mounter(), nullptr);

  ::setenv("Q7_CHROOT", "1", 1);
  ConfigMap chrooted;
  EXPECT_NO_THROW(chrooted.init(desc(MirakType::reader)));
  ::unsetenv("Q7_CHROOT");
  EXPECT_TRUE(chrooted.initialized());
  EXPECT_EQ(chrooted.mountStatus(), 0u);
  EXPECT_TRUE(chrooted.events.empty());
}

TEST_F(Mounting, AnAsynchronousShadowHoldsItsCallbacksBackUntilItsFirstSweepEnds) {
  ConfigMap w;
  w.init(desc(MirakType::writer));
  w.safeWrite(row(1, 1));
  ConfigMap s;
  s.notifyingIs(true);
  s.init(desc(MirakType::keyshadow));
  // The files are there: the sentry attached a shadow at once, and its first
  // sweep runs on the loop.
  EXPECT_EQ(s.events, (std::vector<std::string>{"mountStatus 1"}));
  EXPECT_FALSE(s.notify().notifyLive);
  s.notify().deferredKeyFn(ConfigOps::key(row(1)));
  EXPECT_EQ(s.events, (std::vector<std::string>{"mountStatus 1", "keyFn"}));
  s.events.clear();
  // The sweep finds row 1 and tells no one; its end puts the callbacks live
  // and says so.
  ASSERT_TRUE(loop().runUntil([&] { return s.mountStatus() == 2u; }, kWait));
  EXPECT_TRUE(s.notify().notifyLive);
  EXPECT_NE(dynamic_cast<Mirak::MirakShadow<ConfigOps>*>(s.back()), nullptr);
  EXPECT_TRUE(finds(s, 1, 1));
  auto count = [&](std::string const& e) {
    return std::count(s.events.begin(), s.events.end(), e);
  };
  EXPECT_EQ(count("keyFn"), 0);
  EXPECT_EQ(count("mountStatus 2"), 1) << "the end of the first sweep";
  // From now on each change is heard.
  w.safeWrite(row(1, 2));
  ASSERT_TRUE(loop().runUntil([&] { return count("keyFn") == 1; }, kWait));
  EXPECT_TRUE(finds(s, 1, 2));

  // A second init after controlDetach holds the live callbacks back again.
  s.controlDetach();
  s.events.clear();
  s.init(desc(MirakType::keyshadow));
  s.notify().deferredKeyFn(ConfigOps::key(row(1)));
  EXPECT_EQ(s.events, (std::vector<std::string>{"mountStatus 1", "keyFn"}));

  // A local shadow is a private writer: no sentry, no move, no callbacks.
  ConfigMap local("mount/local");
  MapDescriptor d = desc(MirakType::shadow);
  d.local = true;
  local.init(d);
  EXPECT_TRUE(local.notify().notifyLive);
  EXPECT_EQ(local.mounter(), nullptr);
  EXPECT_NE(dynamic_cast<Mirak::MirakWriter<ConfigOps>*>(local.back()), nullptr);
  EXPECT_TRUE(local.events.empty());
}

TEST_F(Mounting, TryAttachAsksTheSentryOnlyWhenItCanMatter) {
  ConfigMap w;
  w.init(desc(MirakType::writer));
  w.mounterIs(std::make_unique<RecordingMounter>(w.events));
  w.events.clear();
  w.tryAttach();
  EXPECT_TRUE(w.events.empty());

  // A reader whose files are complete attaches within init, and its sentry
  // is not asked again.
  ConfigMap r;
  r.init(desc(MirakType::reader));
  ASSERT_EQ(r.mountStatus(), 1u);
  EXPECT_EQ(r.events, (std::vector<std::string>{"quiesced(true)", "mountStatus 1"}));
  r.mounterIs(std::make_unique<RecordingMounter>(r.events));
  r.events.clear();
  r.tryAttach();
  EXPECT_TRUE(r.events.empty());

  // A reader whose sentry heard nothing (switched off) attaches on request.
  ConfigMap late("mount/late");
  late.init(desc(MirakType::reader));
  late.mounter()->enabled = 0;
  ConfigMap lw("mount/late");
  lw.init(desc(MirakType::writer));
  loop().runOnce(0.05);
  EXPECT_EQ(late.mountStatus(), 0u);
  late.mounter()->enabled = 1;
  late.tryAttach();
  EXPECT_EQ(late.mountStatus(), 1u);
  EXPECT_EQ(late.events, (std::vector<std::string>{"quiesced(true)", "mountStatus 1"}));
}

TEST_F(Mounting, OwnerNamesTheLiveWriter) {
  ConfigMap w;
  w.init(desc(MirakType::writer));
  std::ifstream commFile("/proc/self/comm");
  std::string comm;
  std::getline(commFile, comm);
  EXPECT_EQ(w.owner(), comm + ":" + std::to_string(::getpid()));
  ConfigMap r;
  r.init(desc(MirakType::reader));
  EXPECT_EQ(r.owner(), w.owner());
  w.controlDetach();
  EXPECT_EQ(r.owner(), ":0");
}

TEST_F(Mounting, AReadersMarkerMakesTheWriterValidate) {
  ConfigMap w;
  w.init(desc(MirakType::writer));
  w.safeWrite(row(2));
  auto* sentry = dynamic_cast<Parcel::WriterSentry*>(w.mounter());
  ASSERT_NE(sentry, nullptr);
  ASSERT_TRUE(Mirak::Util::writeCorruptionFile(w.rootPath(), "a reader saw a bad chain"));
  ASSERT_TRUE(loop().runUntil([&] { return sentry->validations() == 1; }, kWait));
  EXPECT_EQ(sentry->failedValidations(), 0u);
  EXPECT_FALSE(fileExists(w.rootPath().filePath(Mirak::Util::CORRUPTION_FILENAME)));
  EXPECT_TRUE(finds(w, 2, 0));
}

// --- assertions ------------------------------------------------------------

using MountingDeathTest = Mounting;

TEST_F(MountingDeathTest, BrokenPromisesStopTheProcessWithTheirMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        ConfigMap m;
        m.assertOnOrphanAccessIs(true);
        m.init(desc(MirakType::writer));
      },
      "Re-initializing a collection that has already become an orphan and has "
      "assertOnOrphanAccess set");
  EXPECT_DEATH(
      {
        ConfigMap m;
        std::vector<std::string> events;
        m.mounterIs(std::make_unique<RecordingMounter>(events));
        m.init(desc(MirakType::writer));
      },
      "Mirak mounter should not exist");
  EXPECT_DEATH(
      {
        ConfigMap m;
        MapDescriptor d = desc(MirakType::writer);
        d.prevValue = true;
        m.init(d);
      },
      "prevValue mount-time option enabled without prevValueSupport ZEBO attribute enabled");
  EXPECT_DEATH(
      {
        ConfigMap m;
        m.init(desc(MirakType::shadow));
      },
      "notifications unexpectedly disabled prior to initialization with asynchronous mode: "
      "collection mount/coll is mounted as shadow .*call notifyingIs\\(true\\) on it before init");
  EXPECT_DEATH(
      {
        ConfigMap m;
        m.init(desc(static_cast<MirakType>(7)));
      },
      "not a valid reader type:MirakType\\(7\\)");
  EXPECT_DEATH(
      {
        ConfigMap m;
        m.init(desc(MirakType::writer));
        m.attach("tryAttach");
      },
      "invoked for a writer");
  EXPECT_DEATH(
      {
        ConfigMap m;
        m.init(desc(MirakType::writer));
        std::ofstream(m.rootPath().filePath(Parcel::OwnerFile::FILENAME)) << "not an owner record";
        m.owner();
      },
      "corruption detected: ");
}

}  // namespace
