// Mirak::Util: file checks, the deployment switches and the corruption marker.
#include "Mirak/Util.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Parcel/ProcessTestUtil.h"

namespace {

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("test.MirakUtil");
}

using ParcelTest::readAll;

class MirakUtilTest : public ::testing::Test {
 protected:
  MirakUtilTest() : root_(handler(), "flowtracking/ip/counter", false) {}
  ParcelTest::TempRoot temp_;
  Mem::NaoRootPath root_;
};

TEST_F(MirakUtilTest, ValidateFileNamesWhatIsWrong) {
  root_.createDirectories();
  std::string const slots = root_.filePath("slots");
  std::string const msg = LomiTest::thrown<Lomi::CorruptionDetectedException>(
      [&] { Mirak::Util::validateFile(handler(), slots, 10); });
  EXPECT_EQ(
      msg.rfind(fmt::format("Mirak file {} is not usable: stat {}: No such file", slots, slots), 0),
      0u)
      << msg;
  std::string const msg2 = LomiTest::thrown<Lomi::CorruptionDetectedException>(
      [&] { Mirak::Util::validateFile(handler(), root_.path(), 0); });
  EXPECT_NE(msg2.find("is not a regular file"), std::string::npos) << msg2;
  std::ofstream(slots) << std::string(100, 'x');
  EXPECT_NO_THROW(Mirak::Util::validateFile(handler(), slots, 100));
  EXPECT_NO_THROW(Mirak::Util::validateFile(handler(), slots, 0));
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>(
                [&] { Mirak::Util::validateFile(handler(), slots, 101); }),
            fmt::format("Mirak file {} is 100 bytes, shorter than 101", slots));
}

TEST_F(MirakUtilTest, SwitchesAreOnOnlyForOne) {
  for (auto [name, fn] :
       {std::pair{"FLOWTABLES_PHYSICAL_DUT", &Mirak::Util::runningOnPhysicalDut},
        std::pair{"FLOWTABLES_STRICT_VALIDATION", &Mirak::Util::strictValidation}}) {
    ::unsetenv(name);
    EXPECT_FALSE(fn()) << name;
    ::setenv(name, "0", 1);
    EXPECT_FALSE(fn()) << name;
    ::setenv(name, "yes", 1);
    EXPECT_FALSE(fn()) << name;
    ::setenv(name, "1", 1);
    EXPECT_TRUE(fn()) << name;
    ::unsetenv(name);
  }
}

TEST_F(MirakUtilTest, CorruptionMarkerCarriesMessagePidAndTime) {
  EXPECT_FALSE(Mirak::Util::writeCorruptionFile(root_, "no directory yet"));
  EXPECT_FALSE(std::filesystem::exists(root_.path()));
  root_.createDirectories();
  ASSERT_TRUE(Mirak::Util::writeCorruptionFile(handler(), root_, "bad kestor:1:0 wanted:1:1"));
  std::string const marker = root_.filePath(Mirak::Util::CORRUPTION_FILENAME);
  std::string text = readAll(marker);
  EXPECT_EQ(
      text.rfind(fmt::format("message: bad kestor:1:0 wanted:1:1\npid: {}\ntime: 20", ::getpid()),
                 0),
      0u)
      << text;
  EXPECT_EQ(text.back(), '\n');
  Mirak::Util::removeCorruptionFile(handler(), root_);
  EXPECT_FALSE(std::filesystem::exists(marker));
  EXPECT_NO_THROW(Mirak::Util::removeCorruptionFile(handler(), root_));
}

TEST_F(MirakUtilTest, LocalTableHasNoMarker) {
  Mem::NaoRootPath local(handler(), "local-util", true);
  EXPECT_FALSE(Mirak::Util::writeCorruptionFile(local, "x"));
  EXPECT_NO_THROW(Mirak::Util::removeCorruptionFile(handler(), local));
}

}  // namespace
