#include "engine/SignatureFolder.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Text.h"

namespace agent {
namespace {

namespace fs = std::filesystem;

// The endings that libclamav loads from a folder.
constexpr std::array<std::string_view, 38> kEndings = {
    ".cvd", ".cld", ".cud", ".cdb", ".db",  ".ndb", ".ndu", ".ldb", ".ldu",  ".sdb",  ".hdb",  ".hdu", ".hsb",
    ".hsu", ".mdb", ".mdu", ".msb", ".msu", ".fp",  ".sfp", ".ign", ".ign2", ".wdb",  ".pdb",  ".gdb", ".zmd",
    ".rmd", ".idb", ".cbc", ".ftm", ".cfg", ".crb", ".cat", ".ioc", ".yar",  ".yara", ".pwdb", ".imp"};

std::string endingOf(const std::string& name) {
  std::string ending = fs::path(name).extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return ending;
}

bool isSignatureFile(const std::string& name) {
  return std::find(kEndings.begin(), kEndings.end(), endingOf(name)) != kEndings.end();
}

// libclamav's order: names to ignore, then the daily database with its settings, certificates, and the rest.
int orderOf(const std::string& name) {
  const std::string ending = endingOf(name);
  if (ending == ".ign" || ending == ".ign2") {
    return 0;
  }
  if (isPackedDatabase(name) && name.starts_with("daily.")) {
    return 1;
  }
  if (name == "local.gdb") {
    return 2;
  }
  if (ending == ".cfg") {
    return 3;
  }
  return ending == ".crb" ? 4 : 5;
}

std::string identityOf(const std::string& name, const struct stat& status) {
  const auto time = [](const timespec& at) {
    return std::to_string(at.tv_sec) + "." + std::to_string(at.tv_nsec);
  };
  return name + " " + std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) + " " +
         std::to_string(status.st_size) + " " + time(status.st_mtim) + " " + time(status.st_ctim) + "\n";
}

}  // namespace

SignatureFolder::SignatureFolder(std::string path) : path_(std::move(path)) {
  std::error_code error;
  for (fs::directory_iterator entry(path_, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    struct stat status {};
    const bool known = isSignatureFile(name) && stat(at(name).c_str(), &status) == 0;
    if (isSignatureFile(name) && (!known || !S_ISDIR(status.st_mode))) {
      names_.push_back(name);
    }
  }
  if (error) {
    problem_ = platform::visibleText(path_) + ": " + error.message();
    unreadable_ = error != std::errc::no_such_file_or_directory;
  } else if (names_.empty()) {
    problem_ = platform::visibleText(path_) + ": no signature files";
  }
  std::sort(names_.begin(), names_.end(), [](const std::string& one, const std::string& other) {
    return std::pair(orderOf(one), one) < std::pair(orderOf(other), other);
  });
  for (const std::string& name : names_) {
    struct stat status {};
    stat(at(name).c_str(), &status);
    identity_ += identityOf(name, status);
  }
}

bool isPackedDatabase(const std::string& name) {
  const std::string ending = endingOf(name);
  return ending == ".cvd" || ending == ".cld" || ending == ".cud";
}

std::string databaseOf(const std::string& name) {
  return isPackedDatabase(name) ? fs::path(name).stem().string() + ".cvd" : name;
}

bool comparesPictures(const std::string& path) {
  if (isPackedDatabase(path)) {
    return true;
  }
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find("fuzzy_img#") != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace agent
