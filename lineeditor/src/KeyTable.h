#pragma once

#include <string_view>

#include "Key.h"

namespace lineeditor {

bool isNumber(std::string_view text);
/// ESC [ parameters final, in the forms of xterm, VT, rxvt and the Linux console ("[" stands first in its
/// parameters).
Key controlSequenceKey(std::string_view parameters, char final);
/// ESC O parameters final.
Key singleShiftKey(std::string_view parameters, char final);

}  // namespace lineeditor
