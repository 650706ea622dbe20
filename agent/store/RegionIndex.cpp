#include "store/RegionIndex.h"

#include <algorithm>

namespace agent::store {
namespace {

constexpr int kTrust = 0, kReject = 1;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

}  // namespace

void RegionIndex::put(int region, RegionType type, int domain, const std::string& item,
                      std::int64_t validUntil) {
  entries(region, type)[item].until.at(static_cast<std::size_t>(domain)) = validUntil;
}

void RegionIndex::erase(int region, RegionType type, int domain, const std::string& item) {
  Entries& all = entries(region, type);
  const auto found = all.find(item);
  if (found == all.end()) {
    return;
  }
  found->second.until.at(static_cast<std::size_t>(domain)) = kAbsent;
  if (found->second.until == Validity().until) {
    all.erase(found);
  }
}

void RegionIndex::eraseAll(int region, RegionType type, int domain) {
  Entries& all = entries(region, type);
  for (auto entry = all.begin(); entry != all.end();) {
    entry->second.until.at(static_cast<std::size_t>(domain)) = kAbsent;
    entry = entry->second.until == Validity().until ? all.erase(entry) : std::next(entry);
  }
}

bool RegionIndex::matches(const Entries& entries, std::string_view item, std::int64_t now) {
  if (entries.empty()) {
    return false;
  }
  const auto found = entries.find(item);
  return found != entries.end() &&
         std::any_of(found->second.until.begin(), found->second.until.end(),
                     [now](std::int64_t until) { return until == 0 || until > now; });
}

bool RegionIndex::nameIn(int region, std::string_view name, std::int64_t now) const {
  if (matches(entries(region, RegionType::kName), name, now)) {
    return true;
  }
  const Entries& extensions = entries(region, RegionType::kExtension);
  if (extensions.empty()) {
    return false;
  }
  // "a.tar.gz" is of the extensions "tar.gz" and "gz"; ".profile" has none.
  const std::string lower = lowerCase(name);
  for (std::size_t dot = lower.find('.', 1); dot < lower.size(); dot = lower.find('.', dot + 1)) {
    if (matches(extensions, std::string_view(lower).substr(dot + 1), now)) {
      return true;
    }
  }
  return false;
}

bool RegionIndex::pathIn(int region, std::string_view path, std::int64_t now) const {
  if (matches(entries(region, RegionType::kFile), path, now)) {
    return true;
  }
  const Entries& folders = entries(region, RegionType::kFolder);
  for (std::size_t end = path.size(); !folders.empty() && end > 0 && end != std::string_view::npos;
       end = path.rfind('/', end - 1)) {
    if (matches(folders, path.substr(0, end), now)) {
      return true;
    }
  }
  const std::size_t slash = path.rfind('/');
  return nameIn(region, slash == std::string_view::npos ? path : path.substr(slash + 1), now);
}

bool RegionIndex::hashIn(int region, const Verdict& hashes, std::int64_t now) const {
  return matches(entries(region, RegionType::kMd5), hashes.md5, now) ||
         matches(entries(region, RegionType::kSha1), hashes.sha1, now) ||
         matches(entries(region, RegionType::kSha256), hashes.sha256, now);
}

RegionVerdict RegionIndex::byPath(std::string_view path, std::int64_t now) const {
  if (pathIn(kReject, path, now)) {
    return RegionVerdict::kRejected;
  }
  return pathIn(kTrust, path, now) ? RegionVerdict::kTrusted : RegionVerdict::kNone;
}

RegionVerdict RegionIndex::byHash(const Verdict& hashes, std::int64_t now) const {
  if (hashIn(kReject, hashes, now)) {
    return RegionVerdict::kRejected;
  }
  return hashIn(kTrust, hashes, now) ? RegionVerdict::kTrusted : RegionVerdict::kNone;
}

bool RegionIndex::holdsHashes() const {
  return std::any_of(entries_.begin(), entries_.end(), [](const auto& region) {
    constexpr std::array kHashes = {RegionType::kMd5, RegionType::kSha1, RegionType::kSha256};
    return std::any_of(kHashes.begin(), kHashes.end(),
                       [&](RegionType type) { return !region[static_cast<std::size_t>(type)].empty(); });
  });
}

}  // namespace agent::store
