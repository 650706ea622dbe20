#pragma once

#include <cstdint>
#include <functional>

#include "lineeditor/LineEditor.h"

namespace lineeditor {

/// What the console has set for every prompt. Main thread only.
struct EditorSettings {
  CompletionHook completionHook;
  std::function<void()> keyHelp;
  std::uint32_t promptColour = 0;
};
EditorSettings& settings();

}  // namespace lineeditor
