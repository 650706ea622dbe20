#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Endpoint.h"
#include "lunet/Lunet.h"

namespace lunet {

/// The bus client: its configuration, its log and its endpoints.
class Client final : public IClient {
 public:
  Client() = default;
  ~Client() { Uninit(); }

  IEndpoint* CreateEndpoint() override;
  void DestroyEndpoint(IEndpoint* endpoint) override;
  std::uint32_t Init(const char* config, const char* uuid) override;
  void SetLogCallback(LogCallback callback) override { bus_.log.setCallback(callback); }
  void Reserved() override {}
  std::uint32_t Connect(std::uint32_t timeoutSec) override;
  void Uninit() override;
  void Disconnect() override;

 private:
  Error configure(const char* config, const char* uuid);
  Result<void> connectOnce(std::chrono::steady_clock::time_point deadline, bool handshake) const;
  void logChange(const Result<void>& found, bool look);

  Bus bus_;
  std::mutex mutex_;  // guards the members below
  bool ready_ = false;
  std::int32_t connectTimeoutMs_ = -1;                ///< below 0: only the argument counts
  std::optional<Error> lastFound_;                    ///< the last result of Connect
  std::vector<std::shared_ptr<Endpoint>> endpoints_;  ///< shared with a Disconnect under way
};

}  // namespace lunet
