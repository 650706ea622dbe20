#include "BusFixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "Frame.h"
#include "SocketFolder.h"
#include "platform/Text.h"
#include "support/Wait.h"

namespace lunettest {

Client::Client(const std::string& config, const char* uuid) {
  if (const auto loaded = bus_.load(TAV_LIB_DIR "/libLunetClientMgr.so"); !loaded) {
    throw std::runtime_error(loaded.error());
  }
  initResult_ = bus_.init(config, uuid);
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
  return lunet::parseGuid(CUuid::generate().c_str());
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

void BusTest::installTree(const std::string& busConfig) const {
  namespace fs = std::filesystem;
  for (const char* folder : {"bin", "lib/modules", "etc/communication"}) {
    fs::create_directories(tree.at(folder));
  }
  fs::copy_file(TAV_LIB_DIR "/libLunetClientMgr.so", tree.at("lib/modules/libLunetClientMgr.so"));
  fs::copy_file(TAV_BIN_DIR "/lunetctl", tree.at("bin/lunetctl"));
  fs::copy_file(TAV_BIN_DIR "/lunet_intruder", tree.at("bin/lunet_intruder"));
  tree.write("etc/communication/cli_lunet.conf", busConfig);
  chmod(tree.path().c_str(), 0755);
}

std::vector<std::string> BusTest::lunetctl(std::vector<std::string> words) const {
  words.insert(words.begin(), {tree.at("bin/lunetctl"), "--runtime", tree.path()});
  return words;
}

RawConnection::RawConnection(const std::string& socketPath)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const auto address = lunet::socketAddress(socketPath);
  const timeval limit{20, 0};
  setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (!address || connect(fd_.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    close();
  }
}

void RawConnection::endSending() const {
  shutdown(fd_.get(), SHUT_WR);
}

void RawConnection::send(const void* data, std::size_t length) const {
  (void)::send(fd_.get(), data, length, MSG_NOSIGNAL);
}

bool RawConnection::sendNow(const void* data, std::size_t length) const {
  return ::send(fd_.get(), data, length, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(length);
}

bool RawConnection::growBuffer(int bytes) const {
  return setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) == 0;
}

std::uint32_t RawConnection::handshake(const lunet::Guid& self, const lunet::Guid& target) const {
  lunet::FrameHeader header;
  header.kind = lunet::FrameKind::kHello;
  header.length = sizeof(lunet::HelloBody);
  send(header);
  send(lunet::HelloBody{self, target});
  const std::string reply = receive(sizeof header + sizeof(lunet::Guid));
  if (reply.size() < sizeof header) {
    return lunet::kErrPeerLost;
  }
  std::memcpy(&header, reply.data(), sizeof header);
  return header.channel;
}

std::string RawConnection::receive(std::size_t length) const {
  std::string data(length, '\0');
  std::size_t have = 0;
  while (have < length) {
    const ssize_t count = recv(fd_.get(), data.data() + have, length - have, 0);
    if (count <= 0) {
      break;
    }
    have += static_cast<std::size_t>(count);
  }
  data.resize(have);
  return data;
}

bool RawConnection::waitUntilClosed() const {
  char byte = 0;
  const ssize_t count = recv(fd_.get(), &byte, 1, 0);
  return count == 0 || (count < 0 && errno == ECONNRESET);
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
