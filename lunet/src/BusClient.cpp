#include "lunet/BusClient.h"

#include <utility>

namespace lunet {

platform::Expected<void> BusClient::load(const std::string& libraryPath) {
  return library_.load(libraryPath).and_then([this] { return library_.createClient(); });
}

bool BusClient::createEndpoint() {
  endpoint_ = client()->CreateEndpoint();
  return endpoint_ != nullptr;
}

platform::Expected<void> BusClient::close() {
  if (client() != nullptr) {
    if (endpoint_ != nullptr) {
      client()->DestroyEndpoint(std::exchange(endpoint_, nullptr));
    }
    client()->Uninit();
  }
  return library_.unload();
}

}  // namespace lunet
