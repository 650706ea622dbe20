#pragma once

#include <json/value.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <istream>
#include <map>
#include <mutex>
#include <string>

#include "lunet/Lunet.h"
#include "platform/Expected.h"

namespace lunetctl {

/// Plays an endpoint by hand: prints messages as JSON lines and executes the lines that it reads. The reading
/// thread gives the replies; another does sends and calls in order, so that no reply waits for a call.
class Listener final : public lunet::IMRReceiveComplete {
 public:
  explicit Listener(lunet::IEndpoint& endpoint) : endpoint_(endpoint) {}

  /// Runs until the input ends. `open` opens the endpoint, behind the registration of the receivers. Messages
  /// are printed behind "ready". Throws the exceptions of `open`.
  void run(std::istream& input, const std::function<void()>& open);

  void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void* registrationContext) override;

 private:
  struct Order {
    bool call = false;
    lunet::Guid target{};
    std::uint32_t channel = 0;
    std::string data;
    std::uint32_t timeoutMs = 0;
  };

  platform::Expected<void> take(const std::string& line);
  platform::Expected<void> takeReply(const Json::Value& object);
  platform::Expected<void> takeOrder(const Json::Value& object, bool call);
  void runOrders();
  void runOrder(const Order& order);
  void listen(const std::function<void()>& open);
  void stopListening();
  void print(const Json::Value& object);
  void printError(const std::string& reason);

  lunet::IEndpoint& endpoint_;
  std::mutex outputMutex_;
  std::mutex repliesMutex_;
  std::map<std::uint64_t, void*> replies_;  ///< contexts of messages that wait for their reply
  std::mutex ordersMutex_;
  std::condition_variable changed_;
  std::deque<Order> orders_;
  bool ended_ = false;
};

}  // namespace lunetctl
