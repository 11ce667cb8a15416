// Mounting through the entities, as agents do it: 300 collections on each
// side in a process each, sharing one inotify instance per process; a writer
// whose watch the kernel refuses; the refusal of counter tables as shadows,
// with the exact words; a shadow's notifiee that drops its entity. (A reader
// that waits on its placeholder, follows a re-mount and outlives its writer:
// tests/Mirak/Mounting_test.cpp; readers and shadows in processes whose
// writer is killed: the harness's crash and shadow modes.)
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
enum Code : int32_t { waiting = 1, attached };

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

// The agent's entity, under a parent: the same names give the same table
// directories.
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
};

// The next message on `from`, which must carry `code`.
Msg expectMsg(RecordPipe const& from, Code code) {
  Msg m;
  EXPECT_TRUE(from.receive(m) && m.code == code) << "wanted " << code << ", got " << m.code;
  return m;
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
