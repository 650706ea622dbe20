#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "lineeditor/LineEditor.h"

namespace lineeditor {

/// What the console has set for every prompt, and what stays from one line to the next. Main thread only.
struct EditorSettings {
  CompletionHook completionHook;
  std::function<void()> keyHelp;
  std::uint32_t promptColour = 0;
  std::string lastCut;  ///< at any prompt; what the paste keys give
};
EditorSettings& settings();

}  // namespace lineeditor
