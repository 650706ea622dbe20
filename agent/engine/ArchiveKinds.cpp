#include "engine/ArchiveKinds.h"

#include <algorithm>

#include "platform/Text.h"

namespace agent {
namespace {

constexpr ArchiveKind kArchiveKinds[] = {
    {"CL_TYPE_ZIP", "zip jar war ear apk xpi whl", true, false},
    {"CL_TYPE_ZIPSFX", "zip exe", true, false},
    {"CL_TYPE_GZ", "gz tgz taz", false, false},
    {"CL_TYPE_BZ", "bz2 bz tbz tbz2", false, false},
    {"CL_TYPE_XZ", "xz txz", false, false},
    {"CL_TYPE_POSIX_TAR", "tar", false, false},
    {"CL_TYPE_OLD_TAR", "tar", false, false},
    {"CL_TYPE_7Z", "7z", false, true},
    {"CL_TYPE_7ZSFX", "7z exe", false, false},
    {"CL_TYPE_RAR", "rar", false, true},
    {"CL_TYPE_RARSFX", "rar exe", false, false},
    {"CL_TYPE_MSCAB", "cab", false, true},
    {"CL_TYPE_CABSFX", "cab exe", false, false},
    {"CL_TYPE_ARJ", "arj", false, true},
    {"CL_TYPE_ARJSFX", "arj exe", false, false},
    {"CL_TYPE_LHA_LZH", "lzh lha", false, true},
    {"CL_TYPE_ALZ", "alz", false, true},
    {"CL_TYPE_EGG", "egg", false, true},
    {"CL_TYPE_EGGSFX", "egg exe", false, false},
    {"CL_TYPE_CPIO_OLD", "cpio", false, false},
    {"CL_TYPE_CPIO_ODC", "cpio", false, false},
    {"CL_TYPE_CPIO_NEWC", "cpio", false, false},
    {"CL_TYPE_CPIO_CRC", "cpio", false, false},
    {"CL_TYPE_XAR", "xar pkg", false, true},
    {"CL_TYPE_ISO9660", "iso", false, false},
    {"CL_TYPE_UDF", "udf iso", false, false},
    {"CL_TYPE_DMG", "dmg", false, true},
    {"CL_TYPE_MSSZDD", "szdd", false, false},
};

}  // namespace

const ArchiveKind* archiveKindOf(std::string_view type) {
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

bool isZipDocument(std::string_view type) {
  return type.starts_with("CL_TYPE_OOXML_");
}

}  // namespace agent
