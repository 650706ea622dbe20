#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace agent {

/// A kind of file that is unpacked as an archive, under libclamav's name for it.
struct ArchiveKind {
  const char* type;     ///< libclamav's file type
  const char* endings;  ///< lower case, blank between; the first names the kind to people
  bool zip;             ///< laid out as a zip file
  bool mustYield;       ///< an archive of this kind from which nothing comes out was not understood
};

/// Null for anything that is not an archive: documents, mails and programs are always looked into.
const ArchiveKind* archiveKindOf(std::string_view type);
/// Whether one of the kind's endings is among those named; none named means all.
bool isAmong(const ArchiveKind& kind, const std::vector<std::string>& endings);
/// Whether files of that ending (lower case) are archives of a kind that isAmong those named.
bool isEndingAmong(std::string_view ending, const std::vector<std::string>& endings);
std::string nameOf(const ArchiveKind& kind);

/// Office documents that are zip files inside.
bool isZipDocument(std::string_view type);

}  // namespace agent
