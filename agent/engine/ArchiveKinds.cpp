#include "engine/ArchiveKinds.h"

#include <algorithm>

#include "platform/Text.h"

namespace agent {
namespace {

constexpr ArchiveKind kArchiveKinds[] = {
    {"CL_TYPE_ZIP", "zip jar war ear apk xpi whl", true, false, Reader::kZip},
    {"CL_TYPE_ZIPSFX", "zip exe", true, false, Reader::kZip},
    {"CL_TYPE_GZ", "gz tgz taz", false, false, Reader::kGzip},
    {"CL_TYPE_BZ", "bz2 bz tbz tbz2", false, false, Reader::kBzip2},
    {"CL_TYPE_XZ", "xz txz", false, false, Reader::kXz},
    {"CL_TYPE_POSIX_TAR", "tar", false, false, Reader::kTar},
    {"CL_TYPE_OLD_TAR", "tar", false, false, Reader::kTar},
    {"CL_TYPE_7Z", "7z", false, true, Reader::kSevenZip},
    {"CL_TYPE_7ZSFX", "7z exe", false, false, Reader::kLibclamav},
    {"CL_TYPE_RAR", "rar", false, true, Reader::kRar},
    {"CL_TYPE_RARSFX", "rar exe", false, false, Reader::kLibclamav},
    {"CL_TYPE_MSCAB", "cab", false, true, Reader::kCab},
    {"CL_TYPE_CABSFX", "cab exe", false, false, Reader::kLibclamav},
    {"CL_TYPE_ARJ", "arj", false, true, Reader::kLibclamav},
    {"CL_TYPE_ARJSFX", "arj exe", false, false, Reader::kLibclamav},
    {"CL_TYPE_LHA_LZH", "lzh lha", false, true, Reader::kLha},
    {"CL_TYPE_ALZ", "alz", false, true, Reader::kLibclamav},
    {"CL_TYPE_EGG", "egg", false, true, Reader::kLibclamav},
    {"CL_TYPE_EGGSFX", "egg exe", false, false, Reader::kLibclamav},
    {"CL_TYPE_CPIO_OLD", "cpio", false, false, Reader::kCpio},
    {"CL_TYPE_CPIO_ODC", "cpio", false, false, Reader::kCpio},
    {"CL_TYPE_CPIO_NEWC", "cpio", false, false, Reader::kCpio},
    {"CL_TYPE_CPIO_CRC", "cpio", false, false, Reader::kCpio},
    {"CL_TYPE_XAR", "xar pkg", false, true, Reader::kXar},
    {"CL_TYPE_ISO9660", "iso", false, false, Reader::kIso},
    {"CL_TYPE_UDF", "udf iso", false, true, Reader::kLibclamav},
    {"CL_TYPE_DMG", "dmg", false, true, Reader::kLibclamav},
    {"CL_TYPE_MSSZDD", "szdd", false, true, Reader::kLibclamav},
    // Kinds without a type of libclamav.
    {"TAV_ZIPSTREAM", "zip", true, false, Reader::kZipStream},
    {"TAV_LZMA", "lzma tlz xz", false, false, Reader::kLzma},
    {"TAV_LZIP", "lz xz", false, false, Reader::kLzip},
    {"TAV_COMPRESS", "z taz gz", false, false, Reader::kCompress},
    {"TAV_OLDGZIP", "gz", false, false, Reader::kInflate},
    {"TAV_ZLIB", "zz gz", false, false, Reader::kInflate},
    {"TAV_ZSTD", "zst tzst xz", false, false, Reader::kZstd},
    {"TAV_LZ4", "lz4 gz", false, false, Reader::kLz4},
    {"TAV_RPM", "rpm cpio", false, true, Reader::kRpm},
    {"TAV_AR", "ar deb a tar", false, false, Reader::kAr},
    {"TAV_WARC", "warc tar", false, true, Reader::kWarc},
    {"TAV_UUENCODE", "uue gz", false, false, Reader::kUuencode},
    // Kinds that neither unpacker can unpack.
    {"TAV_SQUASHFS", "squashfs", false, false, Reader::kNobody},
    {"TAV_CRAMFS", "cramfs", false, false, Reader::kNobody},
    {"TAV_JFFS2", "jffs2", false, false, Reader::kNobody},
    {"TAV_ROMFS", "romfs", false, false, Reader::kNobody},
    {"TAV_EROFS", "erofs", false, false, Reader::kNobody},
    {"TAV_EXT", "ext4", false, false, Reader::kNobody},
    {"TAV_XFS", "xfs", false, false, Reader::kNobody},
    {"TAV_BTRFS", "btrfs", false, false, Reader::kNobody},
    {"TAV_FAT", "fat", false, false, Reader::kNobody},
    {"TAV_NTFS", "ntfs", false, false, Reader::kNobody},
    {"TAV_LUKS", "luks", false, false, Reader::kNobody},
    {"TAV_QCOW", "qcow2", false, false, Reader::kNobody},
    {"TAV_VMDK", "vmdk", false, false, Reader::kNobody},
    {"TAV_VDI", "vdi", false, false, Reader::kNobody},
    {"TAV_VHD", "vhd", false, false, Reader::kNobody},
    {"TAV_VHDX", "vhdx", false, false, Reader::kNobody},
    {"TAV_WIM", "wim", false, false, Reader::kNobody},
    {"TAV_LZOP", "lzo", false, false, Reader::kNobody},
    {"TAV_LRZIP", "lrz", false, false, Reader::kNobody},
    {"TAV_RZIP", "rz", false, false, Reader::kNobody},
    {"TAV_ZPAQ", "zpaq", false, false, Reader::kNobody},
    {"TAV_ZOO", "zoo", false, false, Reader::kNobody},
    {"TAV_ACE", "ace", false, false, Reader::kNobody},
    {"TAV_STUFFIT", "sit", false, false, Reader::kNobody},
    {"TAV_SNAPPY", "sz", false, false, Reader::kNobody},
    {"TAV_ALZ", "alz", false, false, Reader::kNobody},
    {"TAV_EGG", "egg", false, false, Reader::kNobody},
    {"TAV_DMG", "dmg", false, false, Reader::kNobody},
    {"TAV_PACK", "pack gz", false, false, Reader::kNobody},
    {"TAV_SCOLZH", "sco-lzh gz", false, false, Reader::kNobody},
    {"TAV_EXFAT", "exfat", false, false, Reader::kNobody},
    {"TAV_HFS", "hfs", false, false, Reader::kNobody},
    {"TAV_HFSPLUS", "hfs+", false, false, Reader::kNobody},
    {"TAV_APFS", "apfs", false, false, Reader::kNobody},
    {"TAV_F2FS", "f2fs", false, false, Reader::kNobody},
    {"TAV_JFS", "jfs", false, false, Reader::kNobody},
    {"TAV_REISERFS", "reiserfs", false, false, Reader::kNobody},
    {"TAV_MINIX", "minix", false, false, Reader::kNobody},
    {"TAV_UBIFS", "ubifs", false, false, Reader::kNobody},
    {"TAV_UBI", "ubi", false, false, Reader::kNobody},
    {"TAV_LVM", "lvm", false, false, Reader::kNobody},
    {"TAV_UDF", "udf", false, false, Reader::kNobody},
    {"TAV_RAR1", "rar", false, false, Reader::kNobody},
    {"TAV_ARC", "arc", false, false, Reader::kNobody},
    {"TAV_LZH", "lzh", false, false, Reader::kNobody},
    {"TAV_DAR", "dar", false, false, Reader::kNobody},
    {"TAV_KWAJ", "kwaj", false, false, Reader::kNobody},
    {"TAV_SZ", "sz", false, false, Reader::kNobody},
    {"TAV_INSTALLSHIELD", "installshield", false, false, Reader::kNobody},
    {"TAV_PMD", "pmd", false, false, Reader::kNobody},
    {"TAV_APPLEARCHIVE", "aar", false, false, Reader::kNobody},
    {"TAV_PBZ", "pbz", false, false, Reader::kNobody},
    {"TAV_LZFSE", "lzfse", false, false, Reader::kNobody},
};

}  // namespace

const ArchiveKind* archiveKindOf(std::string_view type) {
  if (type == rawKind().type) {
    return &rawKind();
  }
  const auto* end = std::end(kArchiveKinds);
  const auto* found = std::find_if(std::begin(kArchiveKinds), end,
                                   [&](const ArchiveKind& kind) { return type == kind.type; });
  return found == end ? nullptr : found;
}

bool isAmong(const ArchiveKind& kind, const std::vector<std::string>& endings) {
  const auto own = CStr::split(kind.endings, ' ');
  return endings.empty() ||
         std::find_first_of(own.begin(), own.end(), endings.begin(), endings.end()) != own.end();
}

bool isEndingAmong(std::string_view ending, const std::vector<std::string>& endings) {
  return std::any_of(std::begin(kArchiveKinds), std::end(kArchiveKinds), [&](const ArchiveKind& kind) {
    return isAmong(kind, {std::string(ending)}) && isAmong(kind, endings);
  });
}

std::string nameOf(const ArchiveKind& kind) {
  const std::string_view endings = kind.endings;
  return std::string(endings.substr(0, endings.find(' ')));
}

const ArchiveKind& rawKind() {
  static constexpr ArchiveKind kRaw{"TAV_RAW", "", false, false, Reader::kRaw};
  return kRaw;
}

bool isReadByLibarchive(const ArchiveKind& kind) {
  constexpr Reader kOthers[] = {Reader::kLibclamav, Reader::kNobody, Reader::kInflate, Reader::kRaw};
  return std::find(std::begin(kOthers), std::end(kOthers), kind.reader) == std::end(kOthers);
}

bool isLeftUnscanned(std::string_view type) {
  return type == "CL_TYPE_IGNORED";
}

bool mayHaveRest(const ArchiveKind& kind) {
  constexpr Reader kReaders[] = {Reader::kGzip,    Reader::kBzip2, Reader::kXz,  Reader::kLzma,
                                 Reader::kLzip,    Reader::kZstd,  Reader::kLz4, Reader::kCompress,
                                 Reader::kInflate, Reader::kCpio,  Reader::kAr};
  return std::find(std::begin(kReaders), std::end(kReaders), kind.reader) != std::end(kReaders);
}

bool mayBeInPieces(std::string_view type) {
  constexpr std::string_view kTypes[] = {"CL_TYPE_MSOLE2", "CL_TYPE_UDF", "CL_TYPE_MBR",
                                         "CL_TYPE_GPT",    "CL_TYPE_APM", "CL_TYPE_DMG"};
  return std::find(std::begin(kTypes), std::end(kTypes), type) != std::end(kTypes) ||
         type.starts_with("CL_TYPE_PART_");
}

bool isZipDocument(std::string_view type) {
  return type.starts_with("CL_TYPE_OOXML_");
}

}  // namespace agent
