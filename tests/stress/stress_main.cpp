// The reliability harness: `stress <mode> [options]`, one mode per run.
//   torn     readers against a writer that grows, compacts and shrinks
//   crash    a writer killed with SIGKILL at random moments, restarted
//            (--salvage off: the restarts re-format instead of salvaging)
//   corrupt  table files with random bytes flipped, then a reader and a writer
//   corpus   the seed corpora of the fuzz targets, into --dir
//   hints    readers that hold walk hints and version anchors across
//            compaction, regrowth, bucket resizes and re-formats (--restarts)
//   hostile  table directories with rewired links, cut files, FIFOs and
//            planted links, then a reader and the operator's tool (--cases)
//   shadow   shadows and a reader against a writer killed and restarted,
//            shadows stopped past the queue's patience and killed (--trials,
//            --seconds, --readers shadows)
// Exit code 0 when every check of the mode held, 1 when one failed, 2 on bad
// usage.
#include <cstdio>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "stress/Modes.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: stress torn|crash|corrupt|corpus|hints|hostile|shadow [--seconds S] [--trials N] "
               "[--cases N]\n"
               "              [--readers N] [--ids N] [--high N] [--low N] [--restarts N] "
               "[--seed N]\n"
               "              [--dir D] [--salvage on|off] [--verbose]\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage();
    return 2;
  }
  std::string const mode = argv[1];
  Stress::Options options;
  try {
    options = Stress::parseOptions(argc, argv, 2);
  } catch (Lomi::Exception const& e) {
    std::fprintf(stderr, "stress: %s\n", e.msg().c_str());
    usage();
    return 2;
  }
  if (mode == "torn") return Stress::runTorn(options);
  if (mode == "crash") return Stress::runCrash(options);
  if (mode == "corrupt") return Stress::runCorrupt(options);
  if (mode == "corpus") return Stress::runCorpus(options);
  if (mode == "hints") return Stress::runHints(options);
  if (mode == "hostile") return Stress::runHostile(options);
  if (mode == "shadow") return Stress::runShadow(options);
  std::fprintf(stderr, "stress: unknown mode '%s'\n", mode.c_str());
  usage();
  return 2;
}
