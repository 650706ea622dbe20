#include "support/ConsoleLink.h"

#include <stdexcept>

#include "jsonrpchelper/Holders.h"
#include "support/Json.h"

namespace testsupport {

ConsoleLink::ConsoleLink(const std::string& runtimePath, std::uint32_t timeoutMs) {
  if (const auto loaded = bus_.load(TAV_LIB_DIR "/libLunetClientMgr.so"); !loaded) {
    throw std::runtime_error("console link: " + loaded.error());
  }
  Json::Value settings;
  settings["runtime_path"] = runtimePath;
  settings["log_level"] = -1;
  std::uint32_t error = bus_.init(jsonText(settings), "console-link");
  if (error == lunet::kOk) {
    error = bus_.createEndpoint() ? bus_.open(lunet::parseGuid(lunet::kConsoleGuid)) : lunet::kErrSystem;
  }
  if (error != lunet::kOk) {
    throw std::runtime_error("console link: the bus refused with " + std::to_string(error));
  }
  jsonrpchelper::setEndpoint(bus_.endpoint());
  jsonrpchelper::initJsonRpc();
  jsonrpchelper::ClientRegistry::instance().initialise(bus_.endpoint(), timeoutMs);
}

void ConsoleLink::setTimeout(std::uint32_t timeoutMs) {
  jsonrpchelper::ClientRegistry::instance().reset();
  jsonrpchelper::ClientRegistry::instance().initialise(bus_.endpoint(), timeoutMs);
}

ConsoleLink::~ConsoleLink() {
  jsonrpchelper::stopJsonRpc();
  jsonrpchelper::setEndpoint(nullptr);
}

}  // namespace testsupport
