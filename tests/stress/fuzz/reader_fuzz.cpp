// libFuzzer target: a reader attaching to damaged table files. A valid table
// is made once; each input patches one of its files and a reader attaches,
// looks up and walks. It must come back, with rows or a Lomi::Exception
// (CorruptionDetectedException for damage it finds); a crash, a sanitizer
// report or a walk that does not end is a finding.
//
// Input: byte 0 picks the file (slots, buckets, kestor, tessel, owner), bytes
// 1..4 the offset (little endian, taken modulo the file's size), the rest is
// written there, clipped at the file's end.
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "FlowTracking/ReaderTestUtil.h"
#include "stress/Stress.h"
#include "stress/fuzz/GoldenFiles.h"

namespace {

constexpr char kTable[] = "fuzz/attach";
constexpr char const* kFiles[] = {"slots", "buckets", "kestor", "tessel", "owner"};

FuzzTest::GoldenFiles& golden() {
  static FuzzTest::GoldenFiles files;
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string const base = FuzzTest::makeBase();
  {
    auto w = FlowTrackingTest::makeSharedWriter<Stress::Record>(kTable,
                                                                Stress::workloadDescriptor(4096));
    for (uint32_t i = 0; i < 300; i++) w->write(Stress::makeValue(i, i * 7 + 1), true);
    Stress::Value removed;
    for (uint32_t i = 100; i < 150; i++) w->remove(FlowTrackingTest::ipFlowKey(i), removed);
  }
  golden().keep(base + "/" + kTable, kFiles);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 5) return 0;
  golden().restore(kFiles[data[0] % std::size(kFiles)], false, data, size, [](auto&&, auto&&) {});
  auto reader = FlowTrackingTest::makeReader<Stress::Record>(kTable);
  try {
    if (!reader->initialize("fuzz")) return 0;
    for (uint32_t id = 0; id < 320; id++) {
      bool found = false;
      Stress::Value buffer;
      reader->lookup(FlowTrackingTest::ipFlowKey(id), found, &buffer);
    }
    Stress::Value v;
    Mirak::IterHint hint;
    uint32_t walked = 0;
    for (bool ok = reader->first(v, hint); ok; ok = reader->next(v.fwkKey(), v, hint)) {
      if (++walked > 100000) {
        std::fprintf(stderr, "the walk of a damaged table did not end\n");
        std::abort();
      }
    }
  } catch (Lomi::Exception const&) {
  }
  return 0;
}
