#include "EditorSettings.h"

namespace lineeditor {

EditorSettings& settings() {
  static EditorSettings instance;
  return instance;
}

}  // namespace lineeditor
