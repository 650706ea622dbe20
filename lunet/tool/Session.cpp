#include "Session.h"

#include <cstdio>

#include "lunet/BusConfig.h"
#include "lunet/ErrorText.h"
#include "lunet/LogLevels.h"
#include "platform/Files.h"
#include "platform/InstallTree.h"
#include "platform/Text.h"

namespace lunetctl {

namespace {

platform::InstallTree treeAt(const std::string& runtime) {
  return platform::InstallTree(utils::FormatDir(runtime, true));
}

std::string absolute(const std::string& path) {
  return path.starts_with("/") ? path : CDir::current().value_or("") + "/" + path;
}

}  // namespace

Json::Value readConfig(const std::string& runtime) {
  using Kind = lunet::BusConfigFailure::Kind;
  const std::string path = treeAt(runtime).busConfig();
  const auto config = lunet::readBusConfig(path);
  const bool missing = !config && config.error().kind == Kind::kMissing;
  if (config || (missing && CFileInfo(runtime).isDir())) {
    return config.value_or(Json::objectValue);
  }
  switch (config.error().kind) {
    case Kind::kUnsafe:
      throw Failure("the bus configuration is not used: " + config.error().reason);
    case Kind::kNoObject:
      throw Failure(platform::visibleText(path) + " is not a JSON object");
    default:
      throw Failure(platform::visibleText(path) + " cannot be read: " + config.error().reason);
  }
}

Session::Session(const std::string& runtime) {
  Json::Value config = readConfig(runtime);
  config["runtime_path"] = absolute(runtime);
  config["log_level"] = static_cast<int>(lunet::BusLogLevel::kError);  // to standard error; no file
  if (const auto loaded = bus_.load(treeAt(absolute(runtime)).busLibrary()); !loaded) {
    throw Failure(loaded.error());
  }
  bus_.client()->SetLogCallback([](int, const char* text) { std::fprintf(stderr, "lunetctl: %s\n", text); });
  if (const std::uint32_t error = bus_.init(lunet::compactText(config), "lunetctl"); error != lunet::kOk) {
    throw Failure("the bus cannot be set up: " + lunet::describeError(error));
  }
  if (!bus_.createEndpoint()) {
    throw Failure("no endpoint can be made");
  }
}

void Session::open(const lunet::Guid& guid) {
  if (const std::uint32_t error = bus_.open(guid); error != lunet::kOk) {
    throw Failure("address " + lunet::formatGuid(guid) + " cannot be opened: " + lunet::describeError(error));
  }
}

void Session::openAnywhere() {
  open(lunet::parseGuid(CUuid::generate().c_str()));
}

}  // namespace lunetctl
