#include "engine/LayerContents.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "engine/Bytes.h"
#include "engine/HeaderChecks.h"
#include "engine/StreamEnds.h"
#include "engine/ZipAudit.h"

namespace agent {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kMostParts = 20'000;
constexpr std::size_t kMostLater = 100'000;  // as many as the members of one file
constexpr std::size_t kTarBlock = 512;
constexpr std::size_t kLastBlock = 512;

/// Where in a layer the magic bytes stand. kBehind: anywhere but at the beginning. kEnd: in the last block.
enum class Where : std::uint8_t { kBeginning, kAnywhere, kBehind, kEnd };
/// How sure the bytes are, and so what the failure to unpack means. At the beginning: kCounts, kCounts,
/// kCountsIfYielded, kIgnored. Behind the beginning: kCounts, and kIgnored for the others.
enum class Sign : std::uint8_t { kCertain, kCertainAtBeginning, kLikely, kWeak };

using Check = bool (*)(const Bytes& archive);

bool isAnything(const Bytes&) {
  return true;
}

// Two bytes a character.
bool isWideText(const Bytes& a) {
  return a.has(0, 10) && a.at8(9) == 0;
}

bool isRar1(const Bytes& a) {
  return a.has(0, 7) && a.at16(4) >= 7;
}

bool isDar(const Bytes& a) {
  return a.has(0, 15) && "TNE"sv.find(a.text(14, 1)) != std::string_view::npos;
}

bool isAppleArchive(const Bytes& a) {
  return a.has(0, 9) && a.text(6, 3) == "TYP";
}

bool isPbz(const Bytes& a) {
  return a.has(0, 12) && "exz4b-"sv.find(a.text(3, 1)) != std::string_view::npos && a.big32(4) == 0;
}

bool isLzfse(const Bytes& a) {
  return a.has(0, 8) && "12-n"sv.find(a.text(3, 1)) != std::string_view::npos && a.at8(7) == 0;
}

struct Magic {
  const char* type;
  std::size_t offset;  ///< of the bytes from the beginning of the archive; kEnd: from the last block's
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
     Where::kAnywhere, Sign::kCertainAtBeginning, isXz},
    {"TAV_ZSTD", 0, "\x28\xB5\x2F\xFD"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isZstd},
    {"TAV_LZ4", 0, "\x04\x22\x4D\x18"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isLz4},
    {"TAV_LZ4", 0, "\x02\x21\x4C\x18"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"TAV_LZMA", 0, "\x5D\x00\x00"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isLzma},
    {"TAV_LZMA", 5, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"sv, Where::kBeginning, Sign::kCertain, isLzma},
    {"TAV_LZMA", 0, ""sv, Where::kBeginning, Sign::kLikely, isLzma},
    {"TAV_LZMA", 0, "\x5D"sv, Where::kBeginning, Sign::kCertain, isLzmaOfAnyDictionary},
    {"TAV_LZIP", 0, "LZIP\1"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"TAV_COMPRESS", 0, "\x1F\x9D"sv, Where::kBeginning, Sign::kCertain, isCompress},
    {"TAV_OLDGZIP", 0, "\x1F\x9E\x08"sv, Where::kBeginning, Sign::kLikely, isGzip},
    {"TAV_ZLIB", 0, ""sv, Where::kBeginning, Sign::kWeak, isZlib},
    {"TAV_PACK", 0, "\x1F\x1E"sv, Where::kBeginning, Sign::kCertain, isPack},
    {"TAV_SCOLZH", 0, "\x1F\xA0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_RPM", 0, "\xED\xAB\xEE\xDB"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_AR", 0, "!<arch>\n"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_WARC", 0, "WARC/"sv, Where::kBeginning, Sign::kLikely, isAnything},
    {"CL_TYPE_POSIX_TAR", 257, "ustar"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isTar},
    {"CL_TYPE_OLD_TAR", 0, ""sv, Where::kBeginning, Sign::kCertain, isTar},
    {"CL_TYPE_CPIO_NEWC", 0, "07070"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCpioText},
    {"CL_TYPE_CPIO_OLD", 0, "\xC7\x71"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCpioBinary},
    {"CL_TYPE_CPIO_OLD", 0, "\x71\xC7"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCpioBinary},
    {"CL_TYPE_ISO9660", 32768, "\1CD001"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"CL_TYPE_XAR", 0, "xar!\0"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isAnything},
    {"CL_TYPE_7Z", 0, "7z\xBC\xAF\x27\x1C"sv, Where::kAnywhere, Sign::kCertain, isSevenZip},
    {"CL_TYPE_RAR", 0, "Rar!\x1A\x07\x00"sv, Where::kAnywhere, Sign::kCertain, isRar4},
    {"CL_TYPE_RAR", 0, "Rar!\x1A\x07\x01\x00"sv, Where::kAnywhere, Sign::kCertain, isRar5},
    {"CL_TYPE_RAR", 0, "Rar!\x1A\x07"sv, Where::kAnywhere, Sign::kLikely, isAnything},
    {"CL_TYPE_MSCAB", 0, "MSCF"sv, Where::kAnywhere, Sign::kCertain, isWholeCab},
    {"CL_TYPE_MSCAB", 0, "MSCF\0\0\0\0"sv, Where::kAnywhere, Sign::kCertainAtBeginning, isCab},
    {"CL_TYPE_LHA_LZH", 2, "-lh"sv, Where::kBeginning, Sign::kCertain, isLzh},
    {"CL_TYPE_LHA_LZH", 2, "-lh"sv, Where::kBehind, Sign::kLikely, isLzhBehind},
    {"TAV_LZH", 2, "-lh"sv, Where::kBehind, Sign::kCertain, isRefusedLzh},
    {"CL_TYPE_LHA_LZH", 2, "-lz"sv, Where::kBeginning, Sign::kCertain, isLzh},
    {"CL_TYPE_LHA_LZH", 2, "-lz"sv, Where::kBehind, Sign::kLikely, isLzhBehind},
    {"TAV_LZH", 2, "-lz"sv, Where::kBehind, Sign::kCertain, isRefusedLzh},
    {"CL_TYPE_LHA_LZH", 2, "-pm"sv, Where::kBeginning, Sign::kCertain, isLzh},
    {"CL_TYPE_LHA_LZH", 2, "-pm"sv, Where::kBehind, Sign::kLikely, isLzhBehind},
    {"TAV_LZH", 2, "-pm"sv, Where::kBehind, Sign::kCertain, isRefusedLzh},
    {"TAV_ZIPSTREAM", 0, "PK\3\4"sv, Where::kBehind, Sign::kLikely, isZipMember},
    {"TAV_SQUASHFS", 0, "hsqs"sv, Where::kAnywhere, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "sqsh"sv, Where::kAnywhere, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "shsq"sv, Where::kBeginning, Sign::kCertain, isSquashFs},
    {"TAV_SQUASHFS", 0, "qshs"sv, Where::kBeginning, Sign::kCertain, isSquashFs},
    {"TAV_WIM", 0, "MSWIM\0\0\0"sv, Where::kAnywhere, Sign::kCertain, isWim},
    {"TAV_WIM", 0, "WLPWM\0\0\0"sv, Where::kAnywhere, Sign::kCertain, isWim},
    {"TAV_CRAMFS", 0, "\x45\x3D\xCD\x28"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_CRAMFS", 0, "\x45\x3D\xCD\x28"sv, Where::kBehind, Sign::kCertain, isCramFs},
    {"TAV_CRAMFS", 0, "\x28\xCD\x3D\x45"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_CRAMFS", 0, "\x28\xCD\x3D\x45"sv, Where::kBehind, Sign::kCertain, isCramFs},
    {"TAV_CRAMFS", 16, "Compressed ROMFS"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_JFFS2", 0, "\x85\x19"sv, Where::kBeginning, Sign::kCertain, isJffs2},
    {"TAV_JFFS2", 0, "\x19\x85"sv, Where::kBeginning, Sign::kCertain, isJffs2},
    {"TAV_ROMFS", 0, "-rom1fs-"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_EROFS", 1024, "\xE2\xE1\xF5\xE0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_EXT", 1080, "\x53\xEF"sv, Where::kBeginning, Sign::kCertain, isExt},
    {"TAV_EXT", 1080, "\x53\xEF"sv, Where::kBehind, Sign::kCertain, isExtVolume},
    {"TAV_XFS", 0, "XFSB\0\0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_BTRFS", 0x10040, "_BHRfS_M"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 54, "FAT12   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 54, "FAT16   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 82, "FAT32   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_FAT", 510, "\x55\xAA"sv, Where::kBeginning, Sign::kCertain, isFat},
    {"TAV_FAT", 510, "\x55\xAA"sv, Where::kBehind, Sign::kCertain, isWholeFat},
    {"TAV_EXFAT", 3, "EXFAT   "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_NTFS", 3, "NTFS    "sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_NTFS", 510, "\x55\xAA"sv, Where::kBehind, Sign::kCertain, isWholeNtfs},
    {"TAV_HFS", 1024, "BD"sv, Where::kBeginning, Sign::kCertain, isHfs},
    {"TAV_HFSPLUS", 1024, "H+"sv, Where::kBeginning, Sign::kCertain, isHfsPlus},
    {"TAV_HFSPLUS", 1024, "HX"sv, Where::kBeginning, Sign::kCertain, isHfsPlus},
    {"TAV_APFS", 32, "NXSB"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_F2FS", 1024, "\x10\x20\xF5\xF2"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_JFS", 32768, "JFS1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_REISERFS", 65588, "ReIsEr"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_MINIX", 1040, "\x7F\x13"sv, Where::kBeginning, Sign::kCertain, isMinix},
    {"TAV_MINIX", 1040, "\x8F\x13"sv, Where::kBeginning, Sign::kCertain, isMinix},
    {"TAV_MINIX", 1040, "\x68\x24"sv, Where::kBeginning, Sign::kCertain, isMinix},
    {"TAV_MINIX", 1040, "\x78\x24"sv, Where::kBeginning, Sign::kCertain, isMinix},
    {"TAV_MINIX", 1048, "\x5A\x4D"sv, Where::kBeginning, Sign::kCertain, isMinix},
    {"TAV_UBIFS", 0, "\x31\x18\x10\x06"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_UBI", 0, "UBI#\1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LVM", 512, "LABELONE"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_RAW", 0, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1"sv, Where::kBehind, Sign::kLikely, isOle2},
    {"TAV_UDF", 32769, "BEA01"sv, Where::kAnywhere, Sign::kCertain, hasUdfTree},
    {"TAV_UDF", 32769, "CD001"sv, Where::kAnywhere, Sign::kCertain, hasUdfTree},
    {"TAV_LUKS", 0, "LUKS\xBA\xBE"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_QCOW", 0, "QFI\xFB"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VMDK", 0, "KDMV"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VMDK", 0, "COWD\1\0\0\0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VDI", 0x40, "\x7F\x10\xDA\xBE"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VHD", 0, "conectix"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_VHD", 0, "conectix"sv, Where::kEnd, Sign::kCertain, isAnything},
    {"TAV_DMG", 0, "koly"sv, Where::kEnd, Sign::kCertain, isAnything},
    {"TAV_VHDX", 0, "vhdxfile"sv, Where::kBeginning, Sign::kCertain, isWideText},
    {"TAV_LZOP", 0, "\x89LZO\0\r\n\x1A\n"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_LRZIP", 0, "LRZI\0"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_RZIP", 0, "RZIP\2"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZPAQ", 0, "7kSt\xA0\x31\x83\xD3"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZPAQ", 0, "zPQ\1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZPAQ", 0, "zPQ\2"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ZOO", 20, "\xDC\xA7\xC4\xFD"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ACE", 7, "**ACE**"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_STUFFIT", 0, "StuffIt (c)1997-"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_STUFFIT", 10, "rLau"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_SNAPPY", 0, "\xFF\x06\0\0sNaPpY"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_ALZ", 0, "ALZ\1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_EGG", 0, "EGGA"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_RAR1", 0, "RE~^"sv, Where::kBeginning, Sign::kCertain, isRar1},
    {"TAV_ARC", 0, "\x1A"sv, Where::kBeginning, Sign::kCertain, isArc},
    {"TAV_ARC", 0, "\x1A"sv, Where::kBehind, Sign::kCertain, isArcMember},
    {"TAV_DAR", 0, "\0\0\0\x7B"sv, Where::kBeginning, Sign::kCertain, isDar},
    {"TAV_KWAJ", 0, "KWAJ\x88\xF0\x27\xD1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_SZ", 0, "SZ \x88\xF0\x27\x33\xD1"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_INSTALLSHIELD", 0, "ISc("sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_PMD", 0, "\x8F\xAF\xAC\x84"sv, Where::kBeginning, Sign::kCertain, isAnything},
    {"TAV_APPLEARCHIVE", 0, "AA01"sv, Where::kBeginning, Sign::kCertain, isAppleArchive},
    {"TAV_APPLEARCHIVE", 0, "YAA1"sv, Where::kBeginning, Sign::kCertain, isAppleArchive},
    {"TAV_PBZ", 0, "pbz"sv, Where::kBeginning, Sign::kCertain, isPbz},
    {"TAV_LZFSE", 0, "bvx"sv, Where::kBeginning, Sign::kCertain, isLzfse},
    {"TAV_UUENCODE", 0, "begin-base64 "sv, Where::kAnywhere, Sign::kCertain, isUuencode},
    {"TAV_UUENCODE", 0, "begin "sv, Where::kAnywhere, Sign::kCertain, isUuencode},
};

// The bytes that begin where an archive at the beginning of the layer begins.
Bytes startFor(const Magic& magic, const Bytes& layer) {
  return magic.where == Where::kEnd && layer.size() > kLastBlock ? layer.from(layer.size() - kLastBlock)
                                                                 : layer;
}

bool matches(const Magic& magic, const Bytes& archive) {
  return archive.has(magic.offset, magic.bytes.size()) &&
         archive.text(magic.offset, magic.bytes.size()) == magic.bytes && magic.check(archive);
}

// A magic behind skippable frames is that of the file.
Failure failureBehindFrames(const Bytes& layer, std::uint64_t at, std::string_view magic) {
  const bool follows = layer.has(at, magic.size()) && layer.text(at, magic.size()) == magic;
  return follows ? Failure::kCounts : Failure::kCountsIfYielded;
}

Failure failureAtBeginning(Sign sign) {
  switch (sign) {
    case Sign::kLikely:
      return Failure::kCountsIfYielded;
    case Sign::kWeak:
      return Failure::kIgnored;
    default:
      return Failure::kCounts;
  }
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
    if (magic.where != Where::kBehind && matches(magic, startFor(magic, layer))) {
      add(magic.type, failureAtBeginning(magic.sign));
    }
  }
  if (const std::uint64_t frame = skipFrames(layer); frame > 0) {
    add("TAV_ZSTD", failureBehindFrames(layer, frame, "\x28\xB5\x2F\xFD"sv));
    add("TAV_LZ4", failureBehindFrames(layer, frame, "\x04\x22\x4D\x18"sv));
  }
}

bool isTarOrCpio(Reader reader) {
  return reader == Reader::kTar || reader == Reader::kCpio;
}

// Each member has a header like that of the archive.
bool isMadeOfMembers(Reader reader) {
  return isTarOrCpio(reader) || reader == Reader::kLha;
}

// The magic bytes that are searched behind the beginning. Each has a bit. The tables tell, for a byte, which
// magics have this byte as their first, second and third. The end record of a zip is one more, and so is the
// end of a tar's checksum: a digit and a zero byte.
class Search {
 public:
  static constexpr std::string_view kZipEnd = "PK\5\6"sv;
  using Bits = std::uint64_t;

  struct Row {
    const Magic* magic = nullptr;  ///< null without a kind: the end record of a zip; with one: of a checksum
    const ArchiveKind* kind = nullptr;
  };

  static const Search& instance() {
    static const Search search;
    return search;
  }
  const Row& row(int bit) const { return rows_.at(static_cast<std::size_t>(bit)); }
  Bits certain() const { return certain_; }
  Bits tarAndCpio() const { return tarAndCpio_; }
  Bits lzh() const { return lzh_; }
  Bits at(const unsigned char* bytes) const {
    return first_[bytes[0]] & second_[bytes[1]] & third_[bytes[2]];
  }

 private:
  static constexpr int kMostRows = 64;

  Search() {
    add({nullptr, nullptr}, kZipEnd, true);
    addEndOfSum();
    for (const auto& magic : kMagics) {
      if (magic.where == Where::kAnywhere || magic.where == Where::kBehind) {
        add({&magic, archiveKindOf(magic.type)}, magic.bytes, magic.sign == Sign::kCertain);
      }
    }
  }

  void addEndOfSum() {
    const Bits bit = Bits{1} << count_;
    rows_.at(count_++) = {nullptr, archiveKindOf("CL_TYPE_OLD_TAR")};
    tarAndCpio_ |= bit;
    for (std::size_t c = '0'; c <= '7'; ++c) {
      first_[c] |= bit;
    }
    second_[0] |= bit;
    for (Bits& bits : third_) {
      bits |= bit;
    }
  }

  void add(const Row& row, std::string_view bytes, bool isCertain) {
    const Bits bit = Bits{1} << count_;
    rows_.at(count_++) = row;
    certain_ |= isCertain ? bit : 0;
    tarAndCpio_ |= row.kind != nullptr && isTarOrCpio(row.kind->reader) ? bit : 0;
    lzh_ |= row.kind != nullptr && row.kind->reader == Reader::kLha ? bit : 0;
    first_[static_cast<unsigned char>(bytes[0])] |= bit;
    for (std::size_t c = 0; c < third_.size(); ++c) {
      const auto fits = [&](std::size_t i) {
        return bytes.size() <= i || c == static_cast<unsigned char>(bytes[i]);
      };
      second_[c] |= fits(1) ? bit : 0;
      third_[c] |= fits(2) ? bit : 0;
    }
  }

  std::array<Bits, 256> first_{}, second_{}, third_{};
  std::array<Row, kMostRows> rows_{};
  std::size_t count_ = 0;
  Bits certain_ = 0, tarAndCpio_ = 0, lzh_ = 0;
};

// What is searched for behind the beginning.
struct Wanted {
  bool onlyCertain = false;  // of the kinds that are not named here
  bool tarAndCpio = true;
  bool lzh = true;
};

// Lists the archives behind the beginning of one layer.
class Behind {
 public:
  Behind(const Bytes& layer, const Wanted& wanted, Contents& contents)
      : layer_(layer), wanted_(wanted), contents_(contents) {}

  void add() {
    const Search& search = Search::instance();
    const Search::Bits named =
        (wanted_.tarAndCpio ? search.tarAndCpio() : 0) | (wanted_.lzh ? search.lzh() : 0);
    const Search::Bits others =
        (wanted_.onlyCertain ? search.certain() : ~Search::Bits{0}) & ~(search.tarAndCpio() | search.lzh());
    const Search::Bits wanted = named | others;
    const auto* bytes = reinterpret_cast<const unsigned char*>(layer_.text(0, layer_.size()).data());
    const std::size_t end = layer_.size();
    for (std::size_t at = 1; at + 2 < end; ++at) {
      for (Search::Bits hits = search.at(bytes + at) & wanted; hits != 0; hits &= hits - 1) {
        addAt(at, search.row(std::countr_zero(hits)));
      }
    }
    if (wanted_.tarAndCpio) {
      addOldTars(bytes);
    }
    for (Part& part : contents_.parts) {
      std::sort(part.later.begin(), part.later.end());
    }
  }
  void followTarFrom(std::uint64_t offset) {
    const TarChain chain = followTar(layer_, offset);
    contents_.hasOddTar = contents_.hasOddTar || chain.odd;
    tarHeaders_.insert(chain.headers.begin(), chain.headers.end());
  }

 private:
  void addAt(std::size_t at, const Search::Row& row) {
    if (row.magic == nullptr && row.kind != nullptr) {
      addTarOfDigits(at);
      return;
    }
    if (row.magic == nullptr) {
      contents_.hasZipEnd = contents_.hasZipEnd || layer_.from(at).startsWith(Search::kZipEnd);
      return;
    }
    const Magic& magic = *row.magic;
    if (at <= magic.offset || !matches(magic, layer_.from(at - magic.offset))) {
      return;
    }
    const std::uint64_t offset = at - magic.offset;
    if (row.kind->reader == Reader::kTar && !tarHeaders_.contains(offset)) {
      followTarFrom(offset);
    }
    if (addToLast(row.kind, offset)) {
      return;
    }
    // Each member of a zip has a header. The first is the beginning.
    if (row.kind->reader == Reader::kZipStream && std::exchange(contents_.hasZipStream, true)) {
      return;
    }
    Part part{row.kind, offset, magic.sign == Sign::kCertain ? Failure::kCounts : Failure::kIgnored, {}};
    if (row.kind->reader == Reader::kRaw) {
      if (matches(magic, layer_)) {
        return;  // its own streams hold it
      }
      part.size = sizeOfOle2(layer_.from(offset));
    }
    addPart(part);
  }

  // Each member of a tar, a cpio or an lzh has a header. Those of a tar stand at multiples of the block.
  bool addToLast(const ArchiveKind* kind, std::uint64_t at) {
    const auto last = std::find_if(contents_.parts.rbegin(), contents_.parts.rend(), [&](const Part& part) {
      return part.kind->reader == kind->reader && part.offset > 0 && part.offset < at &&
             (kind->reader != Reader::kTar || (at - part.offset) % kTarBlock == 0);
    });
    if (!isMadeOfMembers(kind->reader) || last == contents_.parts.rend()) {
      return false;
    }
    if (contents_.later >= kMostLater) {
      contents_.tooMany = true;
    } else {
      last->later.push_back(at - last->offset);
      ++contents_.later;
    }
    return true;
  }

  void addPart(const Part& part) {
    const auto isSame = [&](const Part& p) {
      return p.offset == part.offset && p.kind->reader == part.kind->reader;
    };
    if (!contents_.parts.empty() && isSame(contents_.parts.back())) {
      return;
    }
    contents_.tooMany = contents_.tooMany || contents_.parts.size() >= kMostParts;
    if (!contents_.tooMany) {
      contents_.parts.push_back(part);
    }
  }

  // lastDigit: of the checksum, the sixth or the seventh of its bytes. With zeros around it, a header has the
  // same sum one byte earlier: there, its name would be empty.
  void addTarOfDigits(std::size_t lastDigit) {
    for (const std::size_t offset : {153U, 154U}) {
      if (lastDigit > offset && layer_.at8(lastDigit - offset) != 0 &&
          isTarOfDigits(layer_.from(lastDigit - offset))) {
        addOldTar(lastDigit - offset);
      }
    }
  }

  void addOldTar(std::size_t at) {
    if (tarHeaders_.contains(at)) {
      return;
    }
    followTarFrom(at);
    const ArchiveKind* kind = archiveKindOf("CL_TYPE_OLD_TAR");
    if (!addToLast(kind, at)) {
      addPart({kind, at, Failure::kIgnored, {}});
    }
  }

  // An old tar has no magic bytes. Other programs look for its headers at multiples of a block.
  void addOldTars(const unsigned char* bytes) {
    constexpr std::size_t kDigit = 150;  // within the checksum, however it is written
    const auto isDigit = [](unsigned char c) { return (c >= '0' && c <= '7') || c == ' '; };
    for (std::size_t at = kTarBlock; at + kTarBlock <= layer_.size(); at += kTarBlock) {
      if (isDigit(bytes[at + kDigit]) && isDigit(bytes[at + kDigit + 1]) && isTar(layer_.from(at))) {
        addOldTar(at);
      }
    }
  }

  const Bytes& layer_;
  Wanted wanted_;
  Contents& contents_;
  std::unordered_set<std::uint64_t> tarHeaders_;
};

bool isArchive(const Part& part) {
  return part.failure == Failure::kCounts;
}

// Whether the bytes behind the beginning of the layer are searched for certain signs only. Of the kinds that
// libclamav alone unpacks, other programs may unpack what lies between the members.
bool isSearchedForCertainSigns(const ArchiveKind* kind, const Contents& contents) {
  return (kind != nullptr && (isReadByLibarchive(*kind) || mayBeInPieces(kind->type))) ||
         std::any_of(contents.parts.begin(), contents.parts.end(), isArchive);
}

// What the layer is must not be searched for again: its members.
Wanted wantedIn(const ArchiveKind* kind, const Contents& contents) {
  const auto isAny = [&](auto&& isOf) {
    return (kind != nullptr && isOf(kind->reader)) ||
           std::any_of(contents.parts.begin(), contents.parts.end(),
                       [&](const Part& part) { return isArchive(part) && isOf(part.kind->reader); });
  };
  return {isSearchedForCertainSigns(kind, contents), !isAny(isTarOrCpio),
          !isAny([](Reader reader) { return reader == Reader::kLha; })};
}

// The library loses what it has unpacked when other bytes follow the end of an xz or a zst. Each stream has
// the magic: those that are unpacked with the first are no archives of their own.
void endAtStreams(const Bytes& layer, Contents& contents) {
  constexpr std::size_t kMostSteps = 4'000'000;
  std::size_t steps = kMostSteps;
  std::unordered_set<std::uint64_t> followed;
  std::vector<Part> parts;
  for (Part& part : contents.parts) {
    const bool isZstd = part.kind->reader == Reader::kZstd;
    if (part.offset > 0 && (isZstd || part.kind->reader == Reader::kXz)) {
      if (followed.contains(part.offset)) {
        continue;
      }
      const Bytes archive = layer.from(part.offset);
      const Streams streams = isZstd ? followZstd(archive, steps) : followXz(archive, steps);
      for (const std::uint64_t start : streams.starts) {
        followed.insert(part.offset + start);
      }
      part.size = streams.end > 0 ? streams.end : part.size;
    }
    parts.push_back(part);
  }
  contents.parts = std::move(parts);
  contents.tooMany = contents.tooMany || steps == 0;
}

}  // namespace

Contents lookInto(const char* data, std::size_t size, const ArchiveKind* kind) {
  const Bytes layer(data, size);
  Contents contents;
  addBeginning(layer, contents);
  Behind behind(layer, wantedIn(kind, contents), contents);
  if (isTar(layer)) {
    behind.followTarFrom(0);
  }
  behind.add();
  endAtStreams(layer, contents);
  contents.hasBrokenArj = kind != nullptr && kind->type == "CL_TYPE_ARJ" && !isWholeArj(layer);
  return contents;
}

}  // namespace agent
