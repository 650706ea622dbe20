#pragma once

#include <cstdint>
#include <string>

#include "platform/Descriptor.h"
#include "platform/Expected.h"

namespace agent {

/// A temporary file without a name: the file is gone when the object ends. The file is made at the first
/// append.
class TempFile {
 public:
  explicit TempFile(std::string folder) : folder_(std::move(folder)) {}

  /// The reason of a failure begins with "write error", as libclamav's does.
  platform::Expected<void> append(const char* data, std::size_t size);
  int fd() const { return file_.get(); }  ///< -1 before the first append
  std::uint64_t size() const { return size_; }

 private:
  std::string folder_;
  platform::Descriptor file_;
  std::uint64_t size_ = 0;
};

}  // namespace agent
