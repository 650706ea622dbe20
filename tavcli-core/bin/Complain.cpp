#include "bin/Complain.h"

#include <cstdio>

#include "platform/Text.h"

namespace tavcli {

void complain(const std::string& line) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", platform::visibleText(line).c_str());
}

}  // namespace tavcli
