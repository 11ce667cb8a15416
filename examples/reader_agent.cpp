// The reader agent of the getting-started guide: mounts the same two tables
// as a reader (before or after the writer starts), runs its event loop, and
// checks the tables against what the writer leaves (Flows.h), by lookup and
// by walk, until they agree.
//
//   reader-agent ROOT FLOWS [SECONDS]
//
// Exit 0 when the tables hold exactly the writer's rows; 1 when they still
// differ after SECONDS (default 60), with the first difference on stderr.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <FlowTracking/Factories.h>
#include <Lomi/EventLoop.h>
#include <Lomi/Exception.h>
#include <Mem/RootPath.h>
#include <Mirak/MapDescriptor.h>

#include "Flows.h"

using namespace Example;

// The first difference between the tables and what the writer leaves, or "".
std::string difference(Entities const& e, uint32_t flows) {
  // [reader-check]
  auto const& configs = e.config->hoIpFlowConfig();
  for (uint32_t i = 0; i < flows; i++) {
    bool found = false;
    // A lock-free read: the row is copied out and proven whole.
    auto const* c = configs.safeLookup(flowKey(i), found, nullptr);
    if (found != kept(i))
      return "config row of flow " + std::to_string(i) + " present: " + std::to_string(found);
    if (found && !(*c == TableValue<HoIpFlowConfig>(configRow(i)))) {
      return "config row of flow " + std::to_string(i) + " differs";
    }
  }
  // The statuses the same way, and by a walk (Flows.h).
  return statusDifference(*e.status, flows);
  // [reader-check]
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: reader-agent ROOT FLOWS [SECONDS]\n");
    return 2;
  }
  uint32_t const flows = uint32_t(std::strtoul(argv[2], nullptr, 10));
  double const seconds = argc == 4 ? std::strtod(argv[3], nullptr) : 60;
  try {
    // [reader-mount]
    Mem::RootPath::baseIs(argv[1]);
    Entities e;
    Mirak::MapDescriptor d(0);  // a reader takes its size from the writer's files
    d.type = Mirak::MirakType::reader;
    e.mount(d);  // returns at once; the sentries attach when the writer's files are ready
    // [reader-mount]

    // [reader-loop]
    Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
    // A reader is not told of the writer's changes: it reads when it wants
    // to. Here a timer on the loop asks for a look every 50 ms; the loop
    // meanwhile runs the sentries that attach the mount.
    bool look = true;
    std::function<void()> tick = [&] {
      look = true;
      loop.timerIs(0.05, tick);
    };
    loop.timerIs(0.05, tick);
    std::string diff = "not mounted";
    bool const agreed = loop.runUntil(
        [&] {
          if (!e.mounted() || !look) return false;
          look = false;
          diff = difference(e, flows);
          return diff.empty();
        },
        seconds);
    // [reader-loop]
    if (!agreed) {
      std::fprintf(stderr, "reader: after %.0f s the tables differ: %s\n", seconds, diff.c_str());
      return 1;
    }
    std::printf("reader %d: tables agree with the writer\n", int(::getpid()));
    return 0;
  } catch (Lomi::Exception const& e) {
    std::fprintf(stderr, "reader: %s\n", e.msg().c_str());
    return 1;
  }
}
