// Opening files where anyone may have planted something: links are never
// followed (neither to the file nor through the directory), a FIFO never
// blocks an open, anything but a regular file is refused with a message that
// names it, and replacing or creating a file never writes through a name that
// someone else could have chosen.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Mem/SharedGround.h"
#include "Mirak/TempRoot.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(std::string const& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

class SharedGround : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = root_.path() + "/table";
    fs::create_directories(dir_);
    victim_ = root_.path() + "/victim";
    std::ofstream(victim_) << "precious";
  }
  void TearDown() override { EXPECT_EQ(slurp(victim_), "precious") << "a link was followed"; }

  MirakTest::TempRoot root_;
  std::string dir_;
  std::string victim_;
};

struct Planted {
  char const* what;
  void (*plant)(std::string const& path, std::string const& victim);
  char const* message;
  int err;
};

Planted const planted[] = {
    {"SymbolicLink", [](auto const& p, auto const& v) { fs::create_symlink(v, p); },
     "is a symbolic link", ELOOP},
    {"Fifo", [](auto const& p, auto const&) { ASSERT_EQ(::mkfifo(p.c_str(), 0666), 0); },
     "is a FIFO", EINVAL},
    {"Directory", [](auto const& p, auto const&) { fs::create_directory(p); }, "is a directory",
     EINVAL},
};

TEST_F(SharedGround, WhatIsPlantedUnderAFileNameIsRefusedWithoutBlocking) {
  for (Planted const& p : planted) {
    for (int flags : {O_RDONLY, O_RDWR | O_CREAT}) {
      std::string const path = dir_ + "/slots-" + p.what + std::to_string(flags);
      p.plant(path, victim_);
      std::string error;
      errno = 0;
      EXPECT_EQ(Mem::openSharedFile(path, flags, 0644, error), -1) << p.what;
      EXPECT_EQ(errno, p.err) << p.what;
      EXPECT_NE(error.find(path), std::string::npos) << error;
      EXPECT_NE(error.find(p.message), std::string::npos) << error;
    }
  }
}

TEST_F(SharedGround, AMissingFileIsENOENTAndARegularFileOpens) {
  std::string error;
  EXPECT_EQ(Mem::openSharedFile(dir_ + "/none", O_RDONLY, 0, error), -1);
  EXPECT_EQ(errno, ENOENT);
  int const fd = Mem::openSharedFile(dir_ + "/made", O_RDWR | O_CREAT, 0640, error);
  ASSERT_GE(fd, 0) << error;
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "the descriptor is a plain blocking one";
  ::close(fd);
  struct stat st;
  ASSERT_EQ(::stat((dir_ + "/made").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u & ~::umask(::umask(0)));
}

TEST_F(SharedGround, ReplaceWritesThroughNoPlantedNameAndLeavesNoTemporary) {
  std::string const owner = dir_ + "/owner";
  // A link planted where the file goes is replaced, not written through; a
  // guess at the temporary's name plants nothing it would use.
  fs::create_symlink(victim_, owner);
  for (int pid : {::getpid(), ::getpid() + 1}) {
    fs::create_symlink(victim_, owner + ".tmp-" + std::to_string(pid));
  }
  std::string error;
  ASSERT_TRUE(Mem::replaceSharedFile(owner, "writer 1", 0644, error)) << error;
  EXPECT_FALSE(fs::is_symlink(owner));
  EXPECT_EQ(slurp(owner), "writer 1");
  ASSERT_TRUE(Mem::replaceSharedFile(owner, "writer 2", 0644, error)) << error;
  EXPECT_EQ(slurp(owner), "writer 2");
  auto const entries = std::distance(fs::directory_iterator(dir_), fs::directory_iterator());
  EXPECT_EQ(entries, 3) << "the owner file and the two planted links, no temporary";
}

}  // namespace
