#include "support/ConsoleLink.h"

#include <json/value.h>

#include <stdexcept>

#include "json/CppJson.h"
#include "jsonrpchelper/Holders.h"

namespace testsupport {

ConsoleLink::ConsoleLink(const std::string& runtimePath, std::uint32_t timeoutMs) {
  for (const std::string& failure :
       {library_.load(std::string(TAV_LIB_DIR) + "/libLunetClientMgr.so"), library_.createClient()}) {
    if (!failure.empty()) {
      throw std::runtime_error("console link: " + failure);
    }
  }
  Json::Value settings;
  settings["runtime_path"] = runtimePath;
  settings["log_level"] = -1;
  std::string config;
  CppJson::WriteJsonToString(settings, config, 1);
  lunet::IClient* const client = library_.client();
  std::uint32_t error = client->Init(config.c_str(), "console-link");
  if (error == lunet::kOk) {
    endpoint_ = client->CreateEndpoint();
    error = endpoint_ == nullptr ? lunet::kErrSystem : endpoint_->Open(lunet::parseGuid(lunet::kConsoleGuid));
  }
  if (error != lunet::kOk) {
    throw std::runtime_error("console link: the bus refused with " + std::to_string(error));
  }
  jsonrpchelper::setEndpoint(endpoint_);
  jsonrpchelper::initJsonRpc();
  jsonrpchelper::ClientRegistry::instance().initialise(endpoint_, timeoutMs);
}

void ConsoleLink::setTimeout(std::uint32_t timeoutMs) {
  jsonrpchelper::ClientRegistry::instance().reset();
  jsonrpchelper::ClientRegistry::instance().initialise(endpoint_, timeoutMs);
}

ConsoleLink::~ConsoleLink() {
  jsonrpchelper::stopJsonRpc();
  jsonrpchelper::setEndpoint(nullptr);
  library_.client()->DestroyEndpoint(endpoint_);
  library_.client()->Uninit();
}

}  // namespace testsupport
