#pragma once

#include <cstdint>
#include <string_view>

#include "engine/TempFile.h"

namespace agent {

/// Whether most of an open file is holes, so many that a copy without the holes saves time. The position of
/// the descriptor may change.
bool isMostlyHoles(int fd, std::uint64_t size);

/// Copies the file. Of each hole, the copy has the beginning only, as zeros. What is found by its distance
/// from the beginning of the file, or from another place across a long hole, is not found in the copy.
platform::Expected<void> copyWithoutHoles(int fd, std::uint64_t size, TempFile& copy);

/// Whether nothing in a layer of libclamav's type is found by its place in the file.
bool isFoundAnywhere(std::string_view type);

}  // namespace agent
