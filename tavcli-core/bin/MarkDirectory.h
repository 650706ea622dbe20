#pragma once

#include <string>

namespace tavcli {

/// The folder of a tree's single-instance mark: the bus's socket folder, so that consoles on one bus share
/// the mark. Empty when another user may write in a folder on the way or may write the bus configuration. The
/// bus then refuses the tree and gives the reason.
std::string markDirectory(const std::string& installDir, const std::string& busConfigFile);

/// Makes this process keep its marks in that folder, unless the folder is empty.
void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile);

}  // namespace tavcli
