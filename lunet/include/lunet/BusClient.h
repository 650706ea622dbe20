#pragma once

#include <cstdint>
#include <string>

#include "lunet/ClientLibrary.h"
#include "platform/Expected.h"

namespace lunet {

/// A program's place on the bus: the library, its client and one endpoint. The operations of the start-up are
/// called once each, in this order. The destructor closes.
class BusClient {
 public:
  BusClient() = default;
  ~BusClient() { (void)close(); }
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  /// Loads the library and makes its client.
  [[nodiscard]] platform::Expected<void> load(const std::string& libraryPath);
  /// IClient::Init; 0 or an Error.
  [[nodiscard]] std::uint32_t init(const std::string& config, const std::string& uuid) {
    return client()->Init(config.c_str(), uuid.c_str());
  }
  /// False when the client gives none. Receivers are registered on the endpoint before it is opened.
  [[nodiscard]] bool createEndpoint();
  /// IEndpoint::Open; 0 or an Error.
  [[nodiscard]] std::uint32_t open(const Guid& self) { return endpoint_->Open(self); }
  /// Takes everything back, whatever step was the last; what ClientLibrary::unload gives.
  platform::Expected<void> close();

  IClient* client() const { return library_.client(); }  ///< null before load
  IEndpoint* endpoint() const { return endpoint_; }      ///< null before createEndpoint

 private:
  ClientLibrary library_;
  IEndpoint* endpoint_ = nullptr;
};

}  // namespace lunet
