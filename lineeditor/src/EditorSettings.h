#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "lineeditor/LineEditor.h"

namespace lineeditor {

/// The settings of every prompt, and the text that is kept from one line to the next. Main thread only.
struct EditorSettings {
  CompletionHook completionHook;
  std::function<void()> keyHelp;
  std::uint32_t promptColour = 0;
  std::string wordDelimiters = " !\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~";
  std::string lastCut;  ///< the text cut last, at any prompt; the paste keys insert this text
};
inline EditorSettings& settings() {
  static EditorSettings instance;
  return instance;
}

}  // namespace lineeditor
