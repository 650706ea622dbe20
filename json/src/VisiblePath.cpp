#include "json/CppJson.h"
#include "platform/Text.h"

namespace json {

std::string visiblePath(std::string_view wire) {
  return platform::visibleText(decodePath(wire));
}

}  // namespace json
