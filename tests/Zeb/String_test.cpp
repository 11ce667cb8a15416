// Zeb::String: construction, sharing, comparison, formatting and the
// iterator the text parsers walk with.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "Zeb/String.h"

namespace {

TEST(String, ConstructorsCopiesAndTheEmptyText) {
  std::string const text = "flowtracking/ipv4/hwOffload/config";
  Zeb::String a(text.c_str()), b(text), c{std::string_view(text)};
  for (Zeb::String const* s : {&a, &b, &c}) {
    EXPECT_EQ(s->stdString(), text);
    EXPECT_STREQ(s->c_str(), text.c_str());
    EXPECT_EQ(std::string_view(*s), text);
  }
  EXPECT_TRUE(a == b && b == c);
  Zeb::String d, e("");
  EXPECT_TRUE(d.empty());
  EXPECT_STREQ(d.c_str(), "");
  EXPECT_EQ(d, e);
  EXPECT_TRUE(d.begin() == d.end());
  // A copy shares the buffer; assigning to it leaves the original alone.
  Zeb::String f = a;
  EXPECT_EQ(a.c_str(), f.c_str());
  f = Zeb::String("xyz");
  EXPECT_EQ(a.stdString(), text);
  EXPECT_EQ(f, Zeb::String("xyz"));
}

TEST(String, OrdersLikeStdStringAndServesAsMapKey) {
  std::map<Zeb::String, int> m;
  for (char const* s : {"b", "a", "ab", "", "B"}) m[Zeb::String(s)] = 1;
  std::string joined;
  for (auto const& [k, v] : m) joined += "[" + k.stdString() + "]";
  EXPECT_EQ(joined, "[][B][a][ab][b]");
  EXPECT_FALSE(Zeb::String("a") < Zeb::String("a"));
  EXPECT_FALSE(Zeb::String("a") == Zeb::String("A"));
}

TEST(String, FormatsThroughFmtAndStreams) {
  Zeb::String s("hoIpFlowConfig");
  EXPECT_EQ(fmt::format("{}/{}", Zeb::String("e"), s), "e/hoIpFlowConfig");
  EXPECT_EQ(fmt::format("[{:>16}]", s), "[  hoIpFlowConfig]");
  std::ostringstream os;
  os << s;
  EXPECT_EQ(os.str(), "hoIpFlowConfig");
}

TEST(String, IteratorWalksEveryByteAndReportsPositionAndRest) {
  Zeb::String s("key=10;");
  std::string walked;
  for (auto it = s.begin(); it != s.end(); ++it) walked.push_back(*it);
  EXPECT_EQ(walked, "key=10;");
  auto it = s.begin();
  it += 4;
  EXPECT_EQ(*it, '1');
  EXPECT_EQ(it.position(), 4u);
  EXPECT_EQ(it.rest(s.end()), "10;");
  EXPECT_EQ(s.end() - it, 3);
  auto old = it++;
  EXPECT_EQ(*old, '1');
  EXPECT_EQ(*it, '0');
  EXPECT_EQ(std::distance(s.begin(), s.end()), 7);
}

TEST(String, IteratorKeepsTheTextAliveAfterTheStringIsGone) {
  Zeb::String::IteratorConst it, end;
  {
    Zeb::String temp(std::string("transient text"));
    it = temp.begin();
    end = temp.end();
  }
  it += 10;
  EXPECT_EQ(it.rest(end), "text");
}

}  // namespace
