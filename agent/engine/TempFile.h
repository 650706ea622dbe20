#pragma once

#include <cstdint>
#include <string>

#include "engine/ScanBudget.h"
#include "platform/Descriptor.h"
#include "platform/Expected.h"

namespace agent {

/// A temporary file without a name: the file is gone when the object ends. The file is made at the first
/// append.
class TempFile {
 public:
  /// Both must live as long as this object.
  TempFile(const std::string& folder, TempSpace& space) : folder_(folder), space_(space) {}
  ~TempFile() { space_.giveBack(taken_); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  /// The reason of a failure begins with "write error", as libclamav's does.
  platform::Expected<void> append(const char* data, std::size_t size);
  int fd() const { return file_.get(); }  ///< -1 before the first append
  std::uint64_t size() const { return size_; }

 private:
  const std::string& folder_;
  TempSpace& space_;
  platform::Descriptor file_;
  std::uint64_t size_ = 0;
  std::uint64_t taken_ = 0;  // of the space
};

}  // namespace agent
