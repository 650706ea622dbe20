#include "engine/TempFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/Posix.h"

namespace agent {

platform::Expected<void> TempFile::append(const char* data, std::size_t size) {
  const auto failed = [](int error) {
    return platform::failure("write error on a temporary file: " + platform::errnoText(error));
  };
  taken_ += size;
  if (!space_.take(size)) {
    return failed(ENOSPC);
  }
  if (!file_) {
    std::string path = folder_ + "/layer-XXXXXX";
    file_ = platform::Descriptor(mkostemp(path.data(), O_CLOEXEC));
    if (!file_) {
      return failed(errno);
    }
    unlink(path.c_str());
  }
  if (const int error = platform::writeAll(file_.get(), {data, size}); error != 0) {
    return failed(error);
  }
  size_ += size;
  return {};
}

}  // namespace agent
