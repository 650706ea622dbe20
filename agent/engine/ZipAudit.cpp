#include "engine/ZipAudit.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
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
constexpr std::size_t kSizesBehindBytes = 24;    // behind the data of a member with kSizesFollow, at most
constexpr std::size_t kSearched = 66000;         // bytes before the end, as far as any program looks back

// The methods that libclamav unpacks. libclamav silently skips members of any other method.
constexpr std::array<std::uint16_t, 5> kMethods = {0 /*stored*/, 6 /*imploded*/, 8 /*deflated*/,
                                                   9 /*deflated, 64 KiB window*/, 12 /*bzip2*/};

// The last end record before `limit`, near the end.
std::optional<std::uint64_t> findDirectoryEnd(const Bytes& zip, std::uint64_t limit) {
  if (zip.size() < kDirectoryEndBytes) {
    return std::nullopt;
  }
  const std::uint64_t last = zip.size() - kDirectoryEndBytes;
  const std::uint64_t first = last > kSearched ? last - kSearched : 0;
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
  std::uint32_t method;
  std::uint64_t packedBytes, bytes, localOffset;
  bool is64;    // the numbers come from the 64-bit extra field
  bool isLink;  // marked as a symbolic link of Unix
  std::string name;
};

tl::unexpected<std::string> memberFails(const Member& entry, const std::string& how) {
  return failure("member \"" + entry.name + "\" " + how);
}

bool isUnpacked(std::uint32_t method) {
  return method == 99 /*encrypted: libclamav reports it*/ ||
         std::find(kMethods.begin(), kMethods.end(), method) != kMethods.end();
}

using Range = AuditedZip::Range;

// What is learnt about a zip from one member after the other.
struct Audit {
  std::string leftOut;         // the first reason; empty: none
  std::vector<Range> members;  // from the local header to the end of the data
  std::vector<Range> links;
};

void leaveOut(Audit& audit, const Member& entry, const std::string& how) {
  if (audit.leftOut.empty()) {
    audit.leftOut = memberFails(entry, how).value();
  }
}

constexpr const char* kSize64 = "has a 64-bit size: not unpacked";
constexpr const char* kTwoDirectories = "the archive has two directories: damaged or forged";

// libclamav unpacks by the local header, other programs by the directory. When the two differ, another
// program may unpack content that libclamav has not seen.
Expected<void> auditLocalHeader(const Bytes& zip, const Member& entry, std::uint64_t local, Audit& audit) {
  const std::uint32_t flags = zip.at16(local + 6), method = zip.at16(local + 8);
  const std::uint32_t packedBytes = zip.at32(local + 18), bytes = zip.at32(local + 22);
  const bool is64 = packedBytes == kSizeElsewhere || bytes == kSizeElsewhere;
  if (is64) {
    leaveOut(audit, entry, kSize64);
  }
  const bool sameSizes = is64 || (packedBytes == entry.packedBytes && bytes == entry.bytes);
  if (method != entry.method || (!sameSizes && (flags & kSizesFollow) == 0)) {
    return memberFails(entry, "is described in two ways: the archive is damaged or forged");
  }
  return {};
}

// A number of a directory entry. 0xFFFFFFFF refers to the next number of the 64-bit extra field.
class Numbers {
 public:
  Numbers(const Bytes& zip, std::uint64_t extra, std::size_t extraBytes) : zip_(zip) {
    constexpr std::uint32_t kNumbers64 = 1;
    for (std::uint64_t at = extra; at + 4 <= extra + extraBytes; at += 4 + std::uint64_t{zip.at16(at + 2)}) {
      if (zip.at16(at) == kNumbers64 && at + 4 + zip.at16(at + 2) <= extra + extraBytes) {
        next_ = at + 4;
        end_ = next_ + zip.at16(at + 2);
        return;
      }
    }
  }
  std::uint64_t at32(std::uint64_t offset) {
    const std::uint32_t number = zip_.at32(offset);
    if (number != kSizeElsewhere) {
      return number;
    }
    any64_ = true;
    missing_ = missing_ || next_ + 8 > end_;
    next_ += 8;
    return missing_ ? 0 : zip_.at64(next_ - 8);
  }
  bool any64() const { return any64_; }
  bool missing() const { return missing_; }

 private:
  const Bytes& zip_;
  std::uint64_t next_ = 0, end_ = 0;
  bool any64_ = false, missing_ = false;
};

// The member of a directory entry, whose fixed part lies within the file.
Expected<Member> readMember(const Bytes& zip, std::uint64_t at) {
  const std::size_t nameBytes = zip.at16(at + 28), extraBytes = zip.at16(at + 30);
  const std::uint64_t extra = at + kDirectoryEntryBytes + nameBytes;
  if (!zip.has(at + kDirectoryEntryBytes, nameBytes + extraBytes)) {
    return failure("the archive's directory is damaged");
  }
  constexpr std::uint32_t kUnix = 3, kLink = 0xA;
  const bool isLink = zip.at8(at + 5) == kUnix && zip.at32(at + 38) >> 28 == kLink;
  Numbers numbers(zip, extra, extraBytes);
  const std::uint64_t bytes = numbers.at32(at + 24), packedBytes = numbers.at32(at + 20);
  Member member{zip.at16(at + 10),
                packedBytes,
                bytes,
                numbers.at32(at + 42),
                numbers.any64(),
                isLink,
                platform::visibleText(zip.text(at + kDirectoryEntryBytes, nameBytes))};
  if (numbers.missing()) {
    return memberFails(member, std::string(kSize64) + ", and the size is missing");
  }
  return member;
}

// entry: as the directory describes the member; start: where the archive begins in the file.
Expected<void> auditMember(const Bytes& zip, const Member& entry, std::uint64_t start, Audit& audit) {
  if (entry.is64) {
    leaveOut(audit, entry, kSize64);
  }
  if (!isUnpacked(entry.method)) {
    leaveOut(audit, entry, "is packed by method " + std::to_string(entry.method) + ": not unpacked");
  }
  const std::uint64_t local = start + entry.localOffset;
  if (entry.localOffset > zip.size() || !zip.has(local, kLocalHeaderBytes) ||
      zip.at32(local) != kLocalHeader) {
    return memberFails(entry, "is not where the directory says: the archive is damaged or cut off");
  }
  if (auto audited = auditLocalHeader(zip, entry, local, audit); !audited) {
    return audited;
  }
  const std::uint64_t data = local + kLocalHeaderBytes + zip.at16(local + 26) + zip.at16(local + 28);
  if (!zip.has(data, entry.packedBytes)) {
    return memberFails(entry, "ends beyond the end of the file: the archive is damaged or cut off");
  }
  const std::uint64_t end = data + entry.packedBytes;
  audit.members.push_back({local, end});
  if (entry.isLink && entry.packedBytes != 0) {
    audit.links.push_back({local, std::min<std::uint64_t>(end + kSizesBehindBytes, zip.size())});
  }
  return {};
}

// libclamav gives up an archive whose members overlap. Such an archive is small, and large when unpacked.
Expected<void> auditOverlap(const std::vector<Range>& members) {
  const auto overlap = std::adjacent_find(members.begin(), members.end(),
                                          [](const Range& a, const Range& b) { return b.begin < a.end; });
  return overlap == members.end() ? Expected<void>{}
                                  : failure("the archive's members overlap: damaged or forged");
}

// Whether a member's header stands in bytes that belong to no member. In front of an archive, a program may
// hold the magic bytes.
bool hidesMember(const Bytes& zip, const Range& gap, bool isFront) {
  const auto bytes = zip.text(gap.begin, static_cast<std::size_t>(gap.end - gap.begin));
  for (auto at = bytes.find("PK\3\4"); at != std::string_view::npos; at = bytes.find("PK\3\4", at + 1)) {
    const Bytes header = zip.from(gap.begin + at);
    // Packaging tools for mobile applications fill gaps with headers of no name and no content.
    const bool filler = header.has(0, kLocalHeaderBytes) && header.at32(18) == 0 && header.at16(26) == 0 &&
                        (header.at16(6) & kSizesFollow) == 0;
    if (!filler && (!isFront || isZipMember(header))) {
      return true;
    }
  }
  return false;
}

// Programs that walk from one local header to the next unpack members that the directory does not name.
Expected<void> auditGaps(const Bytes& zip, const std::vector<Range>& members, std::uint64_t directoryAt) {
  std::uint64_t at = 0;
  const bool zipAtBeginning = zip.text(0, 2) == "PK";
  for (std::size_t i = 0; i <= members.size(); ++i) {
    const std::uint64_t end = i < members.size() ? members[i].begin : directoryAt;
    if (at < end && hidesMember(zip, {at, end}, i == 0 && !zipAtBeginning)) {
      return failure(
          i == 0 ? "the archive's directory names none of its members, or not the first: damaged or forged"
                 : "the archive holds a member that its directory does not name: damaged or forged");
    }
    at = i < members.size() ? members[i].end : at;
  }
  return {};
}

struct Directory {
  std::uint64_t at = 0, end = 0;  ///< in the file
  std::uint64_t start = 0;        ///< of the archive: other data may precede it
  std::uint64_t bytes = 0, offset = 0;
  std::uint64_t count = 0;    ///< of its entries
  bool countIsWhole = false;  ///< else `count` holds only the low 16 bits
  bool is64 = false;          ///< libclamav does not understand it
};

bool hasLocator64(const Bytes& zip, std::uint64_t end) {
  return end >= kLocator64Bytes && zip.at32(end - kLocator64Bytes) == kLocator64;
}

// The 64-bit end record stands between the directory and the plain end record. False when the two differ.
bool readEnd64(const Bytes& zip, Directory& directory) {
  const std::uint64_t both = kLocator64Bytes + kDirectoryEnd64Bytes;
  if (directory.end < both || !hasLocator64(zip, directory.end)) {
    return false;
  }
  const auto isRepeated = [](std::uint64_t plain, std::uint64_t number) {
    return plain == kSizeElsewhere || plain == number;
  };
  const std::uint64_t record = directory.end - both;
  const std::uint64_t bytes = zip.at64(record + 40), offset = zip.at64(record + 48);
  if (zip.at32(record) != kDirectoryEnd64 || zip.at64(record + 4) != kDirectoryEnd64Bytes - 12 ||
      !isRepeated(directory.bytes, bytes) || !isRepeated(directory.offset, offset)) {
    return false;
  }
  directory.end = record;
  directory.bytes = bytes;
  directory.offset = offset;
  directory.count = zip.at64(record + 32);
  directory.countIsWhole = true;
  return true;
}

Expected<Directory> readEnd(const Bytes& zip, std::uint64_t end) {
  Directory directory;
  directory.end = end;
  directory.count = zip.at16(end + 10);
  directory.bytes = zip.at32(end + 12);
  directory.offset = zip.at32(end + 16);
  directory.is64 = directory.bytes == kSizeElsewhere || directory.offset == kSizeElsewhere;
  if ((directory.is64 || hasLocator64(zip, end)) && !readEnd64(zip, directory)) {
    return failure("the archive has a 64-bit directory that is described in two ways: damaged or forged");
  }
  if (directory.bytes > directory.end || directory.offset > directory.end - directory.bytes) {
    return failure("the archive's directory is not where it says: damaged or cut off");
  }
  directory.at = directory.end - directory.bytes;
  directory.start = directory.at - directory.offset;
  // libclamav trusts the offset, whatever the size says.
  if (directory.start != 0 && zip.has(directory.offset, 4) && zip.at32(directory.offset) == kDirectoryEntry) {
    return failure(kTwoDirectories);
  }
  return directory;
}

// Whether the end record belongs to a directory with members.
bool leadsToDirectory(const Bytes& zip, std::uint64_t end) {
  const auto hasEntry = [&zip](std::uint64_t at) {
    return zip.has(at, 4) && zip.at32(at) == kDirectoryEntry;
  };
  const std::uint64_t bytes = zip.at32(end + 12), offset = zip.at32(end + 16);
  return hasLocator64(zip, end) || (bytes <= end && bytes != 0 && hasEntry(end - bytes)) || hasEntry(offset);
}

// Some programs take the first end record, others the last.
Expected<void> auditEnds(const Bytes& zip, const std::vector<Range>& members, std::uint64_t end) {
  for (auto other = findDirectoryEnd(zip, end); other; other = findDirectoryEnd(zip, *other)) {
    const auto behind = std::upper_bound(members.begin(), members.end(), *other,
                                         [](std::uint64_t at, const Range& m) { return at < m.begin; });
    const bool inMember = behind != members.begin() && *other < std::prev(behind)->end;
    if (!inMember && leadsToDirectory(zip, *other)) {
      return failure(kTwoDirectories);
    }
  }
  return {};
}

Expected<void> auditEntries(const Bytes& zip, const Directory& directory, Audit& audit) {
  std::uint64_t walked = 0;
  for (std::uint64_t at = directory.at; at < directory.end; ++walked) {
    if (!zip.has(at, kDirectoryEntryBytes) || zip.at32(at) != kDirectoryEntry) {
      break;  // a signature may follow the entries
    }
    const auto entry = readMember(zip, at);
    if (!entry) {
      return failure(entry.error());
    }
    if (auto audited = auditMember(zip, *entry, directory.start, audit); !audited) {
      return audited;
    }
    at += kDirectoryEntryBytes + zip.at16(at + 28) + zip.at16(at + 30) + zip.at16(at + 32);
  }
  if ((directory.countIsWhole ? walked : walked & 0xFFFF) != directory.count) {
    return failure("the archive's directory has " + std::to_string(walked) + " entries and says " +
                   std::to_string(directory.count) + ": damaged or forged");
  }
  return {};
}

}  // namespace

platform::Expected<AuditedZip> auditZip(const char* data, std::size_t size) {
  const Bytes zip(data, size);
  const auto end = findDirectoryEnd(zip, zip.size());
  if (!end) {
    return failure("the archive has no directory: damaged or cut off");
  }
  const auto directory = readEnd(zip, *end);
  if (!directory) {
    return failure(directory.error());
  }
  Audit audit;
  if (directory->is64) {
    audit.leftOut = "the archive has a 64-bit directory: not unpacked";
  }
  auto audited = auditEntries(zip, *directory, audit);
  std::sort(audit.members.begin(), audit.members.end(),
            [](const Range& a, const Range& b) { return a.begin < b.begin; });
  if (audited) {
    audited = auditOverlap(audit.members);
  }
  if (audited) {
    audited = auditGaps(zip, audit.members, directory->at);
  }
  if (audited) {
    audited = auditEnds(zip, audit.members, *end);
  }
  if (!audited) {
    return failure(audited.error());
  }
  return AuditedZip{std::move(audit.leftOut), std::move(audit.links)};
}

bool isZipMember(const Bytes& a) {
  constexpr std::size_t kHeader = 30;
  if (!a.has(0, kHeader) || a.at8(4) > 63 || a.at16(8) > 99) {
    return false;
  }
  const std::size_t nameBytes = a.at16(26);
  if (nameBytes == 0 || nameBytes > 1024 || !a.has(kHeader, nameBytes)) {
    return false;
  }
  const auto name = a.text(kHeader, nameBytes);
  return std::none_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

bool hasZipDirectory(const char* data, std::size_t size) {
  const Bytes zip(data, size);
  for (auto end = findDirectoryEnd(zip, zip.size()); end; end = findDirectoryEnd(zip, *end)) {
    if (leadsToDirectory(zip, *end)) {
      return true;
    }
  }
  return false;
}

}  // namespace agent
