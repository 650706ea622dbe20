#pragma once

#include <cstdint>
#include <vector>

#include "engine/Bytes.h"

namespace agent {

// Whether bytes whose magic bytes fit are the header of an archive. The bytes begin where the archive begins,
// or where the file system's volume begins. None reads outside the bytes.

bool isGzip(const Bytes& a);
bool isPack(const Bytes& a);
bool isZlib(const Bytes& a);
bool isCompress(const Bytes& a);
bool isBzip2(const Bytes& a);
bool isXz(const Bytes& a);
bool isZstd(const Bytes& a);
bool isLz4(const Bytes& a);
bool isLzma(const Bytes& a);
/// As isLzma, with a dictionary of any size.
bool isLzmaOfAnyDictionary(const Bytes& a);
bool isSevenZip(const Bytes& a);
bool isRar4(const Bytes& a);
bool isRar5(const Bytes& a);
/// A cab by its sizes: the whole cab is there.
bool isWholeCab(const Bytes& a);
bool isCab(const Bytes& a);
bool isLzh(const Bytes& a);
/// As isLzh, with a size of the header that other programs accept.
bool isLzhBehind(const Bytes& a);
/// As isLzh, with a name, and refused by libarchive: it does not know the method, or misses a sum that other
/// programs do without. The member is not larger than the file.
bool isRefusedLzh(const Bytes& a);
bool isArc(const Bytes& a);
/// As isArc, with a date; the header of the next member, the end mark or the end follows.
bool isArcMember(const Bytes& a);
/// An arj to its end mark, all of whose members are packed by methods that libclamav knows.
bool isWholeArj(const Bytes& a);
bool isUuencode(const Bytes& a);
bool isCpioText(const Bytes& a);
/// A cpio whose header holds numbers of two bytes, in either order.
bool isCpioBinary(const Bytes& a);
/// An old tar has no magic bytes, but a checksum of the header.
bool isTar(const Bytes& a);
/// As isTar, with a checksum of six digits or blanks at least: a quick check.
bool isTarOfDigits(const Bytes& a);

bool isSquashFs(const Bytes& a);
bool isWim(const Bytes& a);
bool isExt(const Bytes& a);
/// With the sizes of its groups: the magic bytes are two.
bool isExtVolume(const Bytes& a);
bool isFat(const Bytes& a);
/// With the first bytes of its table: programs that make file systems hold boot sectors, too.
bool isWholeFat(const Bytes& a);
bool isWholeNtfs(const Bytes& a);
bool isCramFs(const Bytes& a);
bool isJffs2(const Bytes& a);
bool isHfs(const Bytes& a);
bool isHfsPlus(const Bytes& a);
bool isMinix(const Bytes& a);
bool isOle2(const Bytes& a);
/// At most. By the number of its tables.
std::uint64_t sizeOfOle2(const Bytes& a);
/// The descriptors of a udf, of its own or beside those of an iso.
bool hasUdfTree(const Bytes& a);

/// The headers of a tar, one after the other.
struct TarChain {
  std::vector<std::uint64_t> headers;  ///< their offsets
  bool odd = false;  ///< other programs read a header, or a member's size from it, and libarchive does not
};
TarChain followTar(const Bytes& layer, std::uint64_t offset);

}  // namespace agent
