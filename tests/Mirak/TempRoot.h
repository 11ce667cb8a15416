// A private base directory for the tables of one test, removed afterwards.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "Mem/RootPath.h"

namespace MirakTest {

class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/tmp/flowtables-test-XXXXXX";
    char* dir = ::mkdtemp(tmpl);
    path_ = dir ? dir : "/tmp";
    previous_ = Mem::RootPath::base();
    Mem::RootPath::baseIs(path_);
  }
  ~TempRoot() {
    Mem::RootPath::baseIs(previous_);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
  std::string previous_;
};

}  // namespace MirakTest
