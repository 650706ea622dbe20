#pragma once

#include <string>

namespace tavcli {

/// The install tree of the console: the folder above the current folder, with a separator at the end. The
/// first call resolves the tree for the whole process. Main thread.
const std::string& installDirectory();

}  // namespace tavcli
