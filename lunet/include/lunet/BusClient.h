#pragma once

#include <cstdint>
#include <string>

#include "lunet/Lunet.h"
#include "platform/Expected.h"

namespace lunet {

/// A program's place on the bus: libLunetClientMgr.so, its client and one endpoint. The operations of the
/// start-up are called once each, in this order. The destructor closes.
class BusClient {
 public:
  BusClient() = default;
  ~BusClient() { (void)close(); }
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  /// Loads the library and makes its client. Before the library's code runs, the file is checked: only root
  /// and the caller can change it or make its path lead elsewhere (CDir::resolveSafe). "dlopen failed: …."
  /// and "dlsym CreateInstance failed: …." are among the failures.
  [[nodiscard]] platform::Expected<void> load(const std::string& libraryPath);
  /// IClient::Init; 0 or an Error.
  [[nodiscard]] std::uint32_t init(const std::string& config, const std::string& uuid) {
    return client_->Init(config.c_str(), uuid.c_str());
  }
  /// False when the client gives none. Receivers are registered on the endpoint before it is opened.
  [[nodiscard]] bool createEndpoint();
  /// IEndpoint::Open; 0 or an Error.
  [[nodiscard]] std::uint32_t open(const Guid& self) { return endpoint_->Open(self); }
  /// Destroys the endpoint and the client, and unloads, whatever step was the last. "dlsym DestoryInstance
  /// failed: …." when the library lacks that entry: the client is leaked, the library unloaded all the same.
  platform::Expected<void> close();

  IClient* client() const { return client_; }        ///< null before load
  IEndpoint* endpoint() const { return endpoint_; }  ///< null before createEndpoint

 private:
  void* library_ = nullptr;
  IClient* client_ = nullptr;
  IEndpoint* endpoint_ = nullptr;
};

}  // namespace lunet
