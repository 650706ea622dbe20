#include "Session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "json/CppJson.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace lunetctl {

namespace {

constexpr const char* kConfigFile = "etc/communication/cli_lunet.conf";
constexpr const char* kLibraryFile = "lib/modules/libLunetClientMgr.so";

std::string inTree(const std::string& runtime, const char* name) {
  return utils::FormatDir(runtime, true) + name;
}

std::string absolute(const std::string& path) {
  return path.starts_with("/") ? path : CDir::current().value_or("") + "/" + path;
}

void printLog(int, const char* text) {
  std::fprintf(stderr, "lunetctl: %s\n", text);
}

}  // namespace

std::string readConfig(const std::string& runtime) {
  int error = 0;
  const std::string path = inTree(runtime, kConfigFile);
  std::string why;
  const std::string safe = CFileInfo(path).exists() ? CDir::resolveSafe(path, &why) : path;
  if (safe.empty()) {
    throw Failure("the bus configuration is not used: " + why);
  }
  const std::optional<std::string> text = CFile::readAll(safe, &error);
  if (!text && error == ENOENT && CFileInfo(runtime).isDir()) {
    return "{}";
  }
  if (!text) {
    throw Failure(platform::visibleText(path) + " cannot be read: " + platform::errnoText(error));
  }
  Json::Value config;
  if (!CppJson::LoadJsonString(*text, config) || !config.isObject()) {
    throw Failure(platform::visibleText(path) + " is not a JSON object");
  }
  return *text;
}

Session::Session(const std::string& runtime) {
  Json::Value config;
  CppJson::LoadJsonString(readConfig(runtime), config);
  config["runtime_path"] = absolute(runtime);
  config["log_level"] = 0;  // errors, to standard error; no file
  std::string text;
  CppJson::WriteJsonToString(config, text, 1);
  for (const std::string& why :
       {library_.load(inTree(absolute(runtime), kLibraryFile)), library_.createClient()}) {
    if (!why.empty()) {
      throw Failure(why);
    }
  }
  library_.client()->SetLogCallback(printLog);
  if (const std::uint32_t error = library_.client()->Init(text.c_str(), "lunetctl"); error != 0) {
    throw Failure("the bus cannot be set up: " + lunet::describeError(error));
  }
  endpoint_ = library_.client()->CreateEndpoint();
  if (endpoint_ == nullptr) {
    throw Failure("no endpoint can be made");
  }
}

Session::~Session() {
  if (endpoint_ != nullptr) {
    library_.client()->DestroyEndpoint(endpoint_);
  }
}

void Session::open(const lunet::Guid& guid) {
  if (const std::uint32_t error = endpoint_->Open(guid); error != 0) {
    throw Failure("address " + lunet::formatGuid(guid) + " cannot be opened: " + lunet::describeError(error));
  }
}

void Session::openAnywhere() {
  std::string text;
  CUuid::generate(text);
  open(lunet::parseGuid(text.c_str()));
}

}  // namespace lunetctl
