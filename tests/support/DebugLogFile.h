#pragma once

#include <string>

#include "platform/CLogDebug.h"
#include "support/TempDir.h"

namespace testsupport {

/// The debug log of the process, in a private folder, as long as the object lives.
class DebugLogFile {
 public:
  explicit DebugLogFile(LogLevel level = LogLevel::kDebug) {
    CLogDebug* const log = CLogDebug::Create();
    log->SetProperty(CLogDebug::kName, "test");
    log->SetProperty(CLogDebug::kPath, folder_.path());
    log->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(level)));
  }
  ~DebugLogFile() { CLogDebug::Close(); }
  DebugLogFile(const DebugLogFile&) = delete;
  DebugLogFile& operator=(const DebugLogFile&) = delete;

  std::string text() const { return readFile(folder_.at("test.log")); }

 private:
  TempDir folder_;
};

}  // namespace testsupport
