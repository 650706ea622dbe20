#include "engine/SparseFile.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <vector>

#include "platform/Posix.h"

namespace agent {
namespace {

constexpr std::uint64_t kSmallestFile = 16U << 20;  // a smaller one is scanned as fast whole
constexpr std::uint64_t kKeptOfHole = 1U << 20;
constexpr int kMostExtents = 100000;
constexpr std::size_t kBlock = 128 * 1024;

struct Extent {
  std::uint64_t begin = 0, end = 0;
};

// Calls `visit` with each extent of data, in order, until `visit` returns false. False when a call fails, or
// for too many extents.
bool visitData(int fd, std::uint64_t size, const std::function<bool(const Extent&)>& visit) {
  std::uint64_t at = 0;
  for (int count = 0; count < kMostExtents; ++count) {
    const off_t begin = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
    if (begin < 0 || static_cast<std::uint64_t>(begin) >= size) {
      return begin >= 0 || errno == ENXIO;  // no more data
    }
    const off_t end = lseek(fd, begin, SEEK_HOLE);
    if (end <= begin) {
      return false;
    }
    at = std::min(static_cast<std::uint64_t>(end), size);
    if (!visit({static_cast<std::uint64_t>(begin), at})) {
      return true;
    }
    if (at == size) {
      return true;
    }
  }
  return false;
}

platform::Expected<void> copyExtent(int fd, const Extent& extent, std::vector<char>& block, TempFile& copy) {
  for (std::uint64_t at = extent.begin; at < extent.end;) {
    const ssize_t got = pread(fd, block.data(), std::min<std::uint64_t>(block.size(), extent.end - at),
                              static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return platform::failure("cannot be read to its end");
    }
    if (auto written = copy.append(block.data(), static_cast<std::size_t>(got)); !written) {
      return written;
    }
    at += static_cast<std::uint64_t>(got);
  }
  return {};
}

platform::Expected<void> appendZeros(std::uint64_t bytes, TempFile& copy) {
  const std::vector<char> zeros(static_cast<std::size_t>(std::min(bytes, kKeptOfHole)));
  return zeros.empty() ? platform::Expected<void>{} : copy.append(zeros.data(), zeros.size());
}

}  // namespace

bool isMostlyHoles(int fd, std::uint64_t size) {
  std::uint64_t copied = 0, end = 0;
  const auto count = [&](const Extent& extent) {
    copied += std::min(extent.begin - end, kKeptOfHole) + (extent.end - extent.begin);
    end = extent.end;
    return copied <= size / 2;
  };
  return size >= kSmallestFile && visitData(fd, size, count) && copied <= size / 2;
}

platform::Expected<void> copyWithoutHoles(int fd, std::uint64_t size, TempFile& copy) {
  std::vector<char> block(kBlock);
  std::uint64_t end = 0;
  platform::Expected<void> result;
  const bool visited = visitData(fd, size, [&](const Extent& extent) {
    result = appendZeros(extent.begin - end, copy);
    if (result) {
      result = copyExtent(fd, extent, block, copy);
    }
    end = extent.end;
    return result.has_value();
  });
  if (!result) {
    return result;
  }
  return visited ? appendZeros(size - end, copy) : platform::failure("cannot be read to its end");
}

bool isFoundAnywhere(std::string_view type) {
  return type == "CL_TYPE_BINARY_DATA" || type.starts_with("CL_TYPE_TEXT_");
}

}  // namespace agent
