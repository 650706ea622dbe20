#pragma once

#include <string>

namespace tavcli {

/// Where the single-instance mark of a tree lies: beside the bus's sockets, so that all who share a bus share
/// the mark, whatever their environment. Empty when somebody else could plant things on the way there or may
/// write the bus configuration: nothing is made then, and the bus, which lies in the same folder, refuses the
/// tree with its reason.
std::string markDirectory(const std::string& installDir, const std::string& busConfigFile);

/// Puts it into force for the marks of this process.
void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile);

}  // namespace tavcli
