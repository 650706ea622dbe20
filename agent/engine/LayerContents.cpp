#include "engine/LayerContents.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "engine/Bytes.h"
#include "engine/ZipAudit.h"

namespace agent {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMostParts = 1000;
constexpr std::size_t kTarBlock = 512;

/// Where in a layer the archive may begin. kBehind: anywhere but at the beginning.
enum class Where : std::uint8_t { kBeginning, kAnywhere, kBehind };
/// How sure the bytes are. Sure bytes are those that only archives have: anywhere, or at the beginning of a
/// layer.
enum class Sign : std::uint8_t { kCertain, kCertainAtBeginning, kLikely };

// Further checks of a header. The bytes begin where the archive begins.
using Check = bool (*)(const Bytes& archive);

bool isAnything(const Bytes&) {
  return true;
}

bool isGzip(const Bytes& a) {
  return a.has(0, 18) && (a.at8(3) & 0xE0U) == 0;
}

bool isBzip2(const Bytes& a) {
  constexpr auto kBlock = "\x31\x41\x59\x26\x53\x59"sv, kEnd = "\x17\x72\x45\x38\x50\x90"sv;
  return a.has(0, 14) && a.at8(3) >= '1' && a.at8(3) <= '9' &&
         (a.text(4, 6) == kBlock || a.text(4, 6) == kEnd);
}

bool isLzma(const Bytes& a) {
  constexpr std::uint64_t kUnknown = ~std::uint64_t{0}, kLargest = std::uint64_t{1} << 40;
  constexpr std::uint32_t kSmallestDictionary = 4096;
  if (!a.has(0, 18) || a.at8(0) >= 9 * 5 * 5 || a.at8(13) != 0) {
    return false;
  }
  const std::uint32_t dictionary = a.at32(1);
  const bool round = (dictionary & (dictionary - 1)) == 0 ||
                     (dictionary % 3 == 0 && ((dictionary / 3) & (dictionary / 3 - 1)) == 0);
  const std::uint64_t size = a.at64(5);
  return dictionary >= kSmallestDictionary && (round || dictionary == 0xFFFFFFFF) &&
         (size == kUnknown || size < kLargest);
}

bool isSevenZip(const Bytes& a) {
  constexpr std::size_t kStartHeader = 12, kStartHeaderBytes = 20;
  if (!a.has(0, kStartHeader + kStartHeaderBytes)) {
    return false;
  }
  const auto header = a.text(kStartHeader, kStartHeaderBytes);
  const bool unfinished = std::all_of(header.begin(), header.end(), [](char c) { return c == 0; });
  return unfinished ||
         crc32(0, reinterpret_cast<const Bytef*>(header.data()), kStartHeaderBytes) == a.at32(8);
}

bool isRar4(const Bytes& a) {
  constexpr std::uint32_t kMainHeader = 0x73;
  return a.has(0, 20) && a.at8(9) == kMainHeader;
}

bool isRar5(const Bytes& a) {
  constexpr std::uint32_t kMainHeader = 1, kEncryptionHeader = 4;
  std::size_t at = 12;  // behind the magic bytes and the checksum: the header's size, seven bits a byte
  while (a.has(at, 2) && at < 15 && (a.at8(at) & 0x80U) != 0) {
    ++at;
  }
  return a.has(at, 2) && (a.at8(at + 1) == kMainHeader || a.at8(at + 1) == kEncryptionHeader);
}

bool isCab(const Bytes& a) {
  return a.has(0, 36) && a.at32(4) == 0 && a.at32(12) == 0 && a.at8(25) == 1;
}

bool isTar(const Bytes& a) {
  constexpr std::size_t kSum = 148, kSumBytes = 8;
  if (!a.has(0, kTarBlock)) {
    return false;
  }
  std::uint32_t sum = 0;
  std::int32_t signedSum = 0;  // as some old programs add
  for (std::size_t i = 0; i < kTarBlock; ++i) {
    const bool inSum = i >= kSum && i < kSum + kSumBytes;
    sum += inSum ? ' ' : a.at8(i);
    signedSum += inSum ? ' ' : static_cast<signed char>(a.at8(i));
  }
  std::uint32_t written = 0;
  bool any = false;
  for (std::size_t i = kSum; i < kSum + kSumBytes; ++i) {
    const std::uint32_t c = a.at8(i);
    if (c >= '0' && c <= '7') {
      written = written * 8 + (c - '0');
      any = true;
    } else if (any || c != ' ') {
      break;
    }
  }
  return any && (written == sum || static_cast<std::int32_t>(written) == signedSum);
}

bool isCpio(const Bytes& a) {
  constexpr std::size_t kHeader = 76;
  if (!a.has(0, kHeader)) {
    return false;
  }
  const auto header = a.text(0, kHeader);
  return std::all_of(header.begin(), header.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
}

bool isSquashFs(const Bytes& a) {
  if (!a.has(0, 96)) {
    return false;
  }
  const std::uint32_t littleMajor = a.at16(28), bigMajor = a.at8(28) << 8 | a.at8(29);
  const bool little = littleMajor >= 1 && littleMajor <= 4, big = bigMajor >= 1 && bigMajor <= 4;
  return little || big;
}

bool isWim(const Bytes& a) {
  return a.has(0, 208) && a.at32(8) == 208;
}

bool isExt(const Bytes& a) {
  constexpr std::size_t kSuperblock = 1024;
  return a.has(kSuperblock, 1024) && a.at32(kSuperblock) != 0 && a.at32(kSuperblock + 24) <= 6 &&
         a.at16(kSuperblock + 58) <= 7 && a.at32(kSuperblock + 76) <= 1;
}

struct Magic {
  const char* type;
  std::size_t offset;  ///< of the bytes from the beginning of the archive
  std::string_view bytes;
  Where where;
  Sign sign;
  Check check;
};

constexpr Magic kMagics[] = {
    {"CL_TYPE_GZ", 0, "\x1F\x8B\x08"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isGzip},
    {"CL_TYPE_BZ", 0, "BZh"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isBzip2},
    {"CL_TYPE_XZ", 0,
     "\xFD"
     "7zXZ\0"sv,
     Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"TAV_ZSTD", 0, "\x28\xB5\x2F\xFD"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"TAV_LZ4", 0, "\x04\x22\x4D\x18"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"TAV_LZ4", 0, "\x02\x21\x4C\x18"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LZMA", 0, "\x5D\x00\x00"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isLzma},
    {"TAV_LZMA", 0, ""sv, Where::kBeginning, Sign::kLikely, isLzma},
    {"TAV_LZIP", 0, "LZIP\1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_COMPRESS", 0, "\x1F\x9D"sv, Where::kBeginning, Sign::kLikely, isAnything},
    {"TAV_RPM", 0, "\xED\xAB\xEE\xDB"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_AR", 0, "!<arch>\n"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"CL_TYPE_POSIX_TAR", 257, "ustar"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isTar},
    {"CL_TYPE_OLD_TAR", 0, ""sv, Where::kBeginning, Sign::kCertain, isTar},
    {"CL_TYPE_CPIO_NEWC", 0, "07070"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCpio},
    {"CL_TYPE_CPIO_OLD", 0, "\xC7\x71"sv, Where::kBeginning, Sign::kLikely, isAnything},
    {"CL_TYPE_CPIO_OLD", 0, "\x71\xC7"sv, Where::kBeginning, Sign::kLikely, isAnything},
    {"CL_TYPE_ISO9660", 32768, "\1CD001"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"CL_TYPE_XAR", 0, "xar!\0"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"CL_TYPE_7Z", 0, "7z\xBC\xAF\x27\x1C"sv, Where::kAnywhere, Sign::kCertain, isSevenZip},
    {"CL_TYPE_RAR", 0, "Rar!\x1A\x07\x00"sv, Where::kAnywhere, Sign::kCertain, isRar4},
    {"CL_TYPE_RAR", 0, "Rar!\x1A\x07\x01\x00"sv, Where::kAnywhere, Sign::kCertain, isRar5},
    {"CL_TYPE_MSCAB", 0, "MSCF\0\0\0\0"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCab},
    {"TAV_ZIPSTREAM", 0, "PK\3\4"sv, Where::kBehind, Sign::kLikely, isZipMember},
    {"TAV_SQUASHFS", 0, "hsqs"sv, Where::kAnywhere, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "sqsh"sv, Where::kAnywhere, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "shsq"sv, Where::kBeginning, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "qshs"sv, Where::kBeginning, Sign::kCertain, isSquashFs},
    {"TAV_WIM", 0, "MSWIM\0\0\0"sv, Where::kAnywhere, Sign::kCertain, isWim},
    {"TAV_WIM", 0, "WLPWM\0\0\0"sv, Where::kAnywhere, Sign::kCertain, isWim},
    {"TAV_CRAMFS", 0, "\x45\x3D\xCD\x28"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_CRAMFS", 16, "Compressed ROMFS"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ROMFS", 0, "-rom1fs-"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_EROFS", 1024, "\xE2\xE1\xF5\xE0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_EXT", 1080, "\x53\xEF"sv, Where::kBeginning, Sign::kCertain, isExt},
    {"TAV_XFS", 0, "XFSB\0\0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_BTRFS", 0x10040, "_BHRfS_M"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 54, "FAT12   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 54, "FAT16   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 82, "FAT32   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_NTFS", 3, "NTFS    "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LUKS", 0, "LUKS\xBA\xBE"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_QCOW", 0, "QFI\xFB"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VMDK", 0, "KDMV"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VDI", 0x40, "\x7F\x10\xDA\xBE"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VHD", 0, "conectix"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VHDX", 0, "vhdxfile"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LZOP", 0, "\x89LZO\0\r\n\x1A\n"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LRZIP", 0, "LRZI"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_RZIP", 0, "RZIP\2"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZPAQ", 0, "7kSt\xA0\x31\x83\xD3"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZPAQ", 0, "zPQ"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZOO", 20, "\xDC\xA7\xC4\xFD"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ACE", 7, "**ACE**"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_STUFFIT", 0, "StuffIt "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_STUFFIT", 10, "rLau"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_SNAPPY", 0, "\xFF\x06\0\0sNaPpY"sv, Where::kBeginning, Sign::kCertain, isAnything},
};

bool matches(const Magic& magic, const Bytes& archive) {
  return archive.has(magic.offset, magic.bytes.size()) &&
         archive.text(magic.offset, magic.bytes.size()) == magic.bytes && magic.check(archive);
}

// Skippable frames may precede the first frame of a zst or lz4 file.
bool isSkippableFrame(const Bytes& layer) {
  return layer.has(0, 8) && (layer.at32(0) & ~0xFU) == 0x184D2A50U;
}

void addBeginning(const Bytes& layer, Contents& contents) {
  const auto add = [&contents](const char* type, Failure failure) {
    const ArchiveKind* kind = archiveKindOf(type);
    const bool known = std::any_of(contents.parts.begin(), contents.parts.end(),
                                   [kind](const Part& p) { return p.kind->reader == kind->reader; });
    if (!known) {
      contents.parts.push_back({kind, 0, failure, {}});
    }
  };
  for (const auto& magic : kMagics) {
    if (magic.where != Where::kBehind && matches(magic, layer)) {
      add(magic.type, magic.sign == Sign::kLikely ? Failure::kCountsIfYielded : Failure::kCounts);
    }
  }
  if (isSkippableFrame(layer)) {
    add("TAV_ZSTD", Failure::kCountsIfYielded);
    add("TAV_LZ4", Failure::kCountsIfYielded);
  }
}

constexpr std::size_t kPairs = 0x10000;  // of two bytes

// Pairs of bytes of the magics that may stand behind the beginning: bytes 1 and 2, and bytes 2 and 3.
struct SearchedPairs {
  std::array<std::uint8_t, kPairs> first{}, second{};
};

const SearchedPairs& searchedPairs() {
  static const SearchedPairs pairs = [] {
    SearchedPairs set;
    for (const auto& magic : kMagics) {
      if (magic.where != Where::kBeginning) {
        const Bytes bytes(magic.bytes.data(), magic.bytes.size());
        set.first[bytes.at16(0)] = 1;
        set.second[bytes.at16(1)] = 1;
      }
    }
    return set;
  }();
  return pairs;
}

// What is searched for behind the beginning.
struct Search {
  bool onlyCertain = false;  // and tar and cpio
  bool tarAndCpio = true;
};

bool isTarOrCpio(Reader reader) {
  return reader == Reader::kTar || reader == Reader::kCpio;
}

bool isWanted(const Magic& magic, Reader reader, const Search& search) {
  if (magic.where == Where::kBeginning) {
    return false;
  }
  return isTarOrCpio(reader) ? search.tarAndCpio : magic.sign == Sign::kCertain || !search.onlyCertain;
}

// Each member of a tar or a cpio has a header. Those of a tar stand at multiples of the block.
bool addToLast(const ArchiveKind* kind, std::uint64_t at, Contents& contents) {
  const auto last = std::find_if(contents.parts.rbegin(), contents.parts.rend(), [&](const Part& part) {
    return part.kind->reader == kind->reader && part.offset > 0 &&
           (kind->reader == Reader::kCpio || (at - part.offset) % kTarBlock == 0);
  });
  if (!isTarOrCpio(kind->reader) || last == contents.parts.rend()) {
    return false;
  }
  last->later.push_back(at - last->offset);
  return true;
}

void addAt(const Bytes& layer, std::size_t at, const Search& search, Contents& contents) {
  for (const auto& magic : kMagics) {
    const ArchiveKind* kind = archiveKindOf(magic.type);
    if (!isWanted(magic, kind->reader, search) || at <= magic.offset ||
        !matches(magic, layer.from(at - magic.offset))) {
      continue;
    }
    if (addToLast(kind, at - magic.offset, contents)) {
      continue;
    }
    // Each member of a zip has a header. The first is the beginning.
    if (kind->reader == Reader::kZipStream && std::exchange(contents.hasZipStream, true)) {
      continue;
    }
    if (contents.parts.size() >= kMostParts) {
      contents.tooMany = true;
      return;
    }
    contents.parts.push_back(
        {kind, at - magic.offset, magic.sign == Sign::kCertain ? Failure::kCounts : Failure::kIgnored, {}});
  }
}

// Calls addAt for each place where a magic may begin. The test of two pairs without a branch between them
// takes half the time of a branch for each pair.
void addBehind(const Bytes& layer, const Search& search, Contents& contents) {
  const std::uint8_t* first = searchedPairs().first.data();
  const std::uint8_t* second = searchedPairs().second.data();
  const auto* bytes = reinterpret_cast<const unsigned char*>(layer.text(0, layer.size()).data());
  const std::size_t end = layer.size();
  for (std::size_t at = 1; at + 2 < end; ++at) {
    const unsigned pair = bytes[at] | bytes[at + 1] << 8U, next = bytes[at + 1] | bytes[at + 2] << 8U;
    if ((first[pair] & second[next]) != 0) {
      addAt(layer, at, search, contents);
    }
  }
}

}  // namespace

Contents lookInto(const char* data, std::size_t size, const ArchiveKind* kind) {
  const Bytes layer(data, size);
  Contents contents;
  addBeginning(layer, contents);
  const auto isArchive = [](const Part& part) { return part.failure == Failure::kCounts; };
  const auto isMadeOfMembers = [&isArchive](const Part& part) {
    return isArchive(part) && isTarOrCpio(part.kind->reader);
  };
  const auto& begin = contents.parts;
  // libclamav calls a file an archive by its first bytes. libarchive and the audit of zips look at the whole.
  const bool isAudited = kind != nullptr && isReadByLibarchive(*kind);
  addBehind(layer,
            {isAudited || std::any_of(begin.begin(), begin.end(), isArchive),
             (kind == nullptr || !isTarOrCpio(kind->reader)) &&
                 std::none_of(begin.begin(), begin.end(), isMadeOfMembers)},
            contents);
  return contents;
}

}  // namespace agent
