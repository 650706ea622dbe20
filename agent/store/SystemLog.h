#pragma once

#include <string>

#include "platform/Descriptor.h"

namespace agent::store {

/// The system's journal or syslog, where one listens. Never waits: a line that its socket does not take at
/// once is left out. One thread at a time.
class SystemLog {
 public:
  enum class Severity { kWarning = 4, kNotice = 5 };
  /// path: of the datagram socket, mostly /dev/log; empty: no line is sent.
  explicit SystemLog(std::string path) : path_(std::move(path)) {}
  void send(Severity severity, const std::string& line);

 private:
  const std::string path_;
  platform::Descriptor socket_;
};

}  // namespace agent::store
