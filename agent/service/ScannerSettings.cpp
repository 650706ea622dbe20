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
constexpr std::uint64_t kMostMebibytes = 1U << 20;

const struct {
  const char* name;
  Unconfined value;
} kUnconfined[] = {
    {"never", Unconfined::kNever},
    {"without_namespaces", Unconfined::kWithoutNamespaces},
    {"always", Unconfined::kAlways},
};

const struct {
  const char* key;
  std::uint64_t Spawner::Config::*bytes;
} kSizes[] = {
    {"scan_temp_mib", &Spawner::Config::tempBytes},
    {"scan_memory_mib", &Spawner::Config::memoryBytes},
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

platform::Expected<void> apply(const Json::Value& file, Spawner::Config& config) {
  if (file.isMember("scan_unconfined")) {
    if (auto read = readUnconfined(file["scan_unconfined"], config.unconfined); !read) {
      return read;
    }
  }
  for (const auto& row : kSizes) {
    const Json::Value& value = file[row.key];
    if (value.isNull()) {
      continue;
    }
    if (!value.isUInt64() || value.asUInt64() == 0 || value.asUInt64() > kMostMebibytes) {
      return platform::failure(std::string(row.key) + " is a number from 1 to " +
                               std::to_string(kMostMebibytes));
    }
    config.*row.bytes = value.asUInt64() * kMebibyte;
  }
  const auto user = readUser(file["scan_user"]);
  if (!user) {
    return platform::failure(user.error());
  }
  config.user = *user;
  return {};
}

}  // namespace

platform::Expected<void> readScannerSettings(const platform::InstallTree& tree, Spawner::Config& config) {
  const std::string path = tree.at("etc/agent/agent.conf");
  const auto file = lunet::readBusConfig(path);
  if (!file && file.error().kind != lunet::BusConfigFailure::Kind::kMissing) {
    return platform::failure(path + " is not used: " + file.error().reason);
  }
  const auto applied = apply(file.value_or(Json::objectValue), config);
  return applied ? applied : platform::failure(path + ": " + applied.error());
}

}  // namespace agent
