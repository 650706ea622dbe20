#include "engine/SignatureFolder.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "engine/FileHashes.h"
#include "platform/Posix.h"

namespace agent {
namespace {

namespace fs = std::filesystem;

// The endings that libclamav loads from a folder.
constexpr std::array<std::string_view, 36> kEndings = {
    ".cvd", ".cld", ".cud", ".cdb", ".db",  ".ndb", ".ndu", ".ldb", ".ldu", ".sdb",  ".hdb", ".hdu",
    ".hsb", ".hsu", ".mdb", ".mdu", ".msb", ".msu", ".fp",  ".sfp", ".ign", ".ign2", ".wdb", ".pdb",
    ".gdb", ".zmd", ".rmd", ".idb", ".cbc", ".ftm", ".cfg", ".crb", ".cat", ".ioc",  ".yar", ".yara"};

bool isSignatureFile(const fs::path& path) {
  const std::string ending = path.extension().string();
  return std::find(kEndings.begin(), kEndings.end(), ending) != kEndings.end();
}

bool isPacked(const std::string& path) {
  return path.ends_with(".cvd") || path.ends_with(".cld") || path.ends_with(".cud");
}

}  // namespace

SignatureFolder::SignatureFolder(std::string path) : path_(std::move(path)) {
  std::error_code error;
  for (fs::directory_iterator entry(path_, error), end; !error && entry != end; entry.increment(error)) {
    if (isSignatureFile(entry->path()) && entry->is_regular_file(error)) {
      files_.push_back(entry->path().string());
    }
  }
  if (error) {
    problem_ = path_ + ": " + error.message();
    unreadable_ = error != std::errc::no_such_file_or_directory;
  } else if (files_.empty()) {
    problem_ = path_ + ": no signature files";
  }
  std::sort(files_.begin(), files_.end());
}

std::string SignatureFolder::contentKey() const {
  std::string key;
  for (const auto& file : files_) {
    Verdict hashes;
    fillHashes(platform::openQuietly(AT_FDCWD, file.c_str(), 0).get(), hashes);
    key += file + ' ' + hashes.sha256 + '\n';
  }
  return key;
}

bool SignatureFolder::comparesPictures() const {
  return std::any_of(files_.begin(), files_.end(), [](const std::string& file) {
    if (isPacked(file)) {
      return true;
    }
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
      if (line.find("fuzzy_img#") != std::string::npos) {
        return true;
      }
    }
    return false;
  });
}

}  // namespace agent
