// The front object: its private table, the placeholder swap, detach and its
// callbacks, the settings and statistics it keeps across back ends, and the
// corruption boundary of its safe operations.
#include "Mirak/MirakMap.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/Collections.h"
#include "Mirak/ScriptedBackEnd.h"
#include "Mirak/TempRoot.h"

namespace {

using Ops = FlowTracking::HosStateCounterOps;
using Value = Ops::Value;
using Key = Ops::Key;
using Back = Mirak::MirakInterface<Ops>;
using Scripted = MirakTest::ScriptedBackEnd<Ops>;
using Mirak::MirakType;

Value entry(uint8_t state, unsigned flows) {
  FlowTracking::HosStateCounterEntry e{Key(FlowTracking::HoFlowState(state))};
  e.hoFlowsIs(flows);
  return e;
}

// Reaches what only the adapter and the mounting code set.
class TestMap : public Mirak::MirakMap<Ops> {
 public:
  explicit TestMap(std::string name = "test/coll") {
    name_ = std::move(name);
    notify_.quiescedFn = [this](bool q) {
      events.push_back(q ? "quiesced(true)" : "quiesced(false)");
    };
    notify_.mountStatusFn = [this] {
      events.push_back("mountStatus " + std::to_string(mountStatus()));
    };
  }
  void initializedIs(bool v) { initialized_ = v; }
  void privateTableIs() { backIs(createDefaultLocalWriter(debugHandler())); }
  std::vector<std::string> events;
};

class RecordingMounter : public Mirak::MirakMapBase::Mounter {
 public:
  explicit RecordingMounter(std::vector<std::string>& events) : events_(events) {}
  void event(std::string const& name, bool) override { events_.push_back("event " + name); }
  void onDetach() override { events_.push_back("onDetach"); }

 private:
  std::vector<std::string>& events_;
};

TEST(MirakMap, PrivateTableAnswersEverythingAndIsNotMounted) {
  TestMap m;
  m.privateTableIs();
  ASSERT_NE(dynamic_cast<Mirak::Tmp<Ops>*>(m.back()), nullptr);
  EXPECT_EQ(m.mountStatus(), Mem::mountStatusNotMounted);
  EXPECT_EQ(m.maxSize(), 100u);
  EXPECT_TRUE(m.rootPath().isLocal());
  m.safeWrite(entry(2, 40));
  bool found = false;
  Value const* v = m.safeLookup(Key(FlowTracking::HoFlowState(2)), found, nullptr);
  ASSERT_TRUE(found);
  EXPECT_EQ(v->hoFlows(), 40u);
  Value removed;
  EXPECT_TRUE(m.safeRemove(Key(FlowTracking::HoFlowState(2)), removed));
  EXPECT_EQ(removed.hoFlows(), 40u);
  EXPECT_FALSE(m.safeRemove(Key(FlowTracking::HoFlowState(2)), removed));
  m.safeLookup(Key(FlowTracking::HoFlowState(2)), found, nullptr);
  EXPECT_FALSE(found);
}

TEST(MirakMap, CountersSurviveAChangeOfBackEnd) {
  TestMap m;
  m.privateTableIs();
  for (uint8_t i = 1; i <= 3; i++) m.safeWrite(entry(i, i));
  m.privateTableIs();  // a new private table: counters of the old are kept
  for (uint8_t i = 1; i <= 2; i++) m.safeWrite(entry(i, i));
  bool found;
  m.safeLookup(Key(FlowTracking::HoFlowState(1)), found, nullptr);
  Mirak::Writer::Counters c = m.writerCounters();
  EXPECT_EQ(c.inserts, 5u);
  EXPECT_EQ(c.lookups, 1u);
  uint64_t const longest = c.longestBucketGrowTime + 7;

  // Live values come from the back end standing now, counts add up,
  // "longest" is the maximum.
  MirakTest::BackEndLog log;
  auto s = std::make_unique<Scripted>(log, MirakType::writer, false);
  s->writer.inserts = 10;
  s->writer.slotMappedSize = 4096;
  s->writer.longestBucketGrowTime = longest;
  s->reader.retries = 3;
  s->reader.bucketMappedSize = 8192;
  m.backIs(std::move(s));
  c = m.writerCounters();
  EXPECT_EQ(c.inserts, 15u);
  EXPECT_EQ(c.slotMappedSize, 4096u);
  EXPECT_EQ(c.longestBucketGrowTime, longest);
  auto s2 = std::make_unique<Scripted>(log, MirakType::reader, false);
  s2->reader.retries = 2;
  s2->reader.bucketMappedSize = 100;
  m.backIs(std::move(s2));
  Mirak::Reader::Counters r = m.readerCounters();
  EXPECT_EQ(r.retries, 5u);
  EXPECT_EQ(r.bucketMappedSize, 100u);
  EXPECT_EQ(m.writerCounters().longestBucketGrowTime, longest);
  EXPECT_EQ(m.writerCounters().slotMappedSize, 0u);
  EXPECT_EQ(log.destroyed, 1);
}

TEST(MirakMap, DetachPutsAPlaceholderInFrontOfTheRetiredBackEnd) {
  MirakTest::BackEndLog log;
  {
    TestMap m;
    m.backIs(std::make_unique<Scripted>(log, MirakType::writer, false));
    m.mounterIs(std::make_unique<RecordingMounter>(m.events));
    m.detach(false);
    auto* dummy = dynamic_cast<Mirak::MirakDummy<Ops>*>(m.back());
    ASSERT_NE(dummy, nullptr);
    EXPECT_EQ(dynamic_cast<Mirak::MirakStrictDummy<Ops>*>(m.back()), nullptr);
    EXPECT_NE(dummy->prevBack(), nullptr);
    EXPECT_EQ(m.events, (std::vector<std::string>{"quiesced(false)", "mountStatus 0", "onDetach"}));
    m.cleanup();
    EXPECT_EQ(log.calls, (std::vector<std::string>{"detach(false)", "cleanup"}));
    EXPECT_EQ(log.destroyed, 0);
    // Reads on the placeholder: nothing found, writes refused.
    bool found = true;
    m.safeLookup(Key(FlowTracking::HoFlowState(1)), found, nullptr);
    EXPECT_FALSE(found);
    EXPECT_THROW(m.safeWrite(entry(1, 1)), Lomi::NoPermissionException);
  }
  EXPECT_EQ(log.destroyed, 1);
}

TEST(MirakMap, ControlDetachEndsTheMount) {
  MirakTest::BackEndLog log;
  TestMap m;
  m.backIs(std::make_unique<Scripted>(log, MirakType::reader, false));
  m.mounterIs(std::make_unique<RecordingMounter>(m.events));
  m.initializedIs(true);
  m.cleanupAndDetach();
  EXPECT_EQ(log.calls, (std::vector<std::string>{"cleanup", "detach(true)"}));
  EXPECT_EQ(m.mounter(), nullptr);
  EXPECT_FALSE(m.initialized());
  EXPECT_EQ(m.events, (std::vector<std::string>{"quiesced(false)", "mountStatus 0", "onDetach"}));
}

TEST(MirakMap, AFlushingShadowStaysWithItsSentryDisabled) {
  MirakTest::BackEndLog log;
  TestMap m;
  auto s = std::make_unique<Scripted>(log, MirakType::shadow, false);
  s->status = Mem::mountStatusFlushing;
  Back* shadow = s.get();
  m.backIs(std::move(s));
  m.mounterIs(std::make_unique<RecordingMounter>(m.events));
  m.detach(false);
  EXPECT_EQ(m.back(), shadow);
  EXPECT_EQ(m.mounter()->enabled, 0);
  EXPECT_EQ(m.events, (std::vector<std::string>{"quiesced(false)", "mountStatus 3", "onDetach"}));

  // Without a sentry nothing would finish the flush: the placeholder comes.
  m.mounterIs(nullptr);
  m.detach(false);
  EXPECT_NE(dynamic_cast<Mirak::MirakDummy<Ops>*>(m.back()), nullptr);
}

TEST(MirakMap, NotifyingAndYieldTimeAreKeptAndHandedOn) {
  MirakTest::BackEndLog log;
  TestMap m;
  m.backIs(std::make_unique<Scripted>(log, MirakType::reader, false));
  m.yieldTimeIs(0.25);
  EXPECT_EQ(m.yieldTime(), 0.25);
  EXPECT_EQ(log.yieldTime, 0.25);
  m.notifyingIs(true);
  EXPECT_TRUE(m.notifying());
  EXPECT_TRUE(log.notifying);
  EXPECT_TRUE(m.events.empty());  // no sentry, no event
  m.mounterIs(std::make_unique<RecordingMounter>(m.events));
  m.notifyingIs(false);
  EXPECT_FALSE(log.notifying);
  EXPECT_TRUE(m.events.empty());
  m.notifyingIs(true);
  EXPECT_EQ(m.events, (std::vector<std::string>{"event notificationsEnabled"}));
}

TEST(MirakMapDeathTest, NotifyingCannotChangeWhileCallbacksAreHeldBack) {
  TestMap m;
  m.privateTableIs();
  m.initializedIs(true);
  m.notify().deferChanges();
  EXPECT_DEATH(m.notifyingIs(true),
               "not allowed at this time, initialized:true keyNotifications:false");
}

TEST(MirakMap, CompareVersionAnchorComparesBothWords) {
  MirakTest::BackEndLog log;
  TestMap m;
  auto s = std::make_unique<Scripted>(log, MirakType::reader, false);
  s->anchor = Mem::CacheVersionAnchor{6, 128};
  m.backIs(std::move(s));
  EXPECT_TRUE(m.compareVersionAnchor(Mem::CacheVersionAnchor{6, 128}));
  EXPECT_FALSE(m.compareVersionAnchor(Mem::CacheVersionAnchor{8, 128}));
  EXPECT_FALSE(m.compareVersionAnchor(Mem::CacheVersionAnchor{6, 64}));

  // A failed lookup on a private table resets its anchor.
  m.privateTableIs();
  bool found;
  m.safeLookup(Key(FlowTracking::HoFlowState(9)), found, nullptr);
  EXPECT_TRUE(m.compareVersionAnchor(Mem::CacheVersionAnchor{}));
}

TEST(MirakMap, CorruptionInALookupIsReportedAndMarked) {
  MirakTest::TempRoot root;
  MirakTest::BackEndLog log;
  TestMap m("scripted/table");
  m.backIs(std::make_unique<Scripted>(log, MirakType::reader, true));
  std::string const dir = root.path() + "/scripted/table";
  ASSERT_EQ(::system(("mkdir -p " + dir).c_str()), 0);
  bool found = true;
  Value const* v = m.safeLookup(Key(FlowTracking::HoFlowState(1)), found, nullptr);
  EXPECT_FALSE(found);
  EXPECT_EQ(v, &Mirak::Allocator<Value>::type_default());
  EXPECT_EQ(m.corruptionsDetected(), 1u);
  EXPECT_NE(m.lastCorruption().find("bad chain in"), std::string::npos);
  std::ifstream marker(dir + "/corruption-detected");
  ASSERT_TRUE(marker.good());
  std::string text((std::istreambuf_iterator<char>(marker)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find(m.lastCorruption()), std::string::npos);
}

// Corruption met by a write on a reader can't happen; in the writer's own
// table it is fatal.
TEST(MirakMapDeathTest, CorruptionInAWriteOnAReaderOrInTheWritersOwnTableStopsTheProcess) {
  MirakTest::BackEndLog log;
  TestMap m;
  m.backIs(std::make_unique<Scripted>(log, MirakType::reader, true));
  EXPECT_DEATH(m.safeWrite(entry(1, 1)), "MirakMap::safeWrite ASSERT: in no man's land");
  Value removed;
  EXPECT_DEATH(m.safeRemove(Key(FlowTracking::HoFlowState(1)), removed),
               "MirakMap::safeRemove ASSERT: in no man's land");
  EXPECT_DEATH(m.directCommit(), "MirakMap::directCommit ASSERT: in no man's land");
  m.backIs(std::make_unique<Scripted>(log, MirakType::writer, true));
  bool found;
  EXPECT_DEATH(m.safeLookup(Key(FlowTracking::HoFlowState(1)), found, nullptr),
               "doCorruptionDetected ASSERT: test/coll corruption detected in this process's "
               "own table: bad chain in");
}

TEST(MirakMapDeathTest, StrictPlaceholderStopsAccessButLetsTeardownThrough) {
  MirakTest::BackEndLog log;
  TestMap m;
  m.backIs(std::make_unique<Scripted>(log, MirakType::writer, false));
  m.assertOnOrphanAccessIs(true);
  m.installDummy();
  ASSERT_NE(dynamic_cast<Mirak::MirakStrictDummy<Ops>*>(m.back()), nullptr);
  m.cleanup();
  EXPECT_EQ(log.calls, (std::vector<std::string>{"cleanup"}));
  EXPECT_EQ(m.mountStatus(), Mem::mountStatusNotMounted);
  m.quiesced();
  bool found;
  EXPECT_DEATH(m.safeLookup(Key(FlowTracking::HoFlowState(1)), found, nullptr),
               "you're trying to operate on an orphan mirak entity");
}

TEST(MirakMapDeathTest, CleanupOfAnUninitializedCollectionAsserts) {
  TestMap m;
  m.privateTableIs();
  EXPECT_DEATH(m.cleanupAndDetach(), "trying to cleanup uninitialized mirak.");
}

TEST(MirakMap, InstallDummyRefusesANameThatCannotBeADirectoryAndKeepsTheBackEnd) {
  MirakTest::BackEndLog log;
  TestMap m("../escape");
  m.backIs(std::make_unique<Scripted>(log, MirakType::writer, false));
  Back* before = m.back();
  EXPECT_THROW(m.installDummy(), Lomi::InvalidInitializeException);
  EXPECT_EQ(m.back(), before);
  EXPECT_EQ(log.destroyed, 0);
}

}  // namespace
