#include "engine/ZipAudit.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/Text.h"

namespace agent {
namespace {

constexpr std::uint32_t kLocalHeader = 0x04034B50;
constexpr std::uint32_t kDirectoryEntry = 0x02014B50;
constexpr std::uint32_t kDirectoryEnd = 0x06054B50;
constexpr std::uint32_t kSizeElsewhere = 0xFFFFFFFF;  // the real size stands in a 64-bit extra field
constexpr std::size_t kLocalHeaderBytes = 30;
constexpr std::size_t kDirectoryEntryBytes = 46;
constexpr std::size_t kDirectoryEndBytes = 22;
constexpr std::size_t kLongestComment = 0xFFFF;

// What libclamav unpacks; any other method is passed over in silence.
constexpr std::array<std::uint16_t, 5> kMethods = {0 /*stored*/, 6 /*imploded*/, 8 /*deflated*/,
                                                   9 /*deflated, 64 KiB window*/, 12 /*bzip2*/};

class Bytes {
 public:
  Bytes(const char* data, std::size_t size) : data_(data), size_(size) {}
  std::size_t size() const { return size_; }
  bool has(std::uint64_t offset, std::uint64_t count) const {
    return offset <= size_ && count <= size_ - offset;
  }
  std::uint32_t at16(std::uint64_t offset) const { return byte(offset) | byte(offset + 1) << 8; }
  std::uint32_t at32(std::uint64_t offset) const { return at16(offset) | at16(offset + 2) << 16; }
  std::string_view text(std::uint64_t offset, std::size_t count) const { return {data_ + offset, count}; }

 private:
  std::uint32_t byte(std::uint64_t offset) const { return static_cast<unsigned char>(data_[offset]); }
  const char* data_;
  std::size_t size_;
};

std::optional<std::uint64_t> findDirectoryEnd(const Bytes& zip) {
  if (zip.size() < kDirectoryEndBytes) {
    return std::nullopt;
  }
  const std::uint64_t last = zip.size() - kDirectoryEndBytes;
  const std::uint64_t first = last > kLongestComment ? last - kLongestComment : 0;
  for (std::uint64_t offset = last + 1; offset-- > first;) {
    if (zip.at32(offset) == kDirectoryEnd) {
      return offset;
    }
  }
  return std::nullopt;
}

struct Member {
  std::uint32_t method, packedBytes, bytes, localOffset;
  std::string name;
};

std::string member(const Member& entry, const std::string& what) {
  return "member \"" + entry.name + "\" " + what;
}

// entry: the directory's word on the member; start: where the archive begins in the file.
std::string auditMember(const Bytes& zip, const Member& entry, std::uint64_t start) {
  if (entry.bytes == kSizeElsewhere || entry.packedBytes == kSizeElsewhere ||
      entry.localOffset == kSizeElsewhere) {
    return member(entry, "has a 64-bit size: not unpacked");
  }
  if (std::find(kMethods.begin(), kMethods.end(), entry.method) == kMethods.end() && entry.method != 99) {
    return member(entry, "is packed by method " + std::to_string(entry.method) + ": not unpacked");
  }
  const std::uint64_t local = start + entry.localOffset;
  if (!zip.has(local, kLocalHeaderBytes) || zip.at32(local) != kLocalHeader) {
    return member(entry, "is not where the directory says: the archive is damaged or cut off");
  }
  if (zip.at32(local + 18) == kSizeElsewhere || zip.at32(local + 22) == kSizeElsewhere) {
    return member(entry, "has a 64-bit size: not unpacked");
  }
  const std::uint64_t data = local + kLocalHeaderBytes + zip.at16(local + 26) + zip.at16(local + 28);
  if (!zip.has(data, entry.packedBytes)) {
    return member(entry, "ends beyond the end of the file: the archive is damaged or cut off");
  }
  return {};
}

}  // namespace

std::string auditZip(const char* data, std::size_t size) {
  const Bytes zip(data, size);
  const auto end = findDirectoryEnd(zip);
  if (!end) {
    return "the archive has no directory: damaged or cut off";
  }
  const std::uint32_t directoryBytes = zip.at32(*end + 12);
  const std::uint32_t directoryOffset = zip.at32(*end + 16);
  if (directoryBytes == kSizeElsewhere || directoryOffset == kSizeElsewhere) {
    return "the archive has a 64-bit directory: not unpacked";
  }
  if (std::uint64_t{directoryBytes} + directoryOffset > *end) {
    return "the archive's directory is not where it says: damaged or cut off";
  }
  std::uint64_t at = *end - directoryBytes;
  const std::uint64_t start = at - directoryOffset;  // of the archive, behind what stands before it
  while (at < *end) {
    if (!zip.has(at, kDirectoryEntryBytes) || zip.at32(at) != kDirectoryEntry) {
      break;  // a signature or a 64-bit end record may follow the entries
    }
    const std::size_t nameBytes = zip.at16(at + 28);
    if (!zip.has(at + kDirectoryEntryBytes, nameBytes)) {
      return "the archive's directory is damaged";
    }
    const Member entry{zip.at16(at + 10), zip.at32(at + 20), zip.at32(at + 24), zip.at32(at + 42),
                       platform::visibleText(zip.text(at + kDirectoryEntryBytes, nameBytes))};
    if (auto problem = auditMember(zip, entry, start); !problem.empty()) {
      return problem;
    }
    at += kDirectoryEntryBytes + nameBytes + zip.at16(at + 30) + zip.at16(at + 32);
  }
  return {};
}

}  // namespace agent
