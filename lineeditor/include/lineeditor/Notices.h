#pragma once

#include <string>

namespace lineeditor {

/// Prints whole lines from any thread. While a prompt stands on a terminal the block goes above it and the
/// prompt with its half-typed line comes back beneath, cursor where it was; otherwise the bytes go to
/// standard output as they are. The caller has made the text fit for a terminal.
void printNotice(const std::string& block);

}  // namespace lineeditor
