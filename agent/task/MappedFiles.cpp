#include "task/MappedFiles.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <set>
#include <utility>

#include "platform/Posix.h"
#include "platform/Text.h"

namespace agent {

namespace {

constexpr std::string_view kDeleted = " (deleted)";

/// Takes the text up to the separator, and the separators behind it, from the front.
std::string_view takeField(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(' '));
  line.remove_prefix(field.size());
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  return field;
}

template <class Number>
bool readNumber(std::string_view text, int base, Number& number) {
  return std::from_chars(text.data(), text.data() + text.size(), number, base).ptr ==
             text.data() + text.size() &&
         !text.empty();
}

/// The kernel writes an end of line in a path as "\012".
std::string plainPath(std::string_view text) {
  std::string path(text);
  for (std::size_t at = 0; (at = path.find("\\012", at)) != std::string::npos; ++at) {
    path.replace(at, 4, "\n");
  }
  return path;
}

/// "7f00-7f10 r-xp 00000000 fe:00 1234    /usr/lib/libc.so"
std::optional<MappedFile> readLine(std::string_view line) {
  MappedFile file;
  file.range = takeField(line);
  const std::string_view access = takeField(line);
  takeField(line);
  const std::string_view device = takeField(line);
  const std::string_view inode = takeField(line);
  const std::size_t colon = device.find(':');
  unsigned major = 0, minor = 0;
  if (!line.starts_with('/') || colon == std::string_view::npos || !readNumber(inode, 10, file.inode) ||
      !readNumber(device.substr(0, colon), 16, major) || !readNumber(device.substr(colon + 1), 16, minor) ||
      (line.ends_with(kDeleted) && access.find('x') == std::string_view::npos)) {
    return std::nullopt;
  }
  file.device = makedev(major, minor);
  file.path = plainPath(line);
  return file;
}

}  // namespace

std::vector<MappedFile> readMaps(std::string_view text) {
  std::vector<MappedFile> files;
  std::set<std::pair<dev_t, ino_t>> seen;
  for (const std::string_view line : CStr::split(text, '\n')) {
    std::optional<MappedFile> file = readLine(line);
    if (file && seen.emplace(file->device, file->inode).second) {
      files.push_back(std::move(*file));
    }
  }
  return files;
}

platform::Expected<std::vector<MappedFile>> mappedFiles(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/maps";
  const platform::Descriptor maps(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  char part[1 << 16];
  std::int64_t size = maps ? 0 : -1;
  while (maps && (size = read(maps.get(), part, sizeof part)) > 0) {
    text.append(part, static_cast<std::size_t>(size));
  }
  if (size < 0 && errno != ENOENT && errno != ESRCH) {
    return platform::failure(platform::errnoText(errno));
  }
  return readMaps(text);
}

}  // namespace agent
