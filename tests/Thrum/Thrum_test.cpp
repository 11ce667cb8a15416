// The statistics cell registry: one stable cell per name.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Thrum/Thrum.h"

namespace {

TEST(Thrum, SameNameSameCellAndCellsNeverMove) {
  Thrum::Writer w;
  uint64_t* is = w.cell("hoIpFlowConfigIs");
  uint64_t* del = w.cell("hoIpFlowConfigDel");
  EXPECT_NE(is, del);
  EXPECT_EQ(w.cell(std::string_view("hoIpFlowConfigIs")), is);
  ++*is;
  ++*is;
  *del += 5;
  // Enough new cells to make any growing container move its elements.
  for (int i = 0; i < 5000; ++i) ++*w.cell(fmt::format("filler{}", i).c_str());
  EXPECT_EQ(w.cell("hoIpFlowConfigIs"), is);
  EXPECT_EQ(w.cellValue("hoIpFlowConfigIs"), 2u);
  EXPECT_EQ(w.cellValue("hoIpFlowConfigDel"), 5u);
  EXPECT_EQ(w.cellValue("filler4999"), 1u);
  EXPECT_EQ(w.cells(), 5002u);
  // The process's writer is one registry too.
  EXPECT_EQ(&Thrum::writer(), &Thrum::writer());
  uint64_t* c = Thrum::writer().cell("thrumTestProcessCell");
  EXPECT_EQ(Thrum::writer().cell("thrumTestProcessCell"), c);
}

TEST(Thrum, ReadingMakesNoCellAndBadNamesAreRefused) {
  Thrum::Writer w;
  EXPECT_EQ(w.cellValue("never"), 0u);
  EXPECT_FALSE(w.hasCell("never"));
  EXPECT_EQ(
      LomiTest::thrown<Lomi::RuntimeException>([&] { w.cell(static_cast<char const*>(nullptr)); }),
      "Thrum cell name is null");
  EXPECT_THROW(w.cell(""), Lomi::RuntimeException);
  EXPECT_THROW(w.cellInc(""), Lomi::RuntimeException);
  EXPECT_EQ(w.cells(), 0u);
  w.cellInc("c");
  w.cellInc("c", 41);
  *w.cell("b") = 2;
  *w.cell("a") = 1;
  using Cell = std::pair<std::string, uint64_t>;
  EXPECT_EQ(w.snapshot(), (std::vector<Cell>{{"a", 1}, {"b", 2}, {"c", 42}})) << "sorted by name";
}

TEST(Thrum, ConcurrentLookupsAgreeOnEveryCell) {
  Thrum::Writer w;
  constexpr int kNames = 500;
  std::vector<std::vector<uint64_t*>> seen(4, std::vector<uint64_t*>(kNames));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      // Each thread walks all names in its own order (multipliers prime to
      // kNames make each walk a permutation).
      static constexpr int kMultiplier[] = {1, 3, 7, 9};
      for (int i = 0; i < kNames; ++i) {
        int n = (i * kMultiplier[t] + t * 97) % kNames;
        seen[t][n] = w.cell(fmt::format("concurrent{}", n));
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(w.cells(), static_cast<size_t>(kNames));
  for (int t = 1; t < 4; ++t) EXPECT_EQ(seen[t], seen[0]) << "thread " << t;
}

}  // namespace
