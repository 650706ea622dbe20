#include "Listener.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

#include "json/CppJson.h"
#include "lunet/ErrorText.h"

namespace lunetctl {

namespace {

constexpr std::uint32_t kDefaultTimeoutMs = 30000;

/// An absent member keeps `value`. False for a member that is no number of 32 bits.
bool readNumber(const Json::Value& object, const char* key, std::uint32_t& value) {
  if (!object.isMember(key)) {
    return true;
  }
  const bool good = object[key].isUInt();
  value = good ? object[key].asUInt() : value;
  return good;
}

bool readText(const Json::Value& object, const char* key, std::string& value) {
  const bool good = object.isMember(key) && object[key].isString();
  value = good ? object[key].asString() : value;
  return good;
}

Json::Value event(const char* name) {
  Json::Value object(Json::objectValue);
  object["event"] = name;
  return object;
}

/// One line on standard output, at once.
void write(const Json::Value& object) {
  std::string text;
  if (!CppJson::WriteJsonToString(object, text, 1)) {
    text = "{\"event\":\"error\",\"message\":\"a text cannot be written\"}\n";
  }
  // JSON does not escape DEL, which can only stand inside a text.
  for (std::size_t at = text.find('\x7f'); at != std::string::npos; at = text.find('\x7f', at)) {
    text.replace(at, 1, "\\u007f");
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

}  // namespace

void Listener::listen(const std::function<void()>& open) {
  for (const std::uint32_t channel : {lunet::kRequestChannel, lunet::kOnewayChannel}) {
    endpoint_.RegisterReceiver(channel, this, nullptr);
  }
  try {
    const std::lock_guard lock(outputMutex_);  // a message may come before open() returns
    open();
    write(event("ready"));
  } catch (...) {
    stopListening();
    throw;
  }
}

void Listener::stopListening() {
  for (const std::uint32_t channel : {lunet::kRequestChannel, lunet::kOnewayChannel}) {
    endpoint_.UnregisterReceiver(channel);
  }
}

void Listener::run(std::istream& input, const std::function<void()>& open) {
  listen(open);
  std::thread worker([this] { runOrders(); });
  std::string line;
  while (std::getline(input, line)) {
    if (std::all_of(line.begin(), line.end(), [](char c) { return c == ' ' || c == '\t' || c == '\r'; })) {
      continue;
    }
    if (const auto taken = take(line); !taken) {
      printError(taken.error());
    }
  }
  {
    const std::lock_guard lock(ordersMutex_);
    ended_ = true;
  }
  changed_.notify_one();
  worker.join();
  stopListening();
}

void Listener::ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data,
                               std::uint32_t length, void* replyContext, void*) {
  try {
    lunet::Guid peer{};
    endpoint_.GetPeer(&peer);
    if (replyContext != nullptr) {
      const std::lock_guard lock(repliesMutex_);
      replies_[messageId] = replyContext;
    }
    Json::Value object = event("message");
    object["id"] = static_cast<Json::UInt64>(messageId);
    object["channel"] = channel;
    object["peer"] = lunet::formatGuid(peer);
    object["data"] = std::string(static_cast<const char*>(data), length);
    object["wants_reply"] = replyContext != nullptr;
    print(object);
  } catch (const std::exception& error) {
    printError(error.what());
  }
}

platform::Expected<void> Listener::take(const std::string& line) {
  Json::Value object;
  if (!CppJson::LoadJsonString(line, object) || !object.isObject()) {
    return platform::failure("the line is not a JSON object");
  }
  const int verbs =
      int{object.isMember("reply")} + int{object.isMember("send")} + int{object.isMember("call")};
  if (verbs != 1) {
    return platform::failure("the line needs one of \"reply\", \"send\" and \"call\"");
  }
  return object.isMember("reply") ? takeReply(object) : takeOrder(object, object.isMember("call"));
}

platform::Expected<void> Listener::takeReply(const Json::Value& object) {
  std::string data;
  if (!object["reply"].isUInt64() || !readText(object, "data", data)) {
    return platform::failure("a reply is {\"reply\":N,\"data\":\"TEXT\"}");
  }
  const std::uint64_t id = object["reply"].asUInt64();
  void* context = nullptr;
  {
    const std::lock_guard lock(repliesMutex_);
    const auto found = replies_.find(id);
    if (found == replies_.end()) {
      return platform::failure("no message " + std::to_string(id) + " waits for a reply");
    }
    context = found->second;
    replies_.erase(found);
  }
  const std::uint32_t error =
      endpoint_.Reply(0, id, data.data(), static_cast<std::uint32_t>(data.size()), context);
  if (error != lunet::kOk) {
    return platform::failure("message " + std::to_string(id) +
                             " is not replied to: " + lunet::describeError(error));
  }
  return {};
}

platform::Expected<void> Listener::takeOrder(const Json::Value& object, bool call) {
  Order order;
  order.call = call;
  order.channel = call ? lunet::kRequestChannel : lunet::kOnewayChannel;
  order.timeoutMs = kDefaultTimeoutMs;
  std::string guid;
  if (!readText(object, call ? "call" : "send", guid) ||
      (order.target = lunet::parseGuid(guid.c_str())) == lunet::Guid{}) {
    return platform::failure("the target is not a GUID");
  }
  if (!readText(object, "data", order.data) || !readNumber(object, "channel", order.channel) ||
      !readNumber(object, "timeout_ms", order.timeoutMs)) {
    return platform::failure("\"data\" must be a text, \"channel\" and \"timeout_ms\" whole numbers");
  }
  {
    const std::lock_guard lock(ordersMutex_);
    orders_.push_back(std::move(order));
  }
  changed_.notify_one();
  return {};
}

void Listener::runOrders() {
  std::unique_lock lock(ordersMutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ended_ || !orders_.empty(); });
    if (orders_.empty()) {
      return;
    }
    const Order order = std::move(orders_.front());
    orders_.pop_front();
    lock.unlock();
    try {
      runOrder(order);
    } catch (const std::exception& error) {
      printError(error.what());
    }
    lock.lock();
  }
}

void Listener::runOrder(const Order& order) {
  const auto length = static_cast<std::uint32_t>(order.data.size());
  if (!order.call) {
    Json::Value object = event("sent");
    object["error"] = endpoint_.OnewaySend(order.target, order.channel, order.data.data(), length);
    print(object);
    return;
  }
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t replyLength = 0;
  endpoint_.SyncSend(order.target, order.channel, order.data.data(), length, &error, &reply, &replyLength,
                     order.timeoutMs);
  Json::Value object = event("answer");
  object["error"] = error;
  object["data"] = reply != nullptr ? std::string(reply, replyLength) : std::string();
  endpoint_.FreeBuffer(reply);
  print(object);
}

void Listener::print(const Json::Value& object) {
  const std::lock_guard lock(outputMutex_);
  write(object);
}

void Listener::printError(const std::string& reason) {
  Json::Value object = event("error");
  object["message"] = reason;
  print(object);
}

}  // namespace lunetctl
