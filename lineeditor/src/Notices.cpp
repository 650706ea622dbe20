#include "lineeditor/Notices.h"

#include "Display.h"

namespace lineeditor {

void printNotice(const std::string& block) {
  Display::instance().notice(block);
}

}  // namespace lineeditor
