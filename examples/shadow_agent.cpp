// The shadow agent of the getting-started guide: mounts the status table as
// a shadow, a private copy that the writer's change queue keeps current, and
// is told of every change through a notifiee. It needs no timer: it looks at
// its copy when it hears something, until the copy holds what the writer
// leaves (Flows.h).
//
//   shadow-agent ROOT FLOWS [SECONDS]
//
// Exit 0 when the copy holds exactly the writer's statuses; 1 when it still
// differs after SECONDS (default 60), with the first difference on stderr.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <FlowTracking/Factories.h>
#include <Lomi/EventLoop.h>
#include <Lomi/Exception.h>
#include <Mem/RootPath.h>
#include <Mirak/MapDescriptor.h>

#include "Flows.h"

using namespace Example;

// [shadow-notifiee]
// Told of each status row that changed or went, by key, after the shadow's
// first sweep; runs on the loop's thread, inside the change's processing.
class StatusWatcher : public Zeb::PtrInterface::NotifieeConst {
 public:
  void onAttribute(Zeb::AttributeId id, void const* key) override {
    if (id != HoFlowStatus::hoIpFlowStatusId || key == nullptr) return;
    ++changes;
    news = true;
  }
  uint64_t changes = 0;
  bool news = true;
};
// [shadow-notifiee]

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: shadow-agent ROOT FLOWS [SECONDS]\n");
    return 2;
  }
  uint32_t const flows = uint32_t(std::strtoul(argv[2], nullptr, 10));
  double const seconds = argc == 4 ? std::strtod(argv[3], nullptr) : 60;
  try {
    // [shadow-mount]
    Mem::RootPath::baseIs(argv[1]);
    Entities e;
    Zeb::Ptr<StatusWatcher> watcher(new StatusWatcher);
    watcher->hasNotificationActiveIs(true);
    e.status->notifieeList().list->newMember(e.status.get(), watcher.get());
    Mirak::MapDescriptor d(0);  // the copy takes its size from the writer's files
    d.type = Mirak::MirakType::shadow;
    e.status->hoIpFlowStatusControl()->init(d);  // the sentry mounts it when the files are ready
    // [shadow-mount]

    // [shadow-loop]
    Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
    auto const& statuses = e.status->hoIpFlowStatus();
    std::string diff = "not synchronised";
    bool const agreed = loop.runUntil(
        [&] {
          // 2: swept once and following the queue.
          if (statuses.mountStatus() != Mem::mountStatusSynchronized || !watcher->news) {
            return false;
          }
          watcher->news = false;
          diff = statusDifference(*e.status, flows);  // reads the copy
          return diff.empty();
        },
        seconds);
    // [shadow-loop]
    if (!agreed) {
      std::fprintf(stderr, "shadow: after %.0f s the copy differs: %s\n", seconds, diff.c_str());
      return 1;
    }
    std::printf("shadow %d: its copy agrees with the writer after %llu changes heard\n",
                int(::getpid()), static_cast<unsigned long long>(watcher->changes));
    return 0;
  } catch (Lomi::Exception const& e) {
    std::fprintf(stderr, "shadow: %s\n", e.msg().c_str());
    return 1;
  }
}
