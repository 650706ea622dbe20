#include "support/TempDir.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir(const std::string& parent) : path_(parent + "/tavtest-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed below " + parent);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::at(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

std::string TempDir::write(std::string_view name, std::string_view content) const {
  const std::string path = at(name);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
  return path;
}

std::string diskFolder() {
  for (const std::string folder : {"/tmp", "/var/tmp"}) {
    struct statfs info {};
    if (statfs(folder.c_str(), &info) == 0 && info.f_type != TMPFS_MAGIC && info.f_type != RAMFS_MAGIC) {
      return folder;
    }
  }
  return std::filesystem::current_path();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace testsupport
