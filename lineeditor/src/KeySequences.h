#pragma once

#include <string_view>

#include "Key.h"

/// The escape sequences that terminals send for keys. KeyDecoder cuts a sequence into its parts; these
/// functions look the parts up.
namespace lineeditor {

bool isNumber(std::string_view text);
/// ESC [ parameters final, in the forms of xterm, VT, rxvt and the Linux console. For the Linux console,
/// parameters is the second "[".
Key controlSequenceKey(std::string_view parameters, char final);
/// ESC O parameters final.
Key singleShiftKey(std::string_view parameters, char final);

}  // namespace lineeditor
