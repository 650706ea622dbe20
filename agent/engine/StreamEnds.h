#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/Bytes.h"

namespace agent {

/// The streams of an xz or a zst that stand one behind the other.
struct Streams {
  std::vector<std::uint64_t> starts;  ///< of each stream, from the beginning of the first
  std::uint64_t end = 0;              ///< of the last whole stream; 0: the first has no end
};

/// Follow the sizes in the headers of the streams; unpack nothing. steps: how many headers may be read; what
/// was read is subtracted. At 0, streams may be missing.
Streams followXz(const Bytes& archive, std::size_t& steps);
Streams followZstd(const Bytes& archive, std::size_t& steps);

/// Where the first frame begins that is no skippable frame; such frames may precede any frame of a zst or an
/// lz4.
std::uint64_t skipFrames(const Bytes& archive);

}  // namespace agent
