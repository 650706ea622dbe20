#include "store/RegionIndex.h"

#include <algorithm>

namespace agent::store {
namespace {

/// An entry belongs to one of two domains.
std::size_t slotOf(json::RegionDomain domain) {
  return domain == json::RegionDomain::kPersonal ? 0 : 1;
}

}  // namespace

void RegionIndex::put(json::Region region, RegionItemType type, json::RegionDomain domain,
                      const std::string& item, std::int64_t validUntil) {
  entries(region, type)[item].until.at(slotOf(domain)) = validUntil;
}

void RegionIndex::erase(json::Region region, RegionItemType type, json::RegionDomain domain,
                        const std::string& item) {
  Entries& all = entries(region, type);
  const auto found = all.find(item);
  if (found == all.end()) {
    return;
  }
  found->second.until.at(slotOf(domain)) = kAbsent;
  if (found->second.until == Validity().until) {
    all.erase(found);
  }
}

void RegionIndex::eraseAll(json::Region region, RegionItemType type, json::RegionDomain domain) {
  Entries& all = entries(region, type);
  for (auto entry = all.begin(); entry != all.end();) {
    entry->second.until.at(slotOf(domain)) = kAbsent;
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

bool RegionIndex::nameIn(json::Region region, std::string_view name, std::int64_t now) const {
  if (matches(entries(region, RegionItemType::kName), name, now)) {
    return true;
  }
  const Entries& extensions = entries(region, RegionItemType::kExtension);
  if (extensions.empty()) {
    return false;
  }
  // "a.tar.gz" has the extensions "tar.gz" and "gz"; ".profile" has no extension.
  const std::string lower = asciiLowerCase(name);
  for (std::size_t dot = lower.find('.', 1); dot < lower.size(); dot = lower.find('.', dot + 1)) {
    if (matches(extensions, std::string_view(lower).substr(dot + 1), now)) {
      return true;
    }
  }
  return false;
}

bool RegionIndex::pathIn(json::Region region, std::string_view path, std::int64_t now) const {
  if (matches(entries(region, RegionItemType::kFile), path, now)) {
    return true;
  }
  const Entries& folders = entries(region, RegionItemType::kFolder);
  for (std::size_t end = path.size(); !folders.empty() && end > 0 && end != std::string_view::npos;
       end = path.rfind('/', end - 1)) {
    if (matches(folders, path.substr(0, end), now)) {
      return true;
    }
  }
  const std::size_t slash = path.rfind('/');
  return nameIn(region, slash == std::string_view::npos ? path : path.substr(slash + 1), now);
}

bool RegionIndex::hashIn(json::Region region, const Verdict& hashes, std::int64_t now) const {
  return matches(entries(region, RegionItemType::kMd5), hashes.md5, now) ||
         matches(entries(region, RegionItemType::kSha1), hashes.sha1, now) ||
         matches(entries(region, RegionItemType::kSha256), hashes.sha256, now);
}

RegionVerdict RegionIndex::byPath(std::string_view path, std::int64_t now) const {
  if (pathIn(json::Region::kReject, path, now)) {
    return RegionVerdict::kRejected;
  }
  return pathIn(json::Region::kTrust, path, now) ? RegionVerdict::kTrusted : RegionVerdict::kNone;
}

RegionVerdict RegionIndex::byHash(const Verdict& hashes, std::int64_t now) const {
  if (hashIn(json::Region::kReject, hashes, now)) {
    return RegionVerdict::kRejected;
  }
  return hashIn(json::Region::kTrust, hashes, now) ? RegionVerdict::kTrusted : RegionVerdict::kNone;
}

bool RegionIndex::holdsHashes() const {
  return std::any_of(entries_.begin(), entries_.end(), [](const auto& region) {
    constexpr std::array kHashes = {RegionItemType::kMd5, RegionItemType::kSha1, RegionItemType::kSha256};
    return std::any_of(kHashes.begin(), kHashes.end(),
                       [&](RegionItemType type) { return !region[static_cast<std::size_t>(type)].empty(); });
  });
}

}  // namespace agent::store
