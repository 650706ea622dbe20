#include "engine/HeaderChecks.h"

#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace agent {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kTarBlock = 512;

std::uint32_t crcOf(std::string_view text) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size())));
}

bool isPowerOfTwo(std::uint32_t number) {
  return number != 0 && (number & (number - 1)) == 0;
}

bool isPrintable(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

bool isOctalDigit(char c) {
  return c >= '0' && c <= '7';
}

bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isLzmaHeader(const Bytes& a) {
  constexpr std::uint64_t kUnknown = ~std::uint64_t{0}, kLargest = std::uint64_t{1} << 40;
  if (!a.has(0, 18) || a.at8(0) >= 9 * 5 * 5 || a.at8(13) != 0) {
    return false;
  }
  const std::uint64_t size = a.at64(5);
  return size == kUnknown || size < kLargest;
}

}  // namespace

bool isGzip(const Bytes& a) {
  return a.has(0, 18) && (a.at8(3) & 0xE0U) == 0;
}

// The size of the content, the largest length of a code, and the number of codes of each length.
bool isPack(const Bytes& a) {
  constexpr std::uint32_t kLongestCode = 25;
  return a.has(0, 12) && a.big32(2) != 0 && a.at8(6) >= 1 && a.at8(6) <= kLongestCode;
}

bool isZlib(const Bytes& a) {
  constexpr std::uint32_t kDeflate = 8, kLargestWindow = 7, kDictionary = 0x20;
  return a.has(0, 8) && (a.at8(0) & 0xFU) == kDeflate && a.at8(0) >> 4 <= kLargestWindow &&
         (a.at8(1) & kDictionary) == 0 && a.big16(0) % 31 == 0;
}

// The longest code, in bits, and a flag that only the first version does not set.
bool isCompress(const Bytes& a) {
  constexpr std::uint32_t kShortest = 9, kLongest = 16, kBits = 0x1F, kReserved = 0x60;
  return a.has(0, 3) && (a.at8(2) & kReserved) == 0 && (a.at8(2) & kBits) >= kShortest &&
         (a.at8(2) & kBits) <= kLongest;
}

bool isBzip2(const Bytes& a) {
  constexpr auto kBlock = "\x31\x41\x59\x26\x53\x59"sv, kEnd = "\x17\x72\x45\x38\x50\x90"sv;
  return a.has(0, 14) && a.at8(3) >= '1' && a.at8(3) <= '9' &&
         (a.text(4, 6) == kBlock || a.text(4, 6) == kEnd);
}

bool isXz(const Bytes& a) {
  return a.has(0, 12) && crcOf(a.text(6, 2)) == a.at32(8);
}

bool isZstd(const Bytes& a) {
  constexpr std::uint32_t kReserved = 8;
  return a.has(0, 6) && (a.at8(4) & kReserved) == 0;
}

bool isLz4(const Bytes& a) {
  return a.has(0, 7) && a.at8(4) >> 6 == 1 && (a.at8(4) & 2U) == 0 && (a.at8(5) & 0x8FU) == 0;
}

bool isLzma(const Bytes& a) {
  constexpr std::uint32_t kSmallestDictionary = 4096;
  if (!isLzmaHeader(a)) {
    return false;
  }
  const std::uint32_t dictionary = a.at32(1);
  const bool round = isPowerOfTwo(dictionary) || (dictionary % 3 == 0 && isPowerOfTwo(dictionary / 3));
  return dictionary >= kSmallestDictionary && (round || dictionary == 0xFFFFFFFF);
}

bool isLzmaOfAnyDictionary(const Bytes& a) {
  return isLzmaHeader(a);
}

bool isSevenZip(const Bytes& a) {
  constexpr std::size_t kStartHeader = 12, kStartHeaderBytes = 20;
  if (!a.has(0, kStartHeader + kStartHeaderBytes)) {
    return false;
  }
  const auto header = a.text(kStartHeader, kStartHeaderBytes);
  const bool isVersion = a.at8(6) == 0 && a.at8(7) >= 2;
  const bool unfinished =
      isVersion && std::all_of(header.begin(), header.end(), [](char c) { return c == 0; });
  return unfinished || crcOf(header) == a.at32(8);
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

bool isWholeCab(const Bytes& a) {
  constexpr std::uint32_t kHeader = 36;
  if (!a.has(0, kHeader)) {
    return false;
  }
  const std::uint32_t size = a.at32(8), firstFile = a.at32(16), folders = a.at16(26), files = a.at16(28);
  return a.has(0, size) && firstFile >= kHeader && firstFile < size && folders > 0 && files > 0;
}

bool isCab(const Bytes& a) {
  return a.has(0, 36) && a.at32(4) == 0 && a.at32(12) == 0 && a.at8(25) == 1;
}

// The method is "-lh5-" or the like. Headers of the levels 0 and 1 have a checksum.
bool isLzh(const Bytes& a) {
  constexpr std::size_t kLevel = 20;
  if (!a.has(0, kLevel + 2) || a.at8(6) != '-') {
    return false;
  }
  const std::size_t size = a.at8(0), level = a.at8(kLevel);
  if (level > 1) {
    return level <= 3;
  }
  if (size < kLevel || !a.has(2, size)) {
    return false;
  }
  std::uint32_t sum = 0;
  for (std::size_t i = 2; i < 2 + size; ++i) {
    sum += a.at8(i);
  }
  return (sum & 0xFFU) == a.at8(1);
}

namespace {

struct LzhNotes {
  bool name = false, sum = false;
};

// What the headers behind a header of level 2 or 3 hold. Each has a type and ends with the size of the next.
// bytes: of a size. end: of all.
LzhNotes followLzhHeaders(const Bytes& a, std::uint64_t end, std::size_t bytes) {
  constexpr std::size_t kFixed = 24;
  constexpr std::uint32_t kSum = 0, kName = 1;
  LzhNotes notes;
  std::uint64_t at = kFixed + (bytes == 2 ? 0 : bytes);
  while (at + bytes <= end && a.has(at, bytes)) {
    const std::uint32_t size = bytes == 2 ? a.at16(at) : a.at32(at);
    if (size == 0) {
      return notes;
    }
    at += bytes;
    if (size <= bytes || !a.has(at, size) || at + size > end) {
      break;
    }
    notes.name = notes.name || a.at8(at) == kName;
    notes.sum = notes.sum || a.at8(at) == kSum;
    at += size - bytes;
  }
  return {};
}

LzhNotes notesOfLzh(const Bytes& a) {
  constexpr std::size_t kLevel = 20, kNameBytes = 21, kName = 22, kSizeOfLevel3 = 24;
  const std::uint32_t level = a.at8(kLevel);
  if (level == 2) {
    return followLzhHeaders(a, a.at16(0), 2);
  }
  if (level == 3) {
    const bool hasSize = a.at16(0) == 4 && a.has(kSizeOfLevel3, 4);
    return hasSize ? followLzhHeaders(a, a.at32(kSizeOfLevel3), 4) : LzhNotes{};
  }
  const std::uint32_t bytes = a.at8(kNameBytes);
  if (kName + bytes > a.at8(0) || !a.has(kName, bytes)) {
    return {};
  }
  const auto name = a.text(kName, bytes);
  const auto beforeComment = name.substr(0, name.find('\0'));
  return {isPrintable(beforeComment) && (!beforeComment.empty() || level == 1), true};
}

}  // namespace

bool isLzhBehind(const Bytes& a) {
  constexpr std::size_t kLevel = 20, kFixedOfLevel2 = 26;
  return isLzh(a) && (a.at8(kLevel) != 2 || a.at16(0) >= kFixedOfLevel2) &&
         (a.at8(kLevel) != 3 || a.at16(0) == 4);
}

bool isRefusedLzh(const Bytes& a) {
  constexpr std::string_view kKnown[] = {"lh0", "lh5", "lh6", "lh7", "lhd", "lz4"};
  constexpr std::size_t kMethod = 3, kMethodBytes = 3, kPackedSize = 7;
  if (!isLzh(a) || a.at32(kPackedSize) == 0 || !a.has(0, a.at32(kPackedSize))) {
    return false;
  }
  const auto method = a.text(kMethod, kMethodBytes);
  const auto last = static_cast<unsigned char>(method.back());
  const bool isKnown = std::find(std::begin(kKnown), std::end(kKnown), method) != std::end(kKnown);
  const LzhNotes notes = notesOfLzh(a);
  return (std::isdigit(last) != 0 || std::islower(last) != 0) && notes.name && !(isKnown && notes.sum);
}

bool isArc(const Bytes& a) {
  constexpr std::size_t kName = 2, kNameBytes = 13, kHeader = 29;
  if (!a.has(0, kHeader) || a.at8(1) == 0 || a.at8(1) > 9 || !a.has(kHeader, a.at32(15))) {
    return false;
  }
  const auto name = a.text(kName, kNameBytes);
  const std::size_t length = name.find('\0');
  return length != 0 && length != std::string_view::npos && isPrintable(name.substr(0, length));
}

namespace {

// The month comes after five bits of the day; the hour and the minute after five bits of seconds by two.
bool isDateOfArc(std::uint32_t date, std::uint32_t time) {
  constexpr std::uint32_t kLastMonth = 12, kLastHour = 23, kLastMinute = 59, kLastSecond = 29;
  if (date == 0) {
    return time == 0;
  }
  const std::uint32_t day = date & 31U, month = date >> 5U & 15U;
  return day != 0 && month != 0 && month <= kLastMonth && time >> 11U <= kLastHour &&
         (time >> 5U & 63U) <= kLastMinute && (time & 31U) <= kLastSecond;
}

// By the name, the date and the sizes. The content may be cut off.
bool isArcHeader(const Bytes& a) {
  constexpr std::uint32_t kMark = 0x1A, kOldStored = 1, kStored = 2, kLastMethod = 9;
  constexpr std::size_t kName = 2, kNameBytes = 13, kSize = 15, kDate = 19, kTime = 21, kRealSize = 25,
                        kHeader = 29;
  if (!a.has(0, kHeader) || a.at8(0) != kMark || a.at8(1) == 0 || a.at8(1) > kLastMethod) {
    return false;
  }
  const auto name = a.text(kName, kNameBytes);
  const auto isOfName = [](char c) { return c > ' ' && c < '\x7F'; };
  const std::size_t length = name.find('\0');
  if (length == 0 || length == std::string_view::npos) {
    return false;
  }
  const auto text = name.substr(0, length);
  const std::uint32_t method = a.at8(1), size = a.at32(kSize);
  // Other methods are used only when the content gets smaller.
  const bool isSize =
      size != 0 && (method == kOldStored || (method == kStored && a.at32(kRealSize) == size) ||
                    (method > kStored && a.at32(kRealSize) >= size));
  return isSize && isDateOfArc(a.at16(kDate), a.at16(kTime)) &&
         std::all_of(text.begin(), text.end(), isOfName);
}

}  // namespace

bool isArcMember(const Bytes& a) {
  constexpr std::size_t kSize = 15, kShortHeader = 25, kHeader = 29;
  constexpr std::uint32_t kMark = 0x1A;
  if (!isArcHeader(a)) {
    return false;
  }
  const std::uint64_t next = (a.at8(1) == 1 ? kShortHeader : kHeader) + std::uint64_t{a.at32(kSize)};
  const bool isEndMark = a.has(next, 2) && a.at8(next) == kMark && a.at8(next + 1) == 0;
  return next == a.size() || isEndMark || (a.has(next, 2) && isArcHeader(a.from(next)));
}

bool isWholeArj(const Bytes& a) {
  constexpr std::uint32_t kMagic = 0xEA60, kSmallest = 30, kLastMethod = 4;
  constexpr std::size_t kStart = 4, kMethod = 5, kPackedSize = 12;
  std::uint64_t at = 0;
  for (bool isMember = false; a.has(at, kStart) && a.at16(at) == kMagic; isMember = true) {
    const std::uint32_t size = a.at16(at + 2);
    if (size == 0) {
      return true;
    }
    if (size < kSmallest || !a.has(at + kStart, size)) {
      return false;
    }
    const Bytes header = a.from(at + kStart);
    if (isMember && header.at8(kMethod) > kLastMethod) {
      return false;
    }
    at += kStart + size + 4;  // and its sum
    while (a.has(at, 2) && a.at16(at) != 0) {
      at += 2 + a.at16(at) + 4;
    }
    at += 2 + (isMember ? header.at32(kPackedSize) : 0);
  }
  return false;
}

// The rights, as octal digits, and the name. The first line of the content begins with the number of its
// bytes.
bool isUuencode(const Bytes& a) {
  constexpr auto kText = "begin "sv, kTextOfBase64 = "begin-base64 "sv;
  constexpr std::size_t kLongestHeader = 1024, kRights = 3;
  std::string_view text = a.text(0, std::min<std::uint64_t>(a.size(), kLongestHeader));
  const bool isBase64 = text.starts_with(kTextOfBase64);
  text.remove_prefix(isBase64 ? kTextOfBase64.size() : kText.size());
  const std::size_t rights = std::min(text.find_first_not_of("01234567"), text.size());
  const std::size_t line = text.find('\n');
  if (rights < kRights || line == std::string_view::npos || text[rights] != ' ') {
    return false;
  }
  text = text.substr(line + 1, text.find('\n', line + 1) - line - 1);
  const std::size_t bytes = text.empty() ? 0 : (static_cast<unsigned char>(text.front()) - 32U) & 63U;
  const bool isPacked =
      std::all_of(text.begin(), text.end(), [](char c) { return c == '\r' || (c >= ' ' && c <= '`'); });
  return isBase64 || (bytes != 0 && isPacked && text.size() > bytes * 4 / 3);
}

bool isCpioText(const Bytes& a) {
  constexpr std::size_t kHeader = 76;
  if (!a.has(0, kHeader)) {
    return false;
  }
  const auto header = a.text(0, kHeader);
  return std::all_of(header.begin(), header.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  });
}

bool isCpioBinary(const Bytes& a) {
  constexpr std::size_t kHeader = 26, kMode = 6, kNameSize = 20;
  constexpr std::uint32_t kLongestName = 1024;
  if (!a.has(0, kHeader)) {
    return false;
  }
  const bool big = a.at8(0) == 0x71;
  const auto number = [&](std::size_t at) { return big ? a.big16(at) : a.at16(at); };
  const std::uint32_t nameBytes = number(kNameSize);
  if (nameBytes < 2 || nameBytes > kLongestName || !a.has(kHeader, nameBytes)) {
    return false;
  }
  const auto name = a.text(kHeader, nameBytes);
  const std::string_view kFileTypes = "\1\2\4\6\x8\xA\xC"sv;
  const bool isFile = kFileTypes.find(static_cast<char>(number(kMode) >> 12)) != std::string_view::npos;
  return name.back() == '\0' && isPrintable(name.substr(0, nameBytes - 1)) && isFile;
}

// Other programs skip one NUL and any white space before the digits of the checksum.
bool isTar(const Bytes& a) {
  constexpr std::size_t kSum = 148, kSumBytes = 8;
  if (!a.has(0, kTarBlock)) {
    return false;
  }
  std::string_view digits = a.text(kSum, kSumBytes);
  if (digits.front() == '\0') {
    digits.remove_prefix(1);
  }
  while (!digits.empty() && isSpace(digits.front())) {
    digits.remove_prefix(1);
  }
  if (digits.empty() || !isOctalDigit(digits.front())) {
    return false;
  }
  std::uint32_t written = 0;
  for (; !digits.empty() && isOctalDigit(digits.front()); digits.remove_prefix(1)) {
    written = written * 8 + static_cast<std::uint32_t>(digits.front() - '0');
  }
  std::uint32_t sum = 0;
  std::int32_t signedSum = 0;  // as some old programs add
  for (std::size_t i = 0; i < kTarBlock; ++i) {
    const bool inSum = i >= kSum && i < kSum + kSumBytes;
    sum += inSum ? ' ' : a.at8(i);
    signedSum += inSum ? ' ' : static_cast<signed char>(a.at8(i));
  }
  return written == sum || static_cast<std::int32_t>(written) == signedSum;
}

bool isTarOfDigits(const Bytes& a) {
  constexpr std::size_t kSum = 148, kDigits = 6;
  const auto isDigit = [](char c) { return isOctalDigit(c) || c == ' '; };
  if (!a.has(kSum, kDigits)) {
    return false;
  }
  const auto digits = a.text(kSum, kDigits);
  return std::all_of(digits.begin(), digits.end(), isDigit) && isTar(a);
}

// In version 4, the size of a block and its logarithm; in older versions, the logarithm alone.
bool isSquashFs(const Bytes& a) {
  if (!a.has(0, 96)) {
    return false;
  }
  constexpr std::uint32_t kSmallest = 12, kLargest = 20;
  for (const bool big : {false, true}) {
    const auto number = [&](std::size_t at) { return big ? a.big16(at) : a.at16(at); };
    const std::uint32_t major = number(28), log = number(major == 4 ? 22 : 34);
    const std::uint32_t block = big ? a.big32(12) : a.at32(12);
    const bool isLog = log >= kSmallest && log <= kLargest;
    if (major >= 1 && major <= 4 && isLog && (major < 4 || block == std::uint32_t{1} << log)) {
      return true;
    }
  }
  return false;
}

bool isWim(const Bytes& a) {
  return a.has(0, 208) && a.at32(8) == 208;
}

bool isExt(const Bytes& a) {
  constexpr std::size_t kSuperblock = 1024;
  return a.has(kSuperblock, 1024) && a.at32(kSuperblock) != 0 && a.at32(kSuperblock + 24) <= 6 &&
         a.at16(kSuperblock + 58) <= 7 && a.at32(kSuperblock + 76) <= 1;
}

// The groups are not larger than one block of bits.
bool isExtVolume(const Bytes& a) {
  constexpr std::size_t kSuperblock = 1024;
  if (!isExt(a)) {
    return false;
  }
  const auto number = [&](std::size_t at) { return a.at32(kSuperblock + at); };
  const std::uint32_t log = number(24), mostInGroup = std::uint32_t{8 * 1024} << log;
  const std::uint32_t blocks = number(4), firstBlock = number(20), blocksOfGroup = number(32),
                      inodesOfGroup = number(40);
  return blocks != 0 && firstBlock == (log == 0 ? 1 : 0) && blocksOfGroup != 0 &&
         blocksOfGroup <= mostInGroup && inodesOfGroup != 0 && inodesOfGroup <= mostInGroup;
}

// By the table of the volume's sizes: other programs do not read the text behind the table.
bool isFat(const Bytes& a) {
  constexpr std::size_t kBootSector = 512;
  if (!a.has(0, kBootSector) || (a.at8(0) != 0xEB && a.at8(0) != 0xE9)) {
    return false;
  }
  const std::uint32_t sector = a.at16(11), cluster = a.at8(13), reserved = a.at16(14), tables = a.at8(16);
  const bool anySectors = a.at16(19) != 0 || a.at32(32) != 0;
  return isPowerOfTwo(sector) && sector >= kBootSector && sector <= 4096 && isPowerOfTwo(cluster) &&
         reserved != 0 && tables >= 1 && tables <= 2 && a.at8(21) >= 0xF0 && anySectors;
}

bool isWholeFat(const Bytes& a) {
  if (!isFat(a)) {
    return false;
  }
  const std::uint64_t table = std::uint64_t{a.at16(11)} * a.at16(14);
  return a.has(table, 3) && a.at8(table) == a.at8(21) && a.at16(table + 1) == 0xFFFF;
}

// The table of files is where the boot sector says.
bool isWholeNtfs(const Bytes& a) {
  constexpr std::size_t kBootSector = 512;
  if (!a.has(0, kBootSector) || a.text(3, 8) != "NTFS    ") {
    return false;
  }
  const std::uint64_t cluster = std::uint64_t{a.at16(11)} * a.at8(13), first = a.at64(48);
  return first < a.size() && a.has(first * cluster, 4) && a.text(first * cluster, 4) == "FILE";
}

bool isCramFs(const Bytes& a) {
  constexpr auto kText = "Compressed ROMFS"sv;
  return a.has(16, kText.size()) && a.text(16, kText.size()) == kText;
}

// The kind of a node stands behind the magic bytes, in the same order of bytes.
bool isJffs2(const Bytes& a) {
  constexpr std::uint32_t kInode = 0xE002, kEntry = 0xE001, kCleanMarker = 0x2003, kPadding = 0x2004;
  if (!a.has(0, 12)) {
    return false;
  }
  const std::uint32_t node = a.at8(0) == 0x85 ? a.at16(2) : a.big16(2);
  return node == kInode || node == kEntry || node == kCleanMarker || node == kPadding;
}

bool isHfs(const Bytes& a) {
  constexpr std::size_t kBlock = 1024, kBlocks = kBlock + 18, kBlockBytes = kBlock + 20;
  return a.has(kBlock, 162) && a.big16(kBlocks) != 0 && a.big32(kBlockBytes) != 0 &&
         a.big32(kBlockBytes) % 512 == 0;
}

bool isHfsPlus(const Bytes& a) {
  constexpr std::size_t kHeader = 1024, kBlockBytes = kHeader + 40;
  const bool hasHeader = a.has(kHeader, 512);
  return hasHeader && (a.big16(kHeader + 2) == 4 || a.big16(kHeader + 2) == 5) &&
         isPowerOfTwo(a.big32(kBlockBytes)) && a.big32(kBlockBytes) >= 512;
}

bool isMinix(const Bytes& a) {
  constexpr std::size_t kSuperblock = 1024;
  if (!a.has(kSuperblock, 64)) {
    return false;
  }
  const bool third = a.at16(kSuperblock + 24) == 0x4D5A;
  const std::uint32_t inodeMap = a.at16(kSuperblock + (third ? 6 : 4)),
                      zoneMap = a.at16(kSuperblock + (third ? 8 : 6));
  return a.at16(kSuperblock) != 0 && inodeMap != 0 && inodeMap < 4096 && zoneMap != 0 &&
         a.at16(kSuperblock + (third ? 12 : 10)) <= 8;
}

// The order of bytes, and the logarithms of the sizes of sectors.
bool isOle2(const Bytes& a) {
  constexpr std::size_t kHeader = 512, kOrder = 28, kSector = 30, kSmallSector = 32, kTables = 44;
  return a.has(0, kHeader) && a.at16(kOrder) == 0xFFFE && (a.at16(kSector) == 9 || a.at16(kSector) == 12) &&
         a.at16(kSmallSector) < a.at16(kSector) && a.at32(kTables) != 0;
}

std::uint64_t sizeOfOle2(const Bytes& a) {
  constexpr std::size_t kSector = 30, kTables = 44, kEntryBytes = 4;
  const std::uint64_t sector = std::uint64_t{1} << a.at16(kSector);
  return (a.at32(kTables) * (sector / kEntryBytes) + 1) * sector;
}

bool hasUdfTree(const Bytes& a) {
  constexpr std::size_t kFirst = 32768, kSector = 2048, kSectors = 16;
  for (std::size_t i = 1; i < kSectors; ++i) {
    const std::size_t at = kFirst + i * kSector + 1;
    if (a.has(at, 5) && (a.text(at, 5) == "NSR02"sv || a.text(at, 5) == "NSR03"sv)) {
      return true;
    }
  }
  return false;
}

namespace {

// The size of a member. A number of several bytes, or octal digits behind blanks. Other programs read further
// ways of writing.
struct TarSize {
  std::uint64_t value = 0;
  bool odd = false;
};

TarSize tarSize(std::string_view field) {
  TarSize size;
  if ((static_cast<unsigned char>(field.front()) & 0x80U) != 0) {
    for (const char c : field.substr(4)) {
      size.value = size.value << 8 | static_cast<unsigned char>(c);
    }
    return size;
  }
  while (!field.empty() && field.front() == ' ') {
    field.remove_prefix(1);
  }
  if (!field.empty() && !isOctalDigit(field.front())) {
    size.odd = field.find_first_not_of("\0 "sv) != std::string_view::npos;
  }
  for (; !field.empty() && isOctalDigit(field.front()); field.remove_prefix(1)) {
    size.value = size.value * 8 + static_cast<std::uint64_t>(field.front() - '0');
  }
  return size;
}

// The last number of a record "… size=NUMBER" in a header of attributes.
bool readPaxSize(std::string_view records, std::uint64_t& value) {
  const std::size_t at = records.rfind(" size=");
  if (at == std::string_view::npos) {
    return false;
  }
  value = 0;
  for (std::size_t i = at + 6; i < records.size() && records[i] >= '0' && records[i] <= '9'; ++i) {
    value = value * 10 + static_cast<std::uint64_t>(records[i] - '0');
  }
  return true;
}

// libarchive gives up a header with another type, or whose checksum begins otherwise, and leaves out the
// member after the type 'A'.
bool isReadInOneWay(const Bytes& header) {
  constexpr std::size_t kSum = 148, kType = 156;
  const char sum = header.text(kSum, 1).front();
  const auto type = static_cast<unsigned char>(header.text(kType, 1).front());
  const bool isType = type == 0 || (type < 0x80 && std::isalnum(type) != 0 && type != 'A');
  return isType && (isOctalDigit(sum) || sum == ' ');
}

}  // namespace

TarChain followTar(const Bytes& layer, std::uint64_t offset) {
  constexpr std::size_t kSize = 124, kSizeBytes = 12, kType = 156;
  TarChain chain;
  bool hasPaxSize = false;
  std::uint64_t paxSize = 0;
  while (layer.has(offset, kTarBlock) && isTar(layer.from(offset))) {
    chain.headers.push_back(offset);
    const Bytes header = layer.from(offset);
    const TarSize size = tarSize(header.text(kSize, kSizeBytes));
    const char type = header.text(kType, 1).front();
    chain.odd = chain.odd || size.odd || !isReadInOneWay(header);
    const bool isAttributes = type == 'x' || type == 'g';
    if (isAttributes && header.has(kTarBlock, size.value)) {
      const auto records = header.text(kTarBlock, size.value);
      hasPaxSize = readPaxSize(records, paxSize) || (type == 'x' && hasPaxSize);
      chain.odd = chain.odd || (type == 'g' && (hasPaxSize || records.find("GNU.sparse") != records.npos));
    }
    // Names that are too long for the header stand in members of their own.
    const bool isMember = !isAttributes && type != 'L' && type != 'K';
    const std::uint64_t bytes = isMember && hasPaxSize ? paxSize : size.value;
    hasPaxSize = hasPaxSize && !isMember;
    if (bytes > layer.size()) {
      break;
    }
    offset += kTarBlock + (bytes + kTarBlock - 1) / kTarBlock * kTarBlock;
  }
  return chain;
}

}  // namespace agent
