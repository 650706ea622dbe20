#include "engine/ZipAudit.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/Bytes.h"
#include "platform/Text.h"

namespace agent {
namespace {

using platform::Expected;
using platform::failure;

constexpr std::uint32_t kLocalHeader = 0x04034B50;
constexpr std::uint32_t kDirectoryEntry = 0x02014B50;
constexpr std::uint32_t kDirectoryEnd = 0x06054B50;
constexpr std::uint32_t kDirectoryEnd64 = 0x06064B50;
constexpr std::uint32_t kLocator64 = 0x07064B50;
constexpr std::uint32_t kSizeElsewhere = 0xFFFFFFFF;  // the real size stands in a 64-bit extra field
constexpr std::size_t kLocalHeaderBytes = 30;
constexpr std::size_t kDirectoryEntryBytes = 46;
constexpr std::size_t kDirectoryEndBytes = 22;
constexpr std::size_t kDirectoryEnd64Bytes = 56;
constexpr std::size_t kLocator64Bytes = 20;
constexpr std::uint32_t kSizesFollow = 1U << 3;  // flag: the local header may leave the sizes out
constexpr std::size_t kLongestComment = 0xFFFF;

// The methods that libclamav unpacks. libclamav silently skips members of any other method.
constexpr std::array<std::uint16_t, 5> kMethods = {0 /*stored*/, 6 /*imploded*/, 8 /*deflated*/,
                                                   9 /*deflated, 64 KiB window*/, 12 /*bzip2*/};

// The last end record before `limit` that the longest comment allows.
std::optional<std::uint64_t> findDirectoryEnd(const Bytes& zip, std::uint64_t limit) {
  if (zip.size() < kDirectoryEndBytes) {
    return std::nullopt;
  }
  const std::uint64_t last = zip.size() - kDirectoryEndBytes;
  const std::uint64_t first = last > kLongestComment ? last - kLongestComment : 0;
  // Most files have no end record, and a search forwards says so fast.
  if (zip.text(first, zip.size() - first).find("PK\5\6") == std::string_view::npos) {
    return std::nullopt;
  }
  for (std::uint64_t offset = std::min(limit, last + 1); offset-- > first;) {
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

tl::unexpected<std::string> memberFails(const Member& entry, const std::string& how) {
  return failure("member \"" + entry.name + "\" " + how);
}

bool isUnpacked(std::uint32_t method) {
  return method == 99 /*encrypted: libclamav reports it*/ ||
         std::find(kMethods.begin(), kMethods.end(), method) != kMethods.end();
}

struct Range {
  std::uint64_t begin = 0, end = 0;
};

// What is learnt about a zip from one member after the other.
struct Audit {
  std::string leftOut;         // the first reason; empty: none
  std::vector<Range> members;  // from the local header to the end of the data
};

void leaveOut(Audit& audit, const Member& entry, const std::string& how) {
  if (audit.leftOut.empty()) {
    audit.leftOut = memberFails(entry, how).value();
  }
}

constexpr const char* kSize64 = "has a 64-bit size: not unpacked";

// libclamav unpacks by the local header, other programs by the directory. When the two differ, another
// program may unpack content that libclamav has not seen.
Expected<void> auditLocalHeader(const Bytes& zip, const Member& entry, std::uint64_t local, Audit& audit) {
  const std::uint32_t flags = zip.at16(local + 6), method = zip.at16(local + 8);
  const std::uint32_t packedBytes = zip.at32(local + 18), bytes = zip.at32(local + 22);
  if (packedBytes == kSizeElsewhere || bytes == kSizeElsewhere) {
    leaveOut(audit, entry, kSize64);
    return {};
  }
  const bool sameSizes = packedBytes == entry.packedBytes && bytes == entry.bytes;
  if (method != entry.method || (!sameSizes && (flags & kSizesFollow) == 0)) {
    return memberFails(entry, "is described in two ways: the archive is damaged or forged");
  }
  return {};
}

// entry: as the directory describes the member; start: where the archive begins in the file.
Expected<void> auditMember(const Bytes& zip, const Member& entry, std::uint64_t start, Audit& audit) {
  if (entry.bytes == kSizeElsewhere || entry.packedBytes == kSizeElsewhere ||
      entry.localOffset == kSizeElsewhere) {
    leaveOut(audit, entry, kSize64);
    return {};
  }
  if (!isUnpacked(entry.method)) {
    leaveOut(audit, entry, "is packed by method " + std::to_string(entry.method) + ": not unpacked");
  }
  const std::uint64_t local = start + entry.localOffset;
  if (!zip.has(local, kLocalHeaderBytes) || zip.at32(local) != kLocalHeader) {
    return memberFails(entry, "is not where the directory says: the archive is damaged or cut off");
  }
  if (auto audited = auditLocalHeader(zip, entry, local, audit); !audited) {
    return audited;
  }
  const std::uint64_t data = local + kLocalHeaderBytes + zip.at16(local + 26) + zip.at16(local + 28);
  if (!zip.has(data, entry.packedBytes)) {
    return memberFails(entry, "ends beyond the end of the file: the archive is damaged or cut off");
  }
  audit.members.push_back({local, data + entry.packedBytes});
  return {};
}

// libclamav gives up an archive whose members overlap. Such an archive is small, and large when unpacked.
Expected<void> auditOverlap(std::vector<Range> members) {
  std::sort(members.begin(), members.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
  const auto overlap = std::adjacent_find(members.begin(), members.end(),
                                          [](const Range& a, const Range& b) { return b.begin < a.end; });
  return overlap == members.end() ? Expected<void>{}
                                  : failure("the archive's members overlap: damaged or forged");
}

struct Directory {
  std::uint64_t at = 0, end = 0;  ///< in the file
  std::uint64_t start = 0;        ///< of the archive: other data may precede it
  std::uint64_t count = 0;        ///< of its entries
  bool countIsWhole = false;      ///< else `count` holds only the low 16 bits
  bool is64 = false;              ///< of the 64-bit format; the other members are not set
};

// The 64-bit end record stands between the directory and the plain end record. False for a 64-bit record that
// does not repeat the plain record, except for the number of members.
bool readEnd64(const Bytes& zip, std::uint64_t end, Directory& directory) {
  if (end < kLocator64Bytes || zip.at32(end - kLocator64Bytes) != kLocator64) {
    return true;
  }
  const std::uint64_t both = kLocator64Bytes + kDirectoryEnd64Bytes;
  const std::uint64_t record = end < both ? 0 : end - both;
  const bool plain = end >= both && zip.at32(record) == kDirectoryEnd64 &&
                     zip.at64(record + 4) == kDirectoryEnd64Bytes - 12 &&
                     zip.at64(record + 40) == zip.at32(end + 12) &&
                     zip.at64(record + 48) == zip.at32(end + 16);
  if (plain) {
    directory.end = record;
    directory.count = zip.at64(record + 32);
    directory.countIsWhole = true;
  }
  return plain;
}

Expected<void> readEnd(const Bytes& zip, std::uint64_t end, Directory& directory) {
  const std::uint32_t bytes = zip.at32(end + 12);
  const std::uint32_t offset = zip.at32(end + 16);
  if (bytes == kSizeElsewhere || offset == kSizeElsewhere) {
    directory.is64 = true;
    return {};
  }
  directory.end = end;
  directory.count = zip.at16(end + 10);
  if (!readEnd64(zip, end, directory)) {
    directory.is64 = true;
    return {};
  }
  if (std::uint64_t{bytes} + offset > directory.end) {
    return failure("the archive's directory is not where it says: damaged or cut off");
  }
  directory.at = directory.end - bytes;
  directory.start = directory.at - offset;
  // libclamav trusts the offset, whatever the size says.
  if (directory.start != 0 && zip.has(offset, 4) && zip.at32(offset) == kDirectoryEntry) {
    return failure("the archive has two directories: damaged or forged");
  }
  return {};
}

}  // namespace

platform::Expected<std::string> auditZip(const char* data, std::size_t size) {
  const Bytes zip(data, size);
  const auto end = findDirectoryEnd(zip, zip.size());
  if (!end) {
    return failure("the archive has no directory: damaged or cut off");
  }
  Directory directory;
  if (auto read = readEnd(zip, *end, directory); !read) {
    return failure(read.error());
  }
  if (directory.is64) {
    return "the archive has a 64-bit directory: not unpacked";
  }
  Audit audit;
  std::uint64_t walked = 0;
  for (std::uint64_t at = directory.at; at < directory.end; ++walked) {
    if (!zip.has(at, kDirectoryEntryBytes) || zip.at32(at) != kDirectoryEntry) {
      break;  // a signature may follow the entries
    }
    const std::size_t nameBytes = zip.at16(at + 28);
    if (!zip.has(at + kDirectoryEntryBytes, nameBytes)) {
      return failure("the archive's directory is damaged");
    }
    const Member entry{zip.at16(at + 10), zip.at32(at + 20), zip.at32(at + 24), zip.at32(at + 42),
                       platform::visibleText(zip.text(at + kDirectoryEntryBytes, nameBytes))};
    if (auto audited = auditMember(zip, entry, directory.start, audit); !audited) {
      return failure(audited.error());
    }
    at += kDirectoryEntryBytes + nameBytes + zip.at16(at + 30) + zip.at16(at + 32);
  }
  if ((directory.countIsWhole ? walked : walked & 0xFFFF) != directory.count) {
    return failure("the archive's directory has " + std::to_string(walked) + " entries and says " +
                   std::to_string(directory.count) + ": damaged or forged");
  }
  // The directory may be that of a stored zip inside, in front of the place where the archive was cut off.
  const bool firstIsNamed = std::any_of(audit.members.begin(), audit.members.end(),
                                        [](const Range& member) { return member.begin == 0; });
  if (audit.leftOut.empty() && !firstIsNamed && zip.at32(0) == kLocalHeader) {
    return failure("the archive's directory names none of its members, or not the first: damaged or forged");
  }
  if (auto audited = auditOverlap(std::move(audit.members)); !audited) {
    return failure(audited.error());
  }
  return audit.leftOut;
}

bool hasZipDirectory(const char* data, std::size_t size) {
  const Bytes zip(data, size);
  const auto hasEntry = [&zip](std::uint64_t at) {
    return zip.has(at, 4) && zip.at32(at) == kDirectoryEntry;
  };
  for (auto end = findDirectoryEnd(zip, zip.size()); end; end = findDirectoryEnd(zip, *end)) {
    const std::uint64_t bytes = zip.at32(*end + 12), offset = zip.at32(*end + 16);
    const bool has64 = *end >= kLocator64Bytes && zip.at32(*end - kLocator64Bytes) == kLocator64;
    if (has64 || (bytes <= *end && bytes != 0 && hasEntry(*end - bytes)) || hasEntry(offset)) {
      return true;
    }
  }
  return false;
}

}  // namespace agent
