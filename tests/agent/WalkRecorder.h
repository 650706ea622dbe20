#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "task/Walker.h"

namespace agent {

/// Records what a walk hands over.
class WalkRecorder final : public WalkSink {
 public:
  void file(EncounteredFile file) override {
    EXPECT_TRUE(file.fd);
    EXPECT_NE(0, file.statusNs);
    files.push_back(file.path);
    resolved[file.path] = file.resolved;
    statusNs[file.path] = file.statusNs;
    sizes[file.path] = file.status.st_size;
    char text[64] = {};
    const ssize_t count = read(file.fd.get(), text, sizeof text - 1);
    contents[file.path] = std::string(text, count > 0 ? static_cast<std::size_t>(count) : 0);
    writable[file.path] = file.folderWritable;
    if (onFile) {
      onFile(file.path);
    }
  }
  void skipped(const std::string& path, const std::string& reason) override { skips[path] = reason; }
  void failed(const std::string& path, const std::string& reason) override { failures[path] = reason; }
  bool keepGoing() override { return allowed-- > 0; }
  void advanced(double share) override {
    EXPECT_GE(share, 0);
    progress += share;
  }
  std::vector<std::string> everyPath() const {
    std::vector<std::string> all = files;
    for (const auto* map : {&skips, &failures}) {
      for (const auto& [path, reason] : *map) {
        all.push_back(path);
      }
    }
    return all;
  }

  std::vector<std::string> files;
  std::map<std::string, off_t> sizes;
  std::map<std::string, std::string> resolved, contents, skips, failures;
  std::map<std::string, std::int64_t> statusNs;
  std::map<std::string, bool> writable;
  std::function<void(const std::string&)> onFile;
  long allowed = 1'000'000;  ///< entries before the walk ends
  double progress = 0;
};

}  // namespace agent
