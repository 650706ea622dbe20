#pragma once

#include <cstdint>
#include <string>

namespace lunet {

/// An error number of the bus in words: "nobody is at that address now (0xE0010002)".
std::string describeError(std::uint32_t error);

}  // namespace lunet
