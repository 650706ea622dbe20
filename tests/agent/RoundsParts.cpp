#include "agent/RoundsParts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "engine/Digest.h"
#include "platform/Posix.h"
#include "store/Store.h"
#include "support/TempDir.h"

namespace rounds {

namespace {

bool take(const Option& option, const char* text) {
  if (std::string* const* const target = std::get_if<std::string*>(&option.value)) {
    **target = text;
    return true;
  }
  char* end = nullptr;
  const unsigned long number = std::strtoul(text, &end, 10);
  *std::get<unsigned long*>(option.value) = number;
  return end != text && *end == '\0' && number >= option.smallest;
}

Original look(const std::string& path) {
  Original file;
  file.path = path;
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    const std::string content = testsupport::readFile(path);
    agent::Digest digest(agent::Digest::Kind::kSha256);
    digest.add(content.data(), content.size());
    file.sha256 = digest.hex();
    file.mode = st.st_mode;
    file.uid = st.st_uid;
    file.modifyNs = agent::FileIdentity::of(st).modifyTimeNs;
  }
  return file;
}

void write(const std::string& path, const std::string& content, mode_t mode) {
  const platform::Descriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
  if (!fd || platform::writeAll(fd.get(), content) != 0 || ::fchmod(fd.get(), mode) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace

bool readOptions(int argc, char** argv, const std::vector<Option>& options) {
  bool good = argc % 2 == 1;
  for (int i = 1; good && i + 1 < argc; i += 2) {
    const auto option = std::find_if(options.begin(), options.end(),
                                     [&](const Option& known) { return std::string(argv[i]) == known.name; });
    good = option != options.end() && take(*option, argv[i + 1]);
  }
  if (!good) {
    std::fprintf(stderr, "usage: %s", argv[0]);
    for (const Option& option : options) {
      std::fprintf(stderr, " [%s %s]", option.name,
                   std::holds_alternative<std::string*>(option.value) ? "PATH" : "N");
    }
    std::fprintf(stderr, "\n");
  }
  return good;
}

std::string randomBytes(std::size_t count, std::mt19937_64& random) {
  std::string bytes(count, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

Originals::Originals(std::string folder, std::size_t count,
                     const std::function<std::string(std::size_t)>& content)
    : folder_(std::move(folder)) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::string place = folder_ + "/d" + std::to_string(i % 7) + "/e" + std::to_string(i % 3);
    std::filesystem::create_directories(place);
    const std::string path = place + "/file" + std::to_string(i);
    write(path, content(i), i % 2 == 0 ? 0755 : 0640);
    all_.push_back(look(path));
  }
}

Originals::Places Originals::count(const std::multiset<std::string>& quarantined, const Fail& fail) const {
  Places places;
  for (const Original& original : all_) {
    const std::size_t items = quarantined.count(original.path);
    const bool there = std::filesystem::exists(std::filesystem::symlink_status(original.path));
    places.inPlace += there ? 1U : 0U;
    places.inQuarantine += items;
    if (items + (there ? 1U : 0U) != 1) {
      ++(items == 0 ? places.lost : places.twice);
      fail(original.path, items == 0 ? "is lost" : "is in more than one place");
    }
    if (there && !(look(original.path) == original)) {
      fail(original.path, "in place is not what it was");
    }
  }
  if (places.inPlace + places.inQuarantine != all_.size() || places.inQuarantine != quarantined.size()) {
    fail(folder_, "has " + std::to_string(places.inPlace) + " files in place and " +
                      std::to_string(quarantined.size()) + " in quarantine, not " +
                      std::to_string(all_.size()) + " in all");
  }
  return places;
}

void Originals::checkAll(const Fail& fail) const {
  for (const Original& original : all_) {
    if (!(look(original.path) == original)) {
      fail(original.path, "is not what it was");
    }
  }
  std::size_t found = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_)) {
    found += entry.is_directory() ? 0U : 1U;
  }
  if (found != all_.size()) {
    fail(folder_, "holds " + std::to_string(found) + " files, not " + std::to_string(all_.size()));
  }
}

}  // namespace rounds
