#include "engine/StreamEnds.h"

#include <array>
#include <optional>
#include <string_view>

namespace agent {
namespace {

using namespace std::string_view_literals;

using End = std::optional<std::uint64_t>;  // of a part that begins before; empty: damaged or cut off

constexpr auto kXzMagic =
    "\xFD"
    "7zXZ\0"sv;
constexpr std::uint32_t kZstdMagic = 0xFD2FB528;

bool mayStep(std::size_t& steps) {
  if (steps == 0) {
    return false;
  }
  --steps;
  return true;
}

std::uint64_t roundUp(std::uint64_t at) {
  return (at + 3) / 4 * 4;
}

std::uint64_t bigEndian16(const Bytes& a, std::uint64_t at) {
  return a.at8(at) << 8U | a.at8(at + 1);
}

// The packed data of an xz block are LZMA2, whatever filters stand before. Each chunk has its size.
End endOfChunks(const Bytes& a, std::uint64_t at, std::size_t& steps) {
  constexpr std::uint32_t kEnd = 0, kLastStored = 2, kPacked = 0x80, kWithProperties = 0xC0;
  while (a.has(at, 6) && mayStep(steps)) {
    const std::uint32_t control = a.at8(at);
    if (control == kEnd) {
      return at + 1;
    }
    if (control > kLastStored && control < kPacked) {
      return std::nullopt;
    }
    const bool packed = control >= kPacked;
    const std::uint64_t header = packed ? (control >= kWithProperties ? 6 : 5) : 3;
    at += header + bigEndian16(a, packed ? at + 3 : at + 1) + 1;
  }
  return std::nullopt;
}

// Seven bits a byte, the lowest first.
bool readNumber(const Bytes& a, std::uint64_t& at, std::uint64_t& number) {
  number = 0;
  for (unsigned shift = 0; shift < 63 && a.has(at, 1); shift += 7) {
    const std::uint64_t byte = a.at8(at++);
    number |= (byte & 0x7FU) << shift;
    if ((byte & 0x80U) == 0) {
      return true;
    }
  }
  return false;
}

End endOfXzIndex(const Bytes& a, std::uint64_t at, std::size_t& steps) {
  constexpr std::uint64_t kChecksumBytes = 4, kFooterBytes = 12;
  std::uint64_t records = 0, number = 0;
  if (!readNumber(a, ++at, records)) {
    return std::nullopt;
  }
  for (; records > 0; --records) {
    if (!mayStep(steps) || !readNumber(a, at, number) || !readNumber(a, at, number)) {
      return std::nullopt;
    }
  }
  at = roundUp(at) + kChecksumBytes;
  const bool whole = a.has(at, kFooterBytes) && a.text(at + kFooterBytes - 2, 2) == "YZ";
  return whole ? End(at + kFooterBytes) : std::nullopt;
}

// at: the stream's, a multiple of four from the first stream.
End endOfXzStream(const Bytes& a, std::uint64_t at, std::size_t& steps) {
  constexpr std::array<std::uint64_t, 16> kCheckBytes = {0,  4,  4,  4,  8,  8,  8,  16,
                                                         16, 16, 32, 32, 32, 64, 64, 64};
  constexpr std::uint64_t kHeaderBytes = 12;
  if (!a.has(at, kHeaderBytes) || a.text(at, kXzMagic.size()) != kXzMagic) {
    return std::nullopt;
  }
  const std::uint64_t check = kCheckBytes.at(a.at8(at + 7) & 0xFU);
  at += kHeaderBytes;
  while (a.has(at, 1) && a.at8(at) != 0) {
    const End chunks = endOfChunks(a, at + (a.at8(at) + 1) * 4, steps);
    if (!chunks) {
      return std::nullopt;
    }
    at = roundUp(*chunks) + check;
  }
  return a.has(at, 1) ? endOfXzIndex(a, at, steps) : std::nullopt;
}

std::uint64_t zstdHeaderBytes(std::uint32_t descriptor) {
  constexpr std::array<std::uint64_t, 4> kDictionaryBytes = {0, 1, 2, 4}, kSizeBytes = {0, 2, 4, 8};
  constexpr std::uint64_t kMagicAndDescriptor = 5;
  const bool single = (descriptor & 0x20U) != 0;
  const std::uint64_t size = single && descriptor >> 6U == 0 ? 1 : kSizeBytes.at(descriptor >> 6U);
  return kMagicAndDescriptor + (single ? 0 : 1) + kDictionaryBytes.at(descriptor & 3U) + size;
}

End endOfZstdFrame(const Bytes& a, std::uint64_t at, std::size_t& steps) {
  constexpr std::uint32_t kRepeatedByte = 1, kReserved = 3, kHasChecksum = 4;
  constexpr std::uint64_t kBlockHeader = 3;
  if (!a.has(at, 6) || a.at32(at) != kZstdMagic) {
    return std::nullopt;
  }
  const std::uint32_t descriptor = a.at8(at + 4);
  bool last = false;
  for (at += zstdHeaderBytes(descriptor); !last;) {
    if (!a.has(at, kBlockHeader) || !mayStep(steps)) {
      return std::nullopt;
    }
    const std::uint32_t block = a.at16(at) | a.at8(at + 2) << 16U, kind = block >> 1U & 3U;
    if (kind == kReserved) {
      return std::nullopt;
    }
    last = (block & 1U) != 0;
    at += kBlockHeader + (kind == kRepeatedByte ? 1 : block >> 3U);
  }
  at += (descriptor & kHasChecksum) != 0 ? 4 : 0;
  return a.has(0, at) ? End(at) : std::nullopt;
}

}  // namespace

Streams followXz(const Bytes& archive, std::size_t& steps) {
  Streams streams;
  for (std::uint64_t at = 0;;) {
    const End end = endOfXzStream(archive, at, steps);
    if (!end) {
      return streams;
    }
    streams.starts.push_back(at);
    streams.end = *end;
    // Zeros may stand between two streams.
    for (at = *end; archive.has(at, 4) && archive.at32(at) == 0 && mayStep(steps); at += 4) {
    }
  }
}

Streams followZstd(const Bytes& archive, std::size_t& steps) {
  Streams streams;
  for (std::uint64_t at = 0;;) {
    const End end = endOfZstdFrame(archive, at, steps);
    if (!end) {
      return streams;
    }
    streams.starts.push_back(at);
    streams.end = *end;
    at = *end + (archive.has(*end, 1) ? skipFrames(archive.from(*end)) : 0);
  }
}

std::uint64_t skipFrames(const Bytes& archive) {
  constexpr std::uint32_t kSkippable = 0x184D2A50;
  std::uint64_t at = 0;
  while (archive.has(at, 8) && (archive.at32(at) & ~0xFU) == kSkippable) {
    at += 8 + std::uint64_t{archive.at32(at + 4)};
  }
  return at;
}

}  // namespace agent
