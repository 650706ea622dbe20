#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"

/// Golden files: texts below tests/ that a test compares with what the product prints. A diff of a golden
/// file reads as documentation of the change. TAV_WRITE_GOLDEN=1 in the environment of a test writes its file
/// anew.
namespace testsupport {

/// name: the file's path below tests/, such as "shell/data/error_table.txt".
inline std::string goldenPath(const std::string& name) {
  return std::string(TAV_SOURCE_DIR) + "/tests/" + name;
}

inline std::string goldenText(const std::string& name) {
  return readFile(goldenPath(name));
}

inline std::vector<std::string> goldenLines(const std::string& name) {
  std::istringstream text(goldenText(name));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The fields of each line, parted by " | ".
inline std::vector<std::vector<std::string>> goldenFields(const std::string& name) {
  std::vector<std::vector<std::string>> rows;
  for (std::string line : goldenLines(name)) {
    std::vector<std::string>& row = rows.emplace_back();
    for (std::size_t bar = 0; (bar = line.find(" | ")) != std::string::npos; line.erase(0, bar + 3)) {
      row.push_back(line.substr(0, bar));
    }
    row.push_back(line);
  }
  return rows;
}

inline void expectGolden(const std::string& name, const std::string& printed) {
  if (std::getenv("TAV_WRITE_GOLDEN") != nullptr) {
    std::ofstream(goldenPath(name)) << printed;
  }
  EXPECT_EQ(printed, goldenText(name)) << goldenPath(name);
}

}  // namespace testsupport
