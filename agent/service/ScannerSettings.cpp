#include "service/ScannerSettings.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <string>

#include "json/CppJson.h"
#include "lunet/BusConfig.h"

namespace agent {

namespace {

constexpr const char* kPackageUser = "tavscan";
// No system and no package gives these numbers to users. A container has them, too.
constexpr std::uint32_t kFirstUnused = 60706;
constexpr std::uint32_t kLastUnused = 61183;

constexpr std::uint64_t kMebibyte = 1U << 20;

const struct {
  const char* name;
  Unconfined value;
} kUnconfined[] = {
    {"never", Unconfined::kNever},
    {"without_namespaces", Unconfined::kWithoutNamespaces},
    {"always", Unconfined::kAlways},
};

template <class Settings>
struct NumberRow {
  const char* key;
  std::uint64_t least, most;
  void (*set)(Settings& settings, std::uint64_t value);
};

template <class T>
void setSeconds(T& milliseconds, std::uint64_t value) {
  milliseconds = static_cast<T>(value * 1000);
}

constexpr NumberRow<Spawner::Config> kScanNumbers[] = {
    {"scan_temp_mib", 1, 1U << 20, [](auto& c, auto value) { c.tempBytes = value * kMebibyte; }},
    {"scan_memory_mib", 1, 1U << 20, [](auto& c, auto value) { c.memoryBytes = value * kMebibyte; }},
    {"scan_file_temp_mib", 1, 1U << 20, [](auto& c, auto value) { c.limits.tempBytes = value * kMebibyte; }},
    {"scan_cpu_seconds", 1, 3600, [](auto& c, auto value) { setSeconds(c.limits.processorMs, value); }},
    {"scan_cpu_seconds_per_100mb", 0, 3600,
     [](auto& c, auto value) { setSeconds(c.limits.processorMsPer100Mb, value); }},
    {"scan_clock_factor", 1, 100,
     [](auto& c, auto value) { c.limits.clockFactor = static_cast<std::uint32_t>(value); }},
    {"scan_ratio", 1, 1000000,
     [](auto& c, auto value) { c.limits.unpackedRatio = static_cast<std::uint32_t>(value); }},
    {"scan_members", 1, 1000000,
     [](auto& c, auto value) { c.limits.maxFiles = static_cast<std::uint32_t>(value); }},
    {"scan_nesting", 1, 90,
     [](auto& c, auto value) { c.limits.maxRecursion = static_cast<std::uint32_t>(value); }},
};

constexpr NumberRow<store::AuditKeeping> kAuditNumbers[] = {
    {"audit_days", 1, 36500, [](auto& k, auto value) { k.age = std::chrono::hours(24 * value); }},
    {"audit_floor_mib", 1, 1U << 20,
     [](auto& k, auto value) { k.floorBytes = static_cast<std::int64_t>(value * kMebibyte); }},
};

constexpr NumberRow<std::chrono::milliseconds> kPauseNumbers[] = {
    {"paused_scan_minutes", 1, 10080, [](auto& t, auto value) { t = std::chrono::minutes(value); }},
};

platform::Expected<void> readUnconfined(const Json::Value& value, Unconfined& setting) {
  for (const auto& row : kUnconfined) {
    if (value.isString() && value.asString() == row.name) {
      setting = row.value;
      return {};
    }
  }
  return platform::failure("scan_unconfined is never, without_namespaces or always");
}

platform::Expected<ScannerUser> unusedUser() {
  for (std::uint32_t id = kFirstUnused; id <= kLastUnused; ++id) {
    if (getpwuid(id) == nullptr && getgrgid(id) == nullptr) {
      return ScannerUser{id, id};
    }
  }
  return platform::failure("there is no unused user for the scanning processes; scan_user can name one");
}

// wanted: null without the key.
platform::Expected<ScannerUser> readUser(const Json::Value& wanted) {
  if (!wanted.isNull() && !wanted.isString()) {
    return platform::failure("scan_user is the name of a user");
  }
  if (geteuid() != 0) {
    return ScannerUser{};
  }
  const std::string name = wanted.isNull() ? kPackageUser : wanted.asString();
  const passwd* found = getpwnam(name.c_str());
  if (found == nullptr) {
    return wanted.isNull() ? unusedUser() : platform::failure("scan_user " + name + " is no user");
  }
  if (found->pw_uid == 0 || found->pw_gid == 0) {
    return platform::failure("scan_user " + name + " has the rights of root");
  }
  return ScannerUser{found->pw_uid, found->pw_gid};
}

template <class Rows, class Settings>
platform::Expected<void> readNumbers(const Json::Value& file, const Rows& rows, Settings& settings) {
  for (const auto& row : rows) {
    const Json::Value& value = file[row.key];
    if (value.isNull()) {
      continue;
    }
    if (!value.isUInt64() || value.asUInt64() < row.least || value.asUInt64() > row.most) {
      return platform::failure(std::string(row.key) + " is a number from " + std::to_string(row.least) +
                               " to " + std::to_string(row.most));
    }
    row.set(settings, value.asUInt64());
  }
  return {};
}

platform::Expected<void> apply(const Json::Value& file, Spawner::Config& config) {
  if (file.isMember("scan_unconfined")) {
    if (auto read = readUnconfined(file["scan_unconfined"], config.unconfined); !read) {
      return read;
    }
  }
  if (auto read = readNumbers(file, kScanNumbers, config); !read) {
    return read;
  }
  if (config.limits.tempBytes > config.tempBytes) {
    if (file.isMember("scan_file_temp_mib")) {
      return platform::failure("scan_file_temp_mib is more than scan_temp_mib");
    }
    config.limits.tempBytes = config.tempBytes;
  }
  const auto user = readUser(file["scan_user"]);
  if (!user) {
    return platform::failure(user.error());
  }
  config.user = *user;
  return {};
}

/// apply: takes the values of the file, which is empty when it is missing.
template <class Apply>
platform::Expected<void> readFile(const platform::InstallTree& tree, const Apply& apply) {
  const std::string path = tree.at("etc/agent/agent.conf");
  const auto file = lunet::readBusConfig(path);
  if (!file && file.error().kind != lunet::BusConfigFailure::Kind::kMissing) {
    return platform::failure(path + " is not used: " + file.error().reason);
  }
  const platform::Expected<void> applied = apply(file.value_or(Json::objectValue));
  return applied ? applied : platform::failure(path + ": " + applied.error());
}

}  // namespace

platform::Expected<void> readScannerSettings(const platform::InstallTree& tree, Spawner::Config& config) {
  return readFile(tree, [&config](const Json::Value& file) { return apply(file, config); });
}

platform::Expected<void> readPauseSetting(const platform::InstallTree& tree,
                                          std::chrono::milliseconds& forgottenPause) {
  return readFile(tree, [&forgottenPause](const Json::Value& file) {
    return readNumbers(file, kPauseNumbers, forgottenPause);
  });
}

platform::Expected<void> readAuditSettings(const platform::InstallTree& tree, store::AuditKeeping& keeping) {
  return readFile(tree,
                  [&keeping](const Json::Value& file) { return readNumbers(file, kAuditNumbers, keeping); });
}

}  // namespace agent
