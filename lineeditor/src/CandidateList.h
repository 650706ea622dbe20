#pragma once

#include <vector>

#include "Screen.h"
#include "lineeditor/Completion.h"

namespace lineeditor {

/// The candidates in columns, each column filled from top to bottom; the hint stands below them.
std::vector<Row> listRows(const CompletionState& list, int cols);

}  // namespace lineeditor
