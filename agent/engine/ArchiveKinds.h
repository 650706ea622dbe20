#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace agent {

/// The program part that unpacks a kind. kLibclamav: libclamav alone. kNobody: neither unpacker can. All
/// others: libarchive, by this format or filter, whatever libclamav unpacks besides.
enum class Reader : std::uint8_t {
  kLibclamav,
  kNobody,
  kInflate,  ///< zlib's inflate: a zlib file, or a gzip whose magic bytes are those of old versions
  kRaw,      ///< none: the bytes themselves are scanned
  kGzip,
  kBzip2,
  kXz,
  kLzma,
  kLzip,
  kCompress,
  kZstd,
  kLz4,
  kRpm,
  kTar,
  kZip,
  kZipStream,  ///< a zip without its directory
  kSevenZip,
  kRar,
  kCab,
  kCpio,
  kIso,
  kLha,
  kXar,
  kAr,
  kWarc,
  kUuencode,
};

/// A kind of file that is unpacked as an archive.
struct ArchiveKind {
  std::string_view type;  ///< libclamav's file type, or a name of our own that begins with "TAV_"
  /// Lower case, separated by blanks. The first is the kind's name in reasons. The last of a kind that the
  /// settings cannot name is the nearest kind that the settings can name: both are unpacked, or neither.
  const char* endings;
  bool zip;        ///< has the layout of a zip file
  bool mustYield;  ///< when no member comes out, the unpacker did not understand the archive
  Reader reader;
};

/// Null for types that are no archives: documents, mails and programs are always unpacked.
const ArchiveKind* archiveKindOf(std::string_view type);
/// Whether one of the kind's endings is in the list. An empty list stands for all endings.
bool isAmong(const ArchiveKind& kind, const std::vector<std::string>& endings);
/// Whether files of the ending (lower case) are archives of a kind that isAmong the list.
bool isEndingAmong(std::string_view ending, const std::vector<std::string>& endings);
std::string nameOf(const ArchiveKind& kind);

/// Bytes that are scanned again as a layer of their own. Not in the table: no file is of this kind.
const ArchiveKind& rawKind();

/// Whether libarchive unpacks the kind.
bool isReadByLibarchive(const ArchiveKind& kind);

/// Whether libarchive silently leaves out what follows the end of an archive of the kind.
bool mayHaveRest(const ArchiveKind& kind);

/// Whether a file of libclamav's type may hold the bytes of an embedded file in pieces: libclamav puts them
/// together.
bool mayBeInPieces(std::string_view type);

/// Whether libclamav matches no signature with a file of the type: sound files, SQLite databases.
bool isLeftUnscanned(std::string_view type);

/// Office documents that are zip files inside.
bool isZipDocument(std::string_view type);

}  // namespace agent
