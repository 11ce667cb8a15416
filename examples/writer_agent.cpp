// The writer agent of the getting-started guide: mounts the offload config
// and status tables as their one writer, configures `flows` flows (a
// notifiee gives each its status row), offloads them, removes every tenth,
// then serves until SIGTERM or SIGINT and detaches.
//
//   writer-agent ROOT FLOWS [--expect-rows N]
//
// --expect-rows: a restart check; the tables must hold N flows when the
// mount adopts them (they survive a writer restart). Exit 0, or 1 with the
// reason on stderr.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <FlowTracking/Factories.h>
#include <Lomi/EventLoop.h>
#include <Lomi/Exception.h>
#include <Mem/RootPath.h>
#include <Mirak/MapDescriptor.h>
#include <Zeb/Entity.h>

#include "Flows.h"

using namespace Example;

// [notifiee]
// Reacts to the agent's own config changes: a flow configured gets a status
// row (pending), a flow whose config is removed loses it. Notifiees run
// synchronously inside the change, on this thread, and may write back.
class ConfigWatcher : public Zeb::PtrInterface::NotifieeConst {
 public:
  explicit ConfigWatcher(Entities& e) : e_(e) {}
  void onAttribute(Zeb::AttributeId id, void const* key) override {
    if (id != HoFlowConfig::hoIpFlowConfigId || key == nullptr) return;
    auto const k = *static_cast<HoIpFlowKey const*>(key);  // valid during the call only
    bool configured = false, known = false;
    e_.config->hoIpFlowConfig().safeLookup(k, configured, nullptr);
    e_.status->hoIpFlowStatus().safeLookup(k, known, nullptr);
    if (configured && !known) {
      HoIpFlowStatus s(k);
      s.hoFlowStateIs(hoFlowStatePending);
      e_.status->hoIpFlowStatusIs(s);
    } else if (!configured && known) {
      e_.status->hoIpFlowStatusDel(k);
    }
  }

 private:
  Entities& e_;
};
// [notifiee]

int run(std::string const& root, uint32_t flows, long expectRows) {
  // [writer-mount]
  // Every table lives under one base directory (default /dev/shm/mirak).
  Mem::RootPath::baseIs(root);
  Entities e;
  Mirak::MapDescriptor d(flows);  // the size the table doubles up to; see the guide
  d.type = Mirak::MirakType::writer;
  d.shrinkSlots = true;  // give slots back when most rows are removed
  e.mount(d);            // the files exist and are valid when this returns
  auto& configs = e.config->hoIpFlowConfig();
  auto& statuses = e.status->hoIpFlowStatus();
  // Notifiees start inactive: one that is not activated hears nothing.
  Zeb::Ptr<ConfigWatcher> watcher(new ConfigWatcher(e));
  watcher->hasNotificationActiveIs(true);
  e.config->notifieeList().list->newMember(e.config.get(), watcher.get());
  // [writer-mount]
  std::printf("writer %d: mounted %s (%u rows adopted)\n", int(::getpid()),
              configs.rootPath().str().c_str(), configs.members());
  if (expectRows >= 0 &&
      (configs.members() != uint32_t(expectRows) || statuses.members() != uint32_t(expectRows))) {
    std::fprintf(stderr, "writer: restart found %u config and %u status rows, expected %ld\n",
                 configs.members(), statuses.members(), expectRows);
    return 1;
  }

  // [writer-write]
  for (uint32_t i = 0; i < flows; i++) {
    e.config->hoIpFlowConfigIs(configRow(i));  // written, then ConfigWatcher adds the status
  }
  for (uint32_t i = 0; i < flows; i++) {
    e.status->hoIpFlowStatusIs(statusRow(i, hoFlowStateOffloaded));  // overwrites
  }
  for (uint32_t i = 0; i < flows; i++) {
    if (!kept(i)) e.config->hoIpFlowConfigDel(flowKey(i));  // ConfigWatcher removes the status
  }
  // [writer-write]
  std::printf("writer: %u flows written, %u kept\n", flows, configs.members());

  // [writer-loop]
  // The library starts no thread: the sentries, the wake-ups of sleeping
  // readers and the sweeps run on this loop. A signal ends it through a
  // descriptor of the loop, so the shutdown runs here, not in a handler.
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  int const sfd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  loop.fdWatcherIs(sfd, EPOLLIN, [&](uint32_t) { loop.stop(); });
  std::printf("writer: serving until SIGTERM\n");
  std::fflush(stdout);
  loop.run();
  loop.fdWatcherDel(sfd);
  ::close(sfd);
  e.config->notifieeList().list->deleteMember(watcher.get());
  // ~Entities detaches; the files stay for the readers and the next writer.
  // [writer-loop]
  std::printf("writer: stopped, detaching\n");
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3 && !(argc == 5 && std::strcmp(argv[3], "--expect-rows") == 0)) {
    std::fprintf(stderr, "usage: writer-agent ROOT FLOWS [--expect-rows N]\n");
    return 2;
  }
  uint32_t const flows = uint32_t(std::strtoul(argv[2], nullptr, 10));
  long const expect = argc == 5 ? std::strtol(argv[4], nullptr, 10) : -1;
  try {
    return run(argv[1], flows, expect);
  } catch (Lomi::Exception const& e) {
    // Library failures carry the table and the reason.
    std::fprintf(stderr, "writer: %s\n", e.msg().c_str());
    return 1;
  }
}
