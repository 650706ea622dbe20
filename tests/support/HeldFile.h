#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "platform/Descriptor.h"

namespace testsupport {

/// A file that nobody can open as long as the object lives: whoever tries waits. It must be open nowhere.
class HeldFile {
 public:
  explicit HeldFile(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    std::signal(SIGIO, SIG_IGN);  // tells of those who try
    EXPECT_EQ(fcntl(file_.get(), F_SETLEASE, F_WRLCK), 0) << path;
  }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  void release() { file_.reset(); }

 private:
  platform::Descriptor file_;
};

}  // namespace testsupport
