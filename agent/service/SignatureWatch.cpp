#include "service/SignatureWatch.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <system_error>

namespace agent {

SignatureWatch::SignatureWatch(std::vector<std::string> folders)
    : folders_(std::move(folders)), inUse_(look()), last_(inUse_) {}

bool SignatureWatch::changed() {
  const std::string now = look();
  const bool settled = now == last_ && now != inUse_;
  last_ = now;
  if (settled) {
    inUse_ = now;
  }
  return settled;
}

std::string SignatureWatch::look() const {
  std::set<std::string> files;
  for (const std::string& folder : folders_) {
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
      struct stat status {};
      if (stat(it->path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        files.insert(it->path().string() + " " + std::to_string(status.st_size) + " " +
                     std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) +
                     " " + std::to_string(status.st_ino));
      }
    }
  }
  std::string all;
  for (const std::string& file : files) {
    all += file + "\n";
  }
  return all;
}

}  // namespace agent
