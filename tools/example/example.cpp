// Example: builds a few rows, hashes and prints them. Replaced as the main job
// by `flowtable demo` once the CLI exists.
#include <cstdio>

#include "Zeb/Hash.h"

int main() {
  for (uint32_t i = 0; i < 4; i++) {
    std::printf("hash(%u) = %08x\n", i, Zeb::hashSingleAttr<uint32_t>(0, i));
  }
  return 0;
}
