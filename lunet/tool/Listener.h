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

namespace lunetctl {

/// Plays an endpoint by hand: what arrives is printed as JSON lines, what is read is done. Replies are given
/// by the thread that reads, sends and calls by another one in the order read, so that a call under way
/// keeps no peer waiting for his reply.
class Listener final : public lunet::IMRReceiveComplete {
 public:
  explicit Listener(lunet::IEndpoint& endpoint) : endpoint_(endpoint) {}

  /// Takes part until the input ends. `open` opens the endpoint, once its receivers are set; they are taken
  /// back here. What arrives is printed behind "ready". Throws what `open` does.
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

  std::string take(const std::string& line);
  std::string takeReply(const Json::Value& object);
  std::string takeOrder(const Json::Value& object, bool call);
  void workOff();
  void carryOut(const Order& order);
  void listen(const std::function<void()>& open);
  void stopListening();
  void print(const Json::Value& object);
  void printError(const std::string& why);

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
