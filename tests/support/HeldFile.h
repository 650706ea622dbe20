#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "platform/Descriptor.h"

namespace testsupport {

/// A file that nobody can open while the object lives: an open waits. Nobody may have the file open before.
class HeldFile {
 public:
  explicit HeldFile(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    std::signal(SIGIO, SIG_IGN);  // arrives for each open that waits
    EXPECT_EQ(fcntl(file_.get(), F_SETLEASE, F_WRLCK), 0) << path;
  }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  void release() { file_.reset(); }

 private:
  platform::Descriptor file_;
};

}  // namespace testsupport
