#pragma once

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

using Members = std::vector<std::pair<std::string, std::string>>;  // name and content

/// An archive that libarchive writes. format and filter: libarchive's names; options: as for bsdtar's
/// --options, for example "7zip:compression=bzip2" or "zip:encryption=aes256". Throws std::runtime_error.
std::string archiveOf(const Members& members, const std::string& format, const std::string& filter = {},
                      const std::string& options = {});
/// One compressed file without members, by libarchive's filter.
std::string packedBy(const std::string& filter, const std::string& content);

}  // namespace testsupport
