// Lomi::Util: bit reversal, file sizes, hex dumps, handle names.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"

namespace {

using Lomi::Util::reverse;

// Bit i goes to bit 31 - i and reverse is linear over xor: together they
// fix every value.
TEST(Reverse, MovesBitIToBit31MinusIAndIsALinearInvolution) {
  static_assert(reverse(2) == 0x40000000u, "usable in constant expressions");
  EXPECT_EQ(reverse(0), 0u);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(reverse(1u << i), 1u << (31 - i)) << i;
  uint32_t const seed = 20240601;
  std::printf("reverse seed %u\n", seed);
  std::mt19937 rng(seed);
  for (int i = 0; i < 100000; ++i) {
    uint32_t v = rng(), w = rng();
    ASSERT_EQ(reverse(reverse(v)), v) << v;
    ASSERT_EQ(reverse(v ^ w), reverse(v) ^ reverse(w)) << v << " " << w;
  }
}

TEST(FileSizeHelper, RoundsUpToWholePages) {
  uint64_t const page = Lomi::Util::pageSize();
  ASSERT_GE(page, 4096u);
  EXPECT_EQ(Lomi::Util::fileSizeHelper(0, 64, 0), 0u);
  EXPECT_EQ(Lomi::Util::fileSizeHelper(0, 64, 1), page);
  EXPECT_EQ(Lomi::Util::fileSizeHelper(1, page, 0), page) << "an exact page stays";
  EXPECT_EQ(Lomi::Util::fileSizeHelper(1, page, 1), 2 * page);
  EXPECT_EQ(Lomi::Util::fileSizeHelper(100, 96, 256), ((100 * 96 + 256 + page - 1) / page) * page);
}

TEST(FileSizeHelper, RaisesWhenTheSizeDoesNotFitIn32Bits) {
  uint64_t const page = Lomi::Util::pageSize();
  uint64_t const largest = (uint64_t{1} << 32) - page;
  EXPECT_EQ(Lomi::Util::fileSizeHelper(1, largest, 0), largest);
  EXPECT_EQ(LomiTest::thrown<Lomi::RuntimeException>(
                [&] { (void)Lomi::Util::fileSizeHelper(1, largest + 1, 0); }),
            fmt::format("file size for 1 slots of {} bytes after a 0 byte header "
                        "exceeds 4294967295",
                        largest + 1));
  // Products that overflow 64 bits are caught too, not wrapped round.
  EXPECT_THROW((void)Lomi::Util::fileSizeHelper(uint64_t{1} << 40, uint64_t{1} << 40, 0),
               Lomi::RuntimeException);
  EXPECT_THROW((void)Lomi::Util::fileSizeHelper(~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}),
               Lomi::RuntimeException);
}

TEST(DumpHex, SixteenBytesALineWithOffsetsAndPrintables) {
  unsigned char data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>(0x41 + i);
  data[3] = 0x00;
  data[17] = 0x7f;
  std::string const expect =
      "0000: 41 42 43 00 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  |ABC.EFGHIJKLMNOP|\n"
      "0010: 51 7f 53 54                                      |Q.ST|\n";
  EXPECT_EQ(Lomi::Util::dumpHex(data, sizeof data), expect);
  EXPECT_EQ(Lomi::Util::dumpHex(data, 0), "");
}

TEST(TraceHandleName, NamesTheHandlerAndTellsHandlesApart) {
  Lomi::Platform::DebugHandler a("MirakTemp"), b("MirakTemp");
  std::string na = Lomi::Util::traceHandleName(a), nb = Lomi::Util::traceHandleName(b);
  EXPECT_TRUE(na.starts_with("MirakTemp@0x")) << na;
  EXPECT_NE(na, nb);
  EXPECT_EQ(na, Lomi::Util::traceHandleName(a));
}

}  // namespace
