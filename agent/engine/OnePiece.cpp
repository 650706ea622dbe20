#include "engine/OnePiece.h"

#include <zlib.h>

#include <cstdint>

namespace agent {
namespace {

std::uint32_t crcOf(const Bytes& bytes, std::uint64_t at, std::uint64_t size) {
  const auto text = bytes.text(at, static_cast<std::size_t>(size));
  return static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()));
}

bool isWholeSevenZip(const Bytes& a) {
  constexpr std::uint64_t kFirstHeader = 32;
  if (!a.has(0, kFirstHeader)) {
    return false;
  }
  const std::uint64_t offset = a.at64(12), size = a.at64(20);
  if (offset > a.size() || !a.has(kFirstHeader + offset, size)) {
    return false;
  }
  return crcOf(a, kFirstHeader + offset, size) == a.at32(28);
}

bool isWholeRar4(const Bytes& a) {
  constexpr std::uint64_t kBlock = 7;  // behind the magic bytes
  if (!a.has(kBlock, 7)) {
    return false;
  }
  const std::uint32_t size = a.at16(kBlock + 5);
  return size >= 7 && a.has(kBlock, size) && (crcOf(a, kBlock + 2, size - 2) & 0xFFFF) == a.at16(kBlock);
}

bool isWholeRar5(const Bytes& a) {
  constexpr std::uint64_t kSum = 8, kBlock = 12;
  std::uint64_t size = 0;
  std::uint64_t at = kBlock;
  for (unsigned bits = 0; bits < 21; bits += 7, ++at) {  // seven bits a byte
    if (!a.has(at, 1)) {
      return false;
    }
    size |= std::uint64_t{a.at8(at) & 0x7FU} << bits;
    if ((a.at8(at) & 0x80U) == 0) {
      const std::uint64_t header = at + 1 - kBlock + size;
      return size > 0 && a.has(kBlock, header) && crcOf(a, kBlock, header) == a.at32(kSum);
    }
  }
  return false;
}

}  // namespace

bool isInOnePiece(Reader reader, const Bytes& archive) {
  if (reader == Reader::kSevenZip) {
    return isWholeSevenZip(archive);
  }
  if (reader == Reader::kRar) {
    return archive.has(6, 1) && archive.at8(6) == 0 ? isWholeRar4(archive) : isWholeRar5(archive);
  }
  return false;
}

}  // namespace agent
