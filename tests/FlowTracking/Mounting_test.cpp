// Mounting through the entities, as agents do it, with two real processes:
// a reader agent started before its writer waits on its placeholders and
// attaches by itself from its event loop; it follows the writer's re-mount
// and keeps reading after the writer's death; 300 collections on each side
// in one process each; an entity mounted as a shadow with nothing but the
// descriptor's defaults. Also the refusal of counter tables as shadows, with
// the exact words.
#include <time.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/Factories.h"
#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "Lomi/EventLoop.h"
#include "Lomi/Thrown.h"
#include "Mem/WatchHub.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/TempRoot.h"
#include "Parcel/KestorFile.h"
#include "Thrum/Thrum.h"

namespace {

using namespace FlowTracking;
using FlowTrackingTest::forkChild;
using FlowTrackingTest::reap;
using FlowTrackingTest::RecordPipe;
using Mirak::MapDescriptor;
using Mirak::MirakType;

constexpr double kWait = 30;  // seconds of event loop before a step fails
constexpr uint32_t kRows = 200;
constexpr uint32_t kFirstRemounted = 5000;

enum Code : int32_t {
  waiting = 1,
  written,
  attached,
  rows,
  verified,
  remount,
  reattached,
  writerDead,
  stillReading,
};

struct Msg {
  int32_t code = 0;
  int32_t value = 0;
  double seconds = 0;
};

MapDescriptor descriptor(MirakType type, uint32_t size) {
  MapDescriptor d(size);
  d.type = type;
  return d;
}

double wallNow() {
  timespec ts;
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// The agent's entity, under a parent, as both processes build it: the same
// names give the same table directories.
struct Agent {
  Zeb::Ptr<HoFlowConfig> root = hoFlowConfigFactory("agent");
  Zeb::Ptr<HoFlowConfig> e = hoFlowConfigFactory("ftr");
  Agent() { e->parentIs(root.get()); }
  ~Agent() { e->parentIs(nullptr); }

  void init(MirakType type, uint32_t size) {
    e->hoIp6FlowConfigControl()->init(descriptor(type, size));
    e->hoIpFlowConfigControl()->init(descriptor(type, size));
  }
  ZebMirak::CollectionControl& c4() const { return *e->hoIpFlowConfigControlRaw(); }
  ZebMirak::CollectionControl& c6() const { return *e->hoIp6FlowConfigControlRaw(); }
  bool mounted() const { return c4().mountStatus() == 1 && c6().mountStatus() == 1; }
  // Seconds from the kestor file's write to now.
  double sinceKestor() const {
    return wallNow() - Parcel::KestorFile(e->hoIpFlowConfig().debugHandler(),
                                          e->hoIpFlowConfig().rootPath(), false)
                           .mtime();
  }

  // Rows first..first+n of version v, in both collections, by lookup and by
  // walk; nothing else in the tables.
  bool holds(uint32_t first, uint32_t n, uint32_t v) const {
    return holdsIn<HoIpFlowConfig>(e->hoIpFlowConfig(), first, n, v) &&
           holdsIn<HoIp6FlowConfig>(e->hoIp6FlowConfig(), first, n, v);
  }
  template <typename Record, typename Map>
  static bool holdsIn(Map& m, uint32_t first, uint32_t n, uint32_t v) {
    for (uint32_t i = first; i < first + n; i++) {
      bool found = false;
      auto const want = FlowTrackingTest::row<Record>(i, v);
      auto const* got = m.safeLookup(want.key(), found, nullptr);
      if (!found || !(*got == want)) return false;
    }
    uint32_t walked = 0;
    for (typename Map::IteratorConst it(&m); it.valid(); it.advance(), ++walked) {
      // The row number a key was made from: its ports carry it (TableRows.h).
      auto const& k = it.row().key().ipFlowKey();
      uint32_t const i = uint32_t(k.srcPort()) | (uint32_t(k.dstPort()) << 16);
      if (i < first || i >= first + n || !(it.row() == FlowTrackingTest::row<Record>(i, v))) {
        return false;
      }
    }
    return walked == n;
  }

  void write(uint32_t first, uint32_t n, uint32_t v) {
    for (uint32_t i = first; i < first + n; i++) {
      e->hoIpFlowConfigIs(FlowTrackingTest::row<HoIpFlowConfig>(i, v));
      e->hoIp6FlowConfigIs(FlowTrackingTest::row<HoIp6FlowConfig>(i, v));
    }
  }
};

// Waits for one message on `in`, running the process's event loop meanwhile
// (the pipe is one more descriptor of the loop).
bool await(RecordPipe const& in, Msg& msg) {
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  bool got = false, ok = false;
  loop.fdWatcherIs(in.readFd(), EPOLLIN, [&](uint32_t) {
    ok = in.receive(msg);
    got = true;
  });
  bool const done = loop.runUntil([&] { return got; }, kWait);
  loop.fdWatcherDel(in.readFd());
  return done && ok;
}

int readerAgent(RecordPipe& out, RecordPipe& in) {
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  Agent a;
  a.init(MirakType::reader, 0);
  auto& m4 = a.e->hoIpFlowConfig();
  if (!m4.initialized() || m4.mountStatus() != 0 || a.c4().mountStatusReports() != 0 ||
      a.c4().quiescedReports() != 0 || a.c6().mountStatusReports() != 0) {
    return 10;
  }
  if (!out.send(Msg{waiting})) return 11;

  // No writer yet: the sentries watch the base directory. Nothing but the
  // loop brings the mount.
  if (!loop.runUntil([&] { return a.mounted(); }, kWait)) return 12;
  double const firstDelay = a.sinceKestor();
  // Told once each, quiesced before the mount status.
  if (!a.c4().quiesced() || a.c4().quiescedReports() != 1 || a.c4().mountStatusReports() != 1 ||
      !a.c6().quiesced() || a.c6().quiescedReports() != 1 || a.c6().mountStatusReports() != 1) {
    return 13;
  }
  if (!out.send(Msg{attached, 0, firstDelay})) return 14;

  Msg cmd;
  if (!await(in, cmd) || cmd.code != rows) return 15;
  if (!a.holds(0, kRows, 1)) return 16;
  auto& m6 = a.e->hoIp6FlowConfig();
  Parcel::KestorId const firstKestor4 = m4.kestorId();
  Parcel::KestorId const firstKestor6 = m6.kestorId();
  if (!out.send(Msg{verified})) return 17;

  // The writer cleans up and mounts anew: detach, then attach, by itself.
  if (!loop.runUntil(
          [&] {
            return a.mounted() && m4.kestorId() != firstKestor4 && m6.kestorId() != firstKestor6;
          },
          kWait)) {
    return 18;
  }
  double const secondDelay = a.sinceKestor();
  // true, false, true; and a mount status after each.
  if (a.c4().quiescedReports() != 3 || a.c4().mountStatusReports() != 3 ||
      a.c6().quiescedReports() != 3) {
    return 19;
  }
  if (!out.send(Msg{reattached, 0, secondDelay})) return 20;
  if (!await(in, cmd) || cmd.code != rows) return 21;
  if (!a.holds(kFirstRemounted, kRows / 2, 2)) return 22;
  if (!out.send(Msg{verified})) return 23;

  // The writer is killed: the files stay and so does this reader.
  if (!await(in, cmd) || cmd.code != writerDead) return 24;
  loop.runOnce(0);
  if (!a.mounted() || !a.holds(kFirstRemounted, kRows / 2, 2)) return 25;
  if (a.c4().quiescedReports() != 3) return 26;
  if (!out.send(Msg{stillReading})) return 27;
  // The agent's destructor takes the entity out of the tree, which detaches
  // both collections, as an agent's shutdown does.
  return 0;
}

int writerAgent(RecordPipe& out, RecordPipe& in) {
  Agent a;
  a.init(MirakType::writer, 1000);
  if (a.c4().mountStatus() != 1 || a.c4().quiescedReports() != 1) return 30;
  a.write(0, kRows, 1);
  if (!out.send(Msg{written})) return 31;
  Msg cmd;
  if (!in.receive(cmd) || cmd.code != remount) return 32;
  a.e->hoIp6FlowConfigControl()->collection()->cleanupAndDetach();
  a.e->hoIpFlowConfigControl()->collection()->cleanupAndDetach();
  a.init(MirakType::writer, 1000);
  a.write(kFirstRemounted, kRows / 2, 2);
  if (!out.send(Msg{written})) return 33;
  // Waits to be killed.
  in.receive(cmd);
  return 34;
}

// The next message on `from`, which must carry `code`.
Msg expectMsg(RecordPipe const& from, Code code) {
  Msg m;
  EXPECT_TRUE(from.receive(m) && m.code == code) << "wanted " << code << ", got " << m.code;
  return m;
}

TEST(Mounting, AReaderAgentAttachesByItselfFollowsARemountAndOutlivesItsWriter) {
  MirakTest::TempRoot root;
  RecordPipe fromB, toB, fromA, toA;
  pid_t const b = forkChild([&] { return readerAgent(fromB, toB); });
  ASSERT_GT(b, 0);
  expectMsg(fromB, waiting);
  pid_t const a = forkChild([&] { return writerAgent(fromA, toA); });
  ASSERT_GT(a, 0);
  expectMsg(fromA, written);
  double const firstDelay = expectMsg(fromB, attached).seconds;
  ASSERT_TRUE(toB.send(Msg{rows}));
  expectMsg(fromB, verified);

  ASSERT_TRUE(toA.send(Msg{remount}));
  expectMsg(fromA, written);
  double const secondDelay = expectMsg(fromB, reattached).seconds;
  ASSERT_TRUE(toB.send(Msg{rows}));
  expectMsg(fromB, verified);

  ::kill(a, SIGKILL);
  int const statusA = reap(a);
  EXPECT_TRUE(WIFSIGNALED(statusA) && WTERMSIG(statusA) == SIGKILL);
  ASSERT_TRUE(toB.send(Msg{writerDead}));
  expectMsg(fromB, stillReading);
  int const statusB = reap(b);
  EXPECT_TRUE(FlowTrackingTest::exitedWith(statusB, 0)) << "reader agent status " << statusB;
  std::printf("kestor write to reader attach: first mount %.3f ms, after re-mount %.3f ms\n",
              firstDelay * 1e3, secondDelay * 1e3);
}

// Many tables in one agent on each side: their watches share the process's
// one inotify instance, since the kernel allows only a few (128 by default)
// per user across all of that user's processes.
constexpr int kManyEntities = 150;  // two collections each

struct ManyTables {
  Zeb::Ptr<HoFlowConfig> root = hoFlowConfigFactory("many");
  std::vector<Zeb::Ptr<HoFlowConfig>> tables;

  explicit ManyTables(MirakType type) {
    for (int i = 0; i < kManyEntities; ++i) {
      tables.push_back(hoFlowConfigFactory("t" + std::to_string(i)));
      tables.back()->parentIs(root.get());
      tables.back()->hoIpFlowConfigControl()->init(descriptor(type, 64));
      tables.back()->hoIp6FlowConfigControl()->init(descriptor(type, 64));
    }
  }
  ~ManyTables() {
    for (auto& t : tables) t->parentIs(nullptr);
  }
  int mounted() const {
    int n = 0;
    for (auto const& t : tables) {
      n += t->hoIpFlowConfig().mountStatus() == 1;
      n += t->hoIp6FlowConfig().mountStatus() == 1;
    }
    return n;
  }
};

uint64_t inotifyInstances() { return Thrum::writer().cellValue("Mem.inotify.instances"); }

int openDescriptors() {
  std::error_code ec;
  int n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++n;
  }
  return n;
}

TEST(Mounting, ThreeHundredCollectionsOnEachSideShareOneInotifyInstancePerProcess) {
  MirakTest::TempRoot root;
  RecordPipe fromReader;
  // The reader agent comes first: all its sentries wait on the base directory.
  pid_t const reader = forkChild([&] {
    uint64_t const before = inotifyInstances();
    int const fds = openDescriptors();
    ManyTables readers(MirakType::reader);
    if (!fromReader.send(Msg{waiting, int32_t(inotifyInstances() - before)})) return 40;
    Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
    if (!loop.runUntil([&] { return readers.mounted() == 2 * kManyEntities; }, kWait)) return 41;
    double const perCollection = double(openDescriptors() - fds) / (2 * kManyEntities);
    if (!fromReader.send(Msg{attached, int32_t(inotifyInstances() - before), perCollection})) {
      return 42;
    }
    return 0;
  });
  ASSERT_GT(reader, 0);
  EXPECT_EQ(expectMsg(fromReader, waiting).value, 1);

  uint64_t const before = inotifyInstances();
  int const fds = openDescriptors();
  ManyTables writers(MirakType::writer);
  EXPECT_EQ(writers.mounted(), 2 * kManyEntities);
  EXPECT_EQ(inotifyInstances() - before, 1u);
  double const writerFds = double(openDescriptors() - fds) / (2 * kManyEntities);
  Msg const m = expectMsg(fromReader, attached);
  EXPECT_EQ(m.value, 1);
  EXPECT_TRUE(FlowTrackingTest::exitedWith(reap(reader), 0));
  std::printf("descriptors held per collection: writer %.2f, reader %.2f\n", writerFds, m.seconds);
}

// The kernel refuses the table's watch (its per-user limit): the writer's
// start fails with the limit in the message, before any file a reader could
// attach to is published, and a later start succeeds.
TEST(Mounting, AWriterThatCannotWatchItsTableFailsBeforeItPublishesItsKestor) {
  MirakTest::TempRoot root;
  Agent a;
  struct Refusal {
    Refusal() { Mem::Impl::WatchHub::refuseWatchesForTest(ENOSPC); }
    ~Refusal() { Mem::Impl::WatchHub::refuseWatchesForTest(0); }
  };
  {
    Refusal refusal;
    try {
      a.c4().init(descriptor(MirakType::writer, 100));
      ADD_FAILURE() << "the writer started without its watch";
    } catch (Lomi::InvalidInitializeException const& e) {
      EXPECT_NE(e.msg().find("cannot watch Mirak table " + a.e->hoIpFlowConfig().rootPath().path()),
                std::string::npos)
          << e.msg();
      EXPECT_NE(e.msg().find("fs.inotify.max_user_watches = "), std::string::npos) << e.msg();
    }
  }
  auto& m4 = a.e->hoIpFlowConfig();
  EXPECT_EQ(m4.mountStatus(), 0u);
  EXPECT_TRUE(Parcel::KestorFile(m4.debugHandler(), m4.rootPath(), false).read().isZero());
  a.c4().init(descriptor(MirakType::writer, 100));
  EXPECT_EQ(m4.mountStatus(), 1u);
  EXPECT_FALSE(Parcel::KestorFile(m4.debugHandler(), m4.rootPath(), false).read().isZero());
}

// Tables without a change queue can be read, never shadowed.
template <typename Control>
void expectRefusedAsShadow(Control& control, std::string const& name, bool synchronous) {
  for (MirakType type : {MirakType::shadow, MirakType::keyshadow}) {
    MapDescriptor d = descriptor(type, 0);
    d.synchronous = synchronous;
    EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { control.init(d); }),
              "cannot initialize collection " + name + " with DummyTesselWriter not " +
                  "supported in " + Mirak::formatMirakType(type) + " mode");
  }
}

TEST(Mounting, CounterAndHosStateCollectionsAreRefusedAsShadowsAndMountAsReaders) {
  MirakTest::TempRoot root;
  auto counters = hoFlowCounterFactory("ctr");
  auto states = hosStateCounterFactory("hos");
  expectRefusedAsShadow(*counters->hoIpFlowCounterControl(), "ctr/hoIpFlowCounter", true);
  expectRefusedAsShadow(*counters->hoIp6FlowCounterControl(), "ctr/hoIp6FlowCounter", true);
  expectRefusedAsShadow(*states->hosStateIpCounterControl(), "hos/hosStateIpCounter", true);
  // Asynchronous, with notifications on as such a mount requires.
  states->hosStateIp6Counter().notifyingIs(true);
  expectRefusedAsShadow(*states->hosStateIp6CounterControl(), "hos/hosStateIp6Counter", false);
  EXPECT_FALSE(counters->hoIpFlowCounter().initialized());

  counters->hoIpFlowCounterControl()->init(descriptor(MirakType::reader, 0));
  EXPECT_TRUE(counters->hoIpFlowCounter().initialized());
  EXPECT_EQ(counters->hoIpFlowCounter().mountStatus(), 0u);
  counters->hoIpFlowCounter().controlDetach();
  // The refused asynchronous mount left the change callbacks where they were:
  // notifications may still be switched once the collection is mounted.
  states->hosStateIp6CounterControl()->init(descriptor(MirakType::reader, 0));
  states->hosStateIp6Counter().notifyingIs(false);
  EXPECT_FALSE(states->hosStateIp6Counter().notifying());
  states->hosStateIp6Counter().controlDetach();
}

// An agent that mounts its entity as a shadow with the default descriptor
// (asynchronous) and no other call: the entity wants notifications from its
// construction, so the mount goes through, and after the first sweep each
// change from the writer reaches the entity.
TEST(Mounting, AnEntityMountsAsAnAsynchronousShadowWithTheDefaultDescriptor) {
  MirakTest::TempRoot root;
  Agent writer;
  writer.init(MirakType::writer, 100);
  writer.e->hoIpFlowConfigIs(FlowTrackingTest::row<HoIpFlowConfig>(1, 1));
  Agent shadow;
  shadow.c4().init(descriptor(MirakType::shadow, 0));
  auto& m4 = shadow.e->hoIpFlowConfig();
  auto finds = [&](uint32_t i, uint32_t v) {
    auto const r = FlowTrackingTest::row<HoIpFlowConfig>(i, v);
    bool found = false;
    auto const* got = m4.safeLookup(HoIpFlowConfigOps::key(r), found, nullptr);
    return found && *got == r;
  };
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  ASSERT_TRUE(loop.runUntil([&] { return m4.mountStatus() == 2u; }, kWait));
  EXPECT_TRUE(finds(1, 1));

  uint64_t const* notified = Thrum::writer().cell("hoIpFlowConfigNotify");
  writer.e->hoIpFlowConfigIs(FlowTrackingTest::row<HoIpFlowConfig>(2, 2));
  uint64_t const afterWrite = *notified;  // the writer's own entity counted its write
  ASSERT_TRUE(loop.runUntil([&] { return *notified == afterWrite + 1; }, kWait))
      << "the shadow's entity was not told of the new row";
  EXPECT_TRUE(finds(2, 2));
}

// A notifiee of a shadow's entity that drops the entity's last reference when
// it hears the first row: the shadow's walk goes on after that callback, so
// the entity (which owns the shadow) must outlive the walk; it goes on the
// loop's next pass. The writer's later rows reach nobody and hurt nothing.
class Dropper : public Zeb::PtrInterface::NotifieeConst {
 public:
  explicit Dropper(Zeb::Ptr<HoFlowConfig>* owner) : owner_(owner) {}
  void onAttribute(Zeb::AttributeId id, void const*) override {
    if (id == HoFlowConfig::hoIpFlowConfigId && *owner_) owner_->reset();
  }

 private:
  Zeb::Ptr<HoFlowConfig>* owner_;
};

TEST(Mounting, AShadowNotifieeMayDropItsEntityInsideTheWalk) {
  MirakTest::TempRoot root;
  Agent writer;
  writer.init(MirakType::writer, 100);
  Zeb::Ptr<HoFlowConfig> parent = hoFlowConfigFactory("agent");
  Zeb::Ptr<HoFlowConfig> e = hoFlowConfigFactory("ftr");
  e->parentIs(parent.get());
  Zeb::Ptr<Dropper> dropper(new Dropper(&e));
  dropper->hasNotificationActiveIs(true);
  e->notifieeList().list->newMember(e.get(), dropper.get());
  e->hoIpFlowConfigControl()->init(descriptor(MirakType::shadow, 0));
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  ASSERT_TRUE(loop.runUntil([&] { return e->hoIpFlowConfig().mountStatus() == 2u; }, kWait));
  // One burst: the shadow takes all of it in one walk, calling back per row.
  for (uint32_t i = 0; i < 50; i++) {
    writer.e->hoIpFlowConfigIs(FlowTrackingTest::row<HoIpFlowConfig>(i, 1));
  }
  ASSERT_TRUE(loop.runUntil([&] { return !e; }, kWait)) << "the notifiee was never told";
  for (uint32_t i = 50; i < 60; i++) {
    writer.e->hoIpFlowConfigIs(FlowTrackingTest::row<HoIpFlowConfig>(i, 1));
  }
  loop.runUntil([] { return false; }, 0.05);
  EXPECT_EQ(dropper->references(), 1u) << "the entity's list let go of its notifiee";
}

}  // namespace
