#include "BusFixture.h"

#include <chrono>
#include <stdexcept>

#include "platform/Text.h"
#include "support/Wait.h"

namespace lunettest {

Client::Client(const std::string& config, const char* uuid) {
  if (const std::string why = library_.load(TAV_LIB_DIR "/libLunetClientMgr.so"); !why.empty()) {
    throw std::runtime_error(why);
  }
  if (const std::string why = library_.createClient(); !why.empty()) {
    throw std::runtime_error(why);
  }
  initResult_ = library_.client()->Init(config.c_str(), uuid);
}

Client::~Client() {
  library_.client()->Disconnect();
  library_.client()->Uninit();
}

Endpoint::Endpoint(Client& client, Handler onMessage)
    : client_(client), endpoint_(client->CreateEndpoint()), onMessage_(std::move(onMessage)) {
  if (endpoint_ == nullptr) {
    throw std::runtime_error("no endpoint");
  }
  endpoint_->RegisterReceiver(lunet::kRequestChannel, this, endpoint_);
  endpoint_->RegisterReceiver(lunet::kOnewayChannel, this, endpoint_);
}

Endpoint::Endpoint(Client& client, const lunet::Guid& guid, Handler onMessage)
    : Endpoint(client, std::move(onMessage)) {
  guid_ = guid;
  if (const std::uint32_t error = endpoint_->Open(guid); error != 0) {
    throw std::runtime_error("Open failed: " + std::to_string(error));
  }
}

Endpoint::~Endpoint() {
  destroy();
}

void Endpoint::destroy() {
  if (endpoint_ != nullptr) {
    client_->DestroyEndpoint(endpoint_);
    endpoint_ = nullptr;
  }
}

std::uint32_t Endpoint::send(const lunet::Guid& target, const std::string& text, std::uint32_t channel) {
  return endpoint_->OnewaySend(target, channel, text.data(), static_cast<std::uint32_t>(text.size()));
}

Endpoint::Answer Endpoint::call(const lunet::Guid& target, const std::string& text, std::uint32_t timeoutMs,
                                std::uint32_t channel) {
  Answer answer;
  char* reply = nullptr;
  std::uint32_t length = 0;
  answer.error = endpoint_->SyncSend(target, channel, text.data(), static_cast<std::uint32_t>(text.size()),
                                     &answer.errorOut, &reply, &length, timeoutMs);
  if (reply != nullptr) {
    answer.data.assign(reply, length);
    answer.terminated = reply[length] == '\0';
  }
  endpoint_->FreeBuffer(reply);
  return answer;
}

std::uint32_t Endpoint::reply(const Message& message, const std::string& text) {
  return endpoint_->Reply(0, message.id, text.data(), static_cast<std::uint32_t>(text.size()),
                          message.replyContext);
}

std::size_t Endpoint::count() const {
  const std::lock_guard lock(mutex_);
  return messages_.size();
}

std::vector<Message> Endpoint::messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

bool Endpoint::waitForCount(std::size_t wanted) const {
  return testsupport::waitFor([&] { return count() >= wanted; });
}

void Endpoint::ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data,
                               std::uint32_t length, void* replyContext, void* registrationContext) {
  Message message{channel,
                  messageId,
                  std::string(static_cast<const char*>(data), length),
                  replyContext,
                  registrationContext,
                  {},
                  {},
                  std::this_thread::get_id()};
  endpoint_->GetPeer(&message.peer);
  endpoint_->GetPeerIdentity(&message.process);
  {
    const std::lock_guard lock(mutex_);
    messages_.push_back(message);
  }
  if (onMessage_) {
    onMessage_(*this, message);
  }
}

lunet::Guid newGuid() {
  std::string text;
  CUuid::generate(text);
  return lunet::parseGuid(text.c_str());
}

void echo(Endpoint& endpoint, const Message& message) {
  if (message.replyContext != nullptr) {
    endpoint.reply(message, message.data);
  }
}

std::string BusTest::config(const std::string& more) const {
  return "{\"runtime_path\":\"" + tree.path() + "\"" + (more.empty() ? "" : "," + more) + "}";
}

std::string BusTest::socketOf(const lunet::Guid& guid) const {
  return socketFolder() + "/" + lunet::formatGuid(guid) + ".sock";
}

void Gate::open() {
  const std::lock_guard lock(mutex_);
  open_ = true;
  opened_.notify_all();
}

bool Gate::wait() {
  std::unique_lock lock(mutex_);
  return opened_.wait_for(lock, std::chrono::seconds(20), [this] { return open_; });
}

}  // namespace lunettest
