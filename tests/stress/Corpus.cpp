// Mode "corpus": writes the seed corpora of the fuzz targets from valid
// values: for each flow type, the text forms of random values (fixed seed)
// under <dir>/fuzz_strep_<Type>/, and for the attach target patches that
// write a file's own bytes back (the table stays valid) under
// <dir>/fuzz_reader_attach/.
#include <filesystem>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "FlowTracking/RandomValues.h"
#include "Mirak/TempRoot.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

namespace fs = std::filesystem;
constexpr uint32_t kSeedsPerType = 16;

void writeFile(std::string const& path, std::string const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw Lomi::RuntimeException("cannot write corpus file {}", path);
}

template <typename T>
uint32_t strepSeeds(std::string const& dir, char const* name, FlowTrackingTest::Rng& rng) {
  std::string const sub = fmt::format("{}/fuzz_strep_{}", dir, name);
  fs::create_directories(sub);
  writeFile(sub + "/default", valueToStrep(T{}).stdString());
  for (uint32_t i = 0; i < kSeedsPerType; i++) {
    writeFile(fmt::format("{}/random-{}", sub, i),
              valueToStrep(FlowTrackingTest::Random<T>::make(rng)).stdString());
  }
  return kSeedsPerType + 1;
}

uint32_t attachSeeds(std::string const& dir, uint64_t seed) {
  std::string const sub = dir + "/fuzz_reader_attach";
  fs::create_directories(sub);
  MirakTest::TempRoot root;
  constexpr char kTable[] = "corpus/attach";
  {
    auto w = FlowTrackingTest::makeSharedWriter<Record>(kTable, workloadDescriptor(4096));
    for (uint32_t i = 0; i < 300; i++) w->write(makeValue(i, i * 7 + 1), true);
  }
  char const* files[] = {"slots", "buckets", "kestor", "tessel", "owner"};
  std::mt19937_64 rng(seed);
  uint32_t n = 0;
  for (uint8_t f = 0; f < std::size(files); f++) {
    std::ifstream in(root.path() + "/" + kTable + "/" + files[f], std::ios::binary);
    std::string const bytes((std::istreambuf_iterator<char>(in)), {});
    if (bytes.empty()) continue;
    for (uint32_t i = 0; i < 8; i++) {
      // Headers first: the first seeds of each file start at offset 0.
      uint32_t const at = i < 2 ? 0 : static_cast<uint32_t>(rng() % bytes.size());
      uint32_t const len = std::min<uint32_t>(static_cast<uint32_t>(bytes.size()) - at, 64);
      std::string input(1, static_cast<char>(f));
      for (int b = 0; b < 4; b++) input += static_cast<char>(at >> (8 * b));
      input += bytes.substr(at, len);
      writeFile(fmt::format("{}/{}-{}", sub, files[f], i), input);
      n++;
    }
  }
  return n;
}

}  // namespace

int runCorpus(Options const& o) {
  if (o.dir.empty()) {
    fmt::print(stderr, "corpus: --dir is required\n");
    return 2;
  }
  FlowTrackingTest::Rng rng(o.seed);
  uint32_t n = 0;
  using namespace FlowTracking;
  // Every flow type, in this order (the rng's draws follow it).
  auto const each = [&]<typename... T>(char const* const (&names)[sizeof...(T)]) {
    size_t i = 0;
    ((n += strepSeeds<T>(o.dir, names[i++], rng)), ...);
  };
  each.operator()<IpFlowKey, Ip6FlowKey, HoIpFlowKey, HoIp6FlowKey, HosStateCounterKey,
                  HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                  HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>(
      {"IpFlowKey", "Ip6FlowKey", "HoIpFlowKey", "HoIp6FlowKey", "HosStateCounterKey",
       "HoIpFlowConfig", "HoIp6FlowConfig", "HoIpFlowStatus", "HoIp6FlowStatus",
       "HoIpFlowCounter", "HoIp6FlowCounter", "HosStateCounterEntry"});
  n += attachSeeds(o.dir, o.seed);
  fmt::print("corpus: {} seed files under {}\n", n, o.dir);
  return 0;
}

}  // namespace Stress
