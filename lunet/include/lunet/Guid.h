#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace lunet {

/// A bus address as it is sent: a 32-bit and two 16-bit fields in host order, then eight single bytes.
using Guid = std::array<std::uint8_t, 16>;

/// Reads "8-4-4-4-12" hexadecimal text, with or without braces. Another text, or null, gives zero bytes.
Guid parseGuid(const char* text) noexcept;

/// The 8-4-4-4-12 form in upper case, without braces. parseGuid(formatGuid(g)) == g.
std::string formatGuid(const Guid& guid);

}  // namespace lunet
