#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace agent {

/// A kind of file that is unpacked as an archive.
struct ArchiveKind {
  const char* type;     ///< libclamav's file type
  const char* endings;  ///< lower case, separated by blanks; the first is the kind's name in reasons
  bool zip;             ///< has the layout of a zip file
  bool mustYield;       ///< when no member comes out, libclamav did not understand the archive
};

/// Null for types that are no archives: documents, mails and programs are always unpacked.
const ArchiveKind* archiveKindOf(std::string_view type);
/// Whether one of the kind's endings is in the list. An empty list stands for all endings.
bool isAmong(const ArchiveKind& kind, const std::vector<std::string>& endings);
/// Whether files of the ending (lower case) are archives of a kind that isAmong the list.
bool isEndingAmong(std::string_view ending, const std::vector<std::string>& endings);
std::string nameOf(const ArchiveKind& kind);

/// Office documents that are zip files inside.
bool isZipDocument(std::string_view type);

}  // namespace agent
