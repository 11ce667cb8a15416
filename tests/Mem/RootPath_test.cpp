// Where tables live: the process-wide base directory, the directory of each
// table, and the errors of a directory that cannot be made.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/TempRoot.h"

namespace {

// The message of the InvalidInitializeException `f` throws.
template <typename F>
std::string refusal(F&& f) {
  return LomiTest::thrown<Lomi::InvalidInitializeException>(f);
}

class RootPathTest : public ::testing::Test {
 protected:
  static bool isDirectory(std::string const& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }

  MirakTest::TempRoot root;
  std::string const dir = root.path();
  Lomi::Platform::DebugHandler handler{"RootPathTest"};
};

TEST_F(RootPathTest, BaseIsProcessWideAndKeptByEachPath) {
  EXPECT_EQ(Mem::RootPath::base(), dir);
  Mem::RootPath::baseIs(dir + "///");
  EXPECT_EQ(Mem::RootPath::base(), dir) << "trailing slashes are dropped";
  Mem::NaoRootPath before(handler, "tables/config", false);
  Mem::RootPath::baseIs(dir + "/other");
  Mem::NaoRootPath after(handler, "tables/config", false);
  EXPECT_EQ(before.path(), dir + "/tables/config") << "a path keeps the base it was made with";
  EXPECT_EQ(after.path(), dir + "/other/tables/config");
  EXPECT_FALSE(before == after);
  Mem::RootPath::baseIs(Mem::RootPath::kDefaultBase);
  EXPECT_EQ(Mem::RootPath::base(), "/dev/shm/mirak");
}

TEST_F(RootPathTest, BaseMustBeAbsolute) {
  for (std::string bad : {"", "relative/dir", "./x"}) {
    std::string text = refusal([&] { Mem::RootPath::baseIs(bad); });
    EXPECT_EQ(text, "Mirak base directory \"" + bad + "\" must be an absolute path");
  }
  EXPECT_EQ(Mem::RootPath::base(), dir) << "a refused base leaves the old one";
}

TEST_F(RootPathTest, NamesAndTheirTexts) {
  Mem::NaoRootPath p(handler, "flowtracking/hoFlow/hwOffload/config/ipv4", false);
  EXPECT_EQ(p.name(), "flowtracking/hoFlow/hwOffload/config/ipv4");
  EXPECT_EQ(p.dirName(), "ipv4");
  EXPECT_EQ(p.path(), dir + "/flowtracking/hoFlow/hwOffload/config/ipv4");
  EXPECT_EQ(p.str(), p.path());
  EXPECT_EQ(fmt::format("{}", p), p.path());
  EXPECT_FALSE(p.isLocal());
  EXPECT_EQ(p.filePath("slots"), p.path() + "/slots");
  EXPECT_EQ(&p.debugHandler(), &handler);

  Mem::NaoRootPath messy(handler, "a//b/c/", false);
  EXPECT_EQ(messy.path(), dir + "/a/b/c");
  EXPECT_EQ(messy.dirName(), "c");

  Mem::NaoRootPath single(handler, "table", false);
  EXPECT_EQ(single.dirName(), "table");
}

TEST_F(RootPathTest, LocalTablesHaveNoDirectory) {
  Mem::NaoRootPath p(handler, "private/table", true);
  EXPECT_TRUE(p.isLocal());
  EXPECT_EQ(p.path(), "");
  EXPECT_EQ(p.str(), "local:private/table");
  EXPECT_EQ(p.dirName(), "table");
  p.createDirectories();
  EXPECT_FALSE(isDirectory(dir + "/private"));
  EXPECT_EQ(refusal([&] { p.filePath("slots"); }),
            "Mirak table local:private/table is local: it has no directory for file \"slots\"");
  // A local name is never a path, so any text will do.
  Mem::NaoRootPath odd(handler, "../x", true);
  EXPECT_EQ(odd.path(), "");
}

TEST_F(RootPathTest, NamesThatLeaveTheirDirectoryAreRefused) {
  std::string const outside = ": it must stay inside its own directory";
  for (auto const& c : {
           std::pair<char const*, std::string>{"", "is empty: a shared table needs a name"},
           {"/etc/x", "\"/etc/x\" is absolute: it must be relative to the base directory"},
           {"a/../../x", "\"a/../../x\" has a \"..\" component" + outside},
           {"a/./b", "\"a/./b\" has a \".\" component" + outside},
           {"..", "\"..\" has a \"..\" component" + outside}}) {
    EXPECT_EQ(refusal([&] { Mem::NaoRootPath(handler, c.first, false); }),
              "Mirak table name " + c.second);
  }
  // Dots inside a component are ordinary characters.
  EXPECT_EQ(Mem::NaoRootPath(handler, "a..b/.c", false).path(), dir + "/a..b/.c");
}

TEST_F(RootPathTest, CreateDirectoriesMakesParentsAndIsRepeatable) {
  Mem::RootPath::baseIs(dir + "/not/yet/there");
  Mem::NaoRootPath p(handler, "flowtracking/config", false);
  p.createDirectories();
  p.createDirectories();
  EXPECT_TRUE(isDirectory(p.path()));
}

TEST_F(RootPathTest, CreateDirectoriesNamesPathAndReason) {
  // A file where a directory must go: refused for everyone, root included.
  std::string file = dir + "/plainfile";
  int fd = ::open(file.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ::close(fd);
  Mem::RootPath::baseIs(file);
  Mem::NaoRootPath underFile(handler, "table", false);
  std::string text = refusal([&] { underFile.createDirectories(); });
  EXPECT_EQ(text, "cannot create directory of Mirak table " + file + "/table: mkdir " + file +
                      ": Not a directory (errno 20)")
      << "the message names the component in the way";

  // The file itself stands where the table's directory should be.
  Mem::RootPath::baseIs(dir);
  Mem::NaoRootPath onFile(handler, "plainfile", false);
  text = refusal([&] { onFile.createDirectories(); });
  EXPECT_EQ(text, "cannot create directory of Mirak table " + file + ": mkdir " + file +
                      ": Not a directory (errno 20)");

  // No permission: only an unprivileged process is stopped by the mode.
  if (::geteuid() != 0) {
    std::string locked = dir + "/locked";
    ASSERT_EQ(::mkdir(locked.c_str(), 0500), 0);
    Mem::RootPath::baseIs(locked);
    Mem::NaoRootPath denied(handler, "table", false);
    text = refusal([&] { denied.createDirectories(); });
    EXPECT_NE(text.find("Permission denied"), std::string::npos) << text;
    EXPECT_NE(text.find(locked + "/table"), std::string::npos) << text;
    ::chmod(locked.c_str(), 0700);
  }
}

}  // namespace
