#pragma once

#include <vector>

#include "shell/GrammarTable.h"

namespace command {

/// The rows of the CONFIG command, in the order of their attachment. The handlers write into the pending
/// TavCliCmdConfigExec.
std::vector<shell::GrammarRow> configGrammar();

}  // namespace command
