#pragma once

#include <string>

namespace lineeditor {

/// Prints whole lines; any thread may call. While a prompt is shown on a terminal, the block appears above
/// the prompt. The prompt, the half-typed line and the cursor stay as they were. Without a prompt, the block
/// goes unchanged to standard output. The caller has made control characters in the block visible.
void printNotice(const std::string& block);

}  // namespace lineeditor
