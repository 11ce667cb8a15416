// libFuzzer target: a reader attaching to damaged table files. A valid table
// is made once; each input patches one of its files and a reader attaches,
// looks up and walks. It must come back, with rows or a Lomi::Exception
// (CorruptionDetectedException for damage it finds); a crash, a sanitizer
// report or a walk that does not end is a finding.
//
// Input: byte 0 picks the file (slots, buckets, kestor, tessel, owner), bytes
// 1..4 the offset (little endian, taken modulo the file's size), the rest is
// written there, clipped at the file's end.
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "FlowTracking/ReaderTestUtil.h"
#include "Mem/RootPath.h"
#include "stress/Stress.h"

namespace {

namespace fs = std::filesystem;
constexpr char kTable[] = "fuzz/attach";
constexpr char const* kFiles[] = {"slots", "buckets", "kestor", "tessel", "owner"};

std::string& tableDir() {
  static std::string dir;
  return dir;
}
std::map<std::string, std::vector<char>>& golden() {
  static std::map<std::string, std::vector<char>> files;
  return files;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/flowtables-fuzz-XXXXXX";
  char const* base = ::mkdtemp(tmpl);
  if (!base) std::abort();
  Mem::RootPath::baseIs(base);
  {
    auto w = FlowTrackingTest::makeSharedWriter<Stress::Record>(kTable,
                                                                Stress::workloadDescriptor(4096));
    for (uint32_t i = 0; i < 300; i++) w->write(Stress::makeValue(i, i * 7 + 1), true);
    Stress::Value removed;
    for (uint32_t i = 100; i < 150; i++) w->remove(FlowTrackingTest::ipFlowKey(i), removed);
  }
  tableDir() = std::string(base) + "/" + kTable;
  for (char const* name : kFiles) {
    std::ifstream in(tableDir() + "/" + name, std::ios::binary);
    golden()[name] = std::vector<char>(std::istreambuf_iterator<char>(in), {});
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 5) return 0;
  for (auto const& [name, bytes] : golden()) {
    std::ofstream out(tableDir() + "/" + name, std::ios::binary | std::ios::trunc);
    std::vector<char> copy = bytes;
    if (name == kFiles[data[0] % std::size(kFiles)] && !copy.empty()) {
      uint32_t const at = (uint32_t(data[1]) | uint32_t(data[2]) << 8 | uint32_t(data[3]) << 16 |
                           uint32_t(data[4]) << 24) %
                          copy.size();
      for (size_t i = 5; i < size && at + (i - 5) < copy.size(); i++) copy[at + i - 5] = data[i];
    }
    out.write(copy.data(), static_cast<std::streamsize>(copy.size()));
  }
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
