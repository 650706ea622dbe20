#include "store/RegionText.h"

#include <algorithm>
#include <array>

#include "platform/Files.h"
#include "platform/Posix.h"

namespace agent::store {
namespace {

constexpr std::size_t kMaxPathBytes = 4096, kMaxNameBytes = 255;

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

std::string normalisePath(const std::string& text, std::string* item) {
  if (text.empty() || text.front() != '/') {
    return platform::quoted(text) + " is not an absolute path";
  }
  if (text.size() > kMaxPathBytes) {
    return "the path is longer than " + std::to_string(kMaxPathBytes) + " bytes";
  }
  *item = utils::FormatFilePath(text);
  return *item == "/" ? "'/' would take in everything" : "";
}

std::string normaliseName(const std::string& text, std::string* item) {
  if (text.empty() || text == "." || text == ".." || text.find('/') != std::string::npos) {
    return platform::quoted(text) + " is not a file name";
  }
  if (text.size() > kMaxNameBytes) {
    return "the name is longer than " + std::to_string(kMaxNameBytes) + " bytes";
  }
  *item = text;
  return {};
}

std::string normaliseExtension(const std::string& text, std::string* item) {
  std::string extension = lowerCase(text);
  if (extension.starts_with("*.")) {
    extension.erase(0, 2);
  } else if (extension.starts_with('.')) {
    extension.erase(0, 1);
  }
  const bool bad = extension.empty() || extension.size() > kMaxNameBytes || extension.starts_with('.') ||
                   extension.ends_with('.') || extension.find_first_of("/*?") != std::string::npos;
  *item = extension;
  return bad ? platform::quoted(text) + " is not a file extension" : "";
}

std::string normaliseHash(const std::string& text, std::size_t digits, const char* name, std::string* item) {
  *item = lowerCase(text);
  if (item->size() != digits || item->find_first_not_of("0123456789abcdef") != std::string::npos) {
    return platform::quoted(text) + " is not a " + name + " of " + std::to_string(digits) +
           " hexadecimal digits";
  }
  return {};
}

}  // namespace

std::string normaliseRegionItem(RegionItemType type, const std::string& text, std::string* item) {
  if (text.find('\0') != std::string::npos) {
    return "an item holds a zero byte";
  }
  switch (type) {
    case RegionItemType::kFile:
    case RegionItemType::kFolder:
      return normalisePath(text, item);
    case RegionItemType::kExtension:
      return normaliseExtension(text, item);
    case RegionItemType::kName:
      return normaliseName(text, item);
    case RegionItemType::kMd5:
      return normaliseHash(text, 32, "MD5", item);
    case RegionItemType::kSha1:
      return normaliseHash(text, 40, "SHA1", item);
    case RegionItemType::kSha256:
      return normaliseHash(text, 64, "SHA256", item);
  }
  return "unknown kind of item";
}

}  // namespace agent::store
