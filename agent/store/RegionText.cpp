#include "store/RegionText.h"

#include <algorithm>

#include "platform/Files.h"
#include "platform/Posix.h"

namespace agent::store {
namespace {

constexpr std::size_t kMaxPathBytes = 4096, kMaxNameBytes = 255;

platform::Expected<std::string> normalisePath(const std::string& text) {
  if (text.empty() || text.front() != '/') {
    return platform::failure(platform::quoted(text) + " is not an absolute path");
  }
  if (text.size() > kMaxPathBytes) {
    return platform::failure("the path is longer than " + std::to_string(kMaxPathBytes) + " bytes");
  }
  std::string path = utils::FormatFilePath(text);
  if (path == "/") {
    return platform::failure("'/' would take in everything");
  }
  return path;
}

platform::Expected<std::string> normaliseName(const std::string& text) {
  if (text.empty() || text == "." || text == ".." || text.find('/') != std::string::npos) {
    return platform::failure(platform::quoted(text) + " is not a file name");
  }
  if (text.size() > kMaxNameBytes) {
    return platform::failure("the name is longer than " + std::to_string(kMaxNameBytes) + " bytes");
  }
  return text;
}

platform::Expected<std::string> normaliseExtension(const std::string& text) {
  std::string extension = asciiLowerCase(text);
  if (extension.starts_with("*.")) {
    extension.erase(0, 2);
  } else if (extension.starts_with('.')) {
    extension.erase(0, 1);
  }
  if (extension.empty() || extension.size() > kMaxNameBytes || extension.starts_with('.') ||
      extension.ends_with('.') || extension.find_first_of("/*?") != std::string::npos) {
    return platform::failure(platform::quoted(text) + " is not a file extension");
  }
  return extension;
}

platform::Expected<std::string> normaliseHash(const std::string& text, std::size_t digits, const char* name) {
  std::string hash = asciiLowerCase(text);
  if (hash.size() != digits || hash.find_first_not_of("0123456789abcdef") != std::string::npos) {
    return platform::failure(platform::quoted(text) + " is not a " + name + " of " + std::to_string(digits) +
                             " hexadecimal digits");
  }
  return hash;
}

}  // namespace

std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

platform::Expected<std::string> normaliseRegionItem(RegionItemType type, const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    return platform::failure("an item holds a zero byte");
  }
  switch (type) {
    case RegionItemType::kFile:
    case RegionItemType::kFolder:
      return normalisePath(text);
    case RegionItemType::kExtension:
      return normaliseExtension(text);
    case RegionItemType::kName:
      return normaliseName(text);
    case RegionItemType::kMd5:
      return normaliseHash(text, 32, "MD5");
    case RegionItemType::kSha1:
      return normaliseHash(text, 40, "SHA1");
    case RegionItemType::kSha256:
      return normaliseHash(text, 64, "SHA256");
  }
  return platform::failure("unknown kind of item");
}

}  // namespace agent::store
