#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/ArchiveKinds.h"

namespace agent {

/// When an archive that cannot be unpacked whole makes the scan an error. Bytes of no archive may look like
/// the beginning of one. A limit and an encrypted member always make the scan an error: something came out,
/// or might have.
enum class Failure : std::uint8_t { kCounts, kCountsIfYielded, kCountsUnlessYielded, kIgnored };

/// An archive that begins in a layer.
struct Part {
  const ArchiveKind* kind = nullptr;
  std::uint64_t offset = 0;
  Failure failure = Failure::kCounts;
  /// Of a tar, cpio or lzh behind the beginning: where else one may begin, from `offset`, in order. Mostly
  /// the members of the first.
  std::vector<std::uint64_t> later;
  std::uint64_t size = ~std::uint64_t{0};  ///< at most
};

struct Contents {
  std::vector<Part> parts;    ///< those at the beginning come first
  std::size_t later = 0;      ///< of all parts
  bool tooMany = false;       ///< more parts than are listed
  bool hasZipStream = false;  ///< a zip member's header stands behind the beginning
  bool hasZipEnd = false;     ///< the end record of a zip stands behind the beginning
  bool hasBrokenArj = false;  ///< the layer is an arj that libclamav cannot unpack whole
  bool hasOddTar = false;     ///< a tar with a header that other programs read in another way
};

/// Finds archives by their magic bytes, whatever type libclamav gives the layer. kind: libclamav's for the
/// layer; null: no archive. Behind the beginning of an archive, only kinds with certain signs are listed, and
/// tar, cpio and lzh, which other programs search for in any file. Zip files with a directory are not listed
/// as such: ZipAudit.h finds them by their end. Never reads outside the buffer.
Contents lookInto(const char* data, std::size_t size, const ArchiveKind* kind);

}  // namespace agent
