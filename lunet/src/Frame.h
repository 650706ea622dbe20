#pragma once

// A frame between two endpoints: a header of fixed size, then `length` bytes. Numbers are in host order,
// since both ends are on one machine. Either side closes a connection with a defective header.

#include <cstdint>
#include <type_traits>

#include "lunet/Lunet.h"

namespace lunet {

inline constexpr std::uint32_t kFrameMagic = 0x54454E4C;  // "LNET" in memory on little-endian machines
inline constexpr std::uint16_t kFrameVersion = 1;

enum class FrameKind : std::uint16_t {
  kHello = 1,  ///< first frame of the caller: a HelloBody; channel 1: a probe, which sends nothing else
  kHelloReply =
      2,         ///< first frame of the listener: its GUID; channel 0, or the Error that ends the connection
  kRequest = 3,  ///< caller to listener; id is the caller's own
  kAnswer = 4,   ///< listener to caller; id is the request's
  kRefusal = 5,  ///< listener to caller, no body: the request's answer is the Error in channel
  kOneway = 6,   ///< caller to listener; id 0
};

struct FrameHeader {
  std::uint32_t magic = kFrameMagic;
  std::uint16_t version = kFrameVersion;
  FrameKind kind = FrameKind::kOneway;
  std::uint32_t channel = 0;
  std::uint32_t length = 0;  ///< of the body, at most kMaxMessageBytes
  std::uint64_t id = 0;
};
static_assert(sizeof(FrameHeader) == 24 && std::is_trivially_copyable_v<FrameHeader>);

struct HelloBody {
  Guid caller{};  ///< sixteen zero bytes in a probe
  Guid target{};  ///< the address that the caller means
};
static_assert(sizeof(HelloBody) == 32);

inline constexpr std::uint32_t kProbe = 1;

/// The defect that ends the connection of this header; null for a sound header.
inline const char* defectOf(const FrameHeader& header) {
  if (header.magic != kFrameMagic) {
    return "wrong magic";
  }
  if (header.version != kFrameVersion) {
    return "unknown frame version";
  }
  if (header.length > kMaxMessageBytes) {
    return "announced length over the limit";
  }
  const auto kind = static_cast<std::uint16_t>(header.kind);
  return kind < 1 || kind > 6 ? "unknown frame kind" : nullptr;
}

}  // namespace lunet
