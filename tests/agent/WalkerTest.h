#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "WalkRecorder.h"
#include "support/TempDir.h"

namespace agent {

/// Walks below a private folder, into a recorder.
class WalkerTest : public ::testing::Test {
 protected:
  /// Walks into `sink`. Returns the error of opening the path.
  std::string walk(const std::string& path, Walker::Options options = {}) {
    Walker walker(std::move(options), sink);
    auto named = Walker::open(path);
    if (!named) {
      return named.error();
    }
    walker.walk(std::move(*named), 1.0);
    return "";
  }

  Walker::Options excluding(const char* folder) {
    Walker::Options options;
    options.excludedFolders = {dir.at(folder)};
    return options;
  }

  static Walker::Options inBatchesOf(std::size_t entries) {
    Walker::Options options;
    options.entriesAtOnce = entries;
    return options;
  }

  testsupport::TempDir dir;
  WalkRecorder sink;
};

}  // namespace agent
