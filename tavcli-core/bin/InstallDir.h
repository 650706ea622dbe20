#pragma once

#include <string>

namespace tavcli {

/// The tree that the console runs from: the folder above the current one when the first caller asks, ending
/// in a separator. Resolved once a process; every path below it is built from this text. Main thread.
const std::string& installDirectory();

}  // namespace tavcli
