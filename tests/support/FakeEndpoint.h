#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lunet/Lunet.h"

namespace testsupport {

/// An endpoint without a bus, for failures and wrong answers that the real bus makes rarely. deliver() brings
/// a message, on the caller's thread.
class FakeEndpoint final : public lunet::IEndpoint {
 public:
  struct Sent {
    std::string operation;  ///< "OnewaySend", "SyncSend" or "SendToProcess"
    lunet::Guid target;
    std::uint32_t channel;
    std::string text;
    std::uint32_t timeoutMs = 0;
    lunet::PeerIdentity process;
  };
  struct Delivery {
    bool replied = false;
    std::string reply;
  };

  /// The answer of SyncSend to a request; nothing: success without a buffer.
  std::function<std::optional<std::string>(const std::string& request)> answer;
  std::uint32_t syncResult = lunet::kOk;    ///< the result of SyncSend
  std::uint32_t syncError = lunet::kOk;     ///< SyncSend's *error
  bool bufferOnFailure = false;             ///< SyncSend gives a buffer even when it fails
  std::uint32_t onewayResult = lunet::kOk;  ///< of OnewaySend and SendToProcess
  std::uint32_t registerResult = lunet::kOk;
  lunet::Guid peer{};  ///< the sender of delivered messages
  lunet::PeerIdentity peerProcess;
  std::vector<Sent> sent;
  std::vector<std::string> registrations;  ///< "+10990", "-20991", … in order
  int buffersOut = 0;                      ///< reply buffers not given back
  bool failReplies = false;

  Delivery deliver(std::uint32_t channel, const std::string& text, bool wantsReply) {
    Delivery delivery;
    const auto found = receivers_.find(channel);
    if (found != receivers_.end()) {
      // The receiver must not read past the length.
      const std::string bytes = text + "}garbage";
      found->second.first->ReceiveCallback(channel, 7, bytes.data(), static_cast<std::uint32_t>(text.size()),
                                           wantsReply ? &delivery : nullptr, found->second.second);
    }
    return delivery;
  }
  bool isRegistered(std::uint32_t channel) const { return receivers_.count(channel) != 0; }
  const Sent& last() const { return sent.at(sent.size() - 1); }

  std::uint32_t Open(const lunet::Guid&) override { return lunet::kOk; }
  void Close() override {}
  std::uint32_t OnewaySend(const lunet::Guid& target, std::uint32_t channel, const void* data,
                           std::uint32_t length) override {
    sent.push_back({"OnewaySend", target, channel, textOf(data, length), 0, {}});
    return onewayResult;
  }
  std::uint32_t SyncSend(const lunet::Guid& target, std::uint32_t channel, const void* data,
                         std::uint32_t length, std::uint32_t* error, char** reply, std::uint32_t* replyLength,
                         std::uint32_t timeoutMs) override {
    sent.push_back({"SyncSend", target, channel, textOf(data, length), timeoutMs, {}});
    *error = syncError;
    *reply = nullptr;
    *replyLength = 0;
    std::optional<std::string> text;
    if (syncResult == lunet::kOk && answer) {
      text = answer(sent.back().text);
    } else if (syncResult != lunet::kOk && bufferOnFailure) {
      text = "half an answer";
    }
    if (text) {
      ++buffersOut;
      *reply = new char[text->size() + 1];
      std::memcpy(*reply, text->c_str(), text->size() + 1);
      *replyLength = static_cast<std::uint32_t>(text->size());
    }
    return syncResult;
  }
  void FreeBuffer(char* buffer) override {
    if (buffer != nullptr) {
      --buffersOut;
      delete[] buffer;
    }
  }
  std::uint32_t RegisterReceiver(std::uint32_t channel, lunet::IMRReceiveComplete* receiver,
                                 void* context) override {
    registrations.push_back("+" + std::to_string(channel));
    if (registerResult == lunet::kOk) {
      receivers_[channel] = {receiver, context};
    }
    return registerResult;
  }
  std::uint32_t UnregisterReceiver(std::uint32_t channel) override {
    registrations.push_back("-" + std::to_string(channel));
    receivers_.erase(channel);
    return lunet::kOk;
  }
  std::uint32_t Reply(std::uint32_t, std::uint64_t, const void* data, std::uint32_t length,
                      void* replyContext) override {
    if (failReplies) {
      return lunet::kErrPeerLost;
    }
    auto* const delivery = static_cast<Delivery*>(replyContext);
    delivery->replied = true;
    delivery->reply = textOf(data, length);
    return lunet::kOk;
  }
  void GetPeer(lunet::Guid* out) override { *out = peer; }
  std::uint32_t GetPeerIdentity(lunet::PeerIdentity* out) override {
    *out = peerProcess;
    return lunet::kOk;
  }
  std::uint32_t SendToProcess(const lunet::Guid& target, const lunet::PeerIdentity& process,
                              std::uint32_t channel, const void* data, std::uint32_t length) override {
    sent.push_back({"SendToProcess", target, channel, textOf(data, length), 0, process});
    return onewayResult;
  }

 private:
  static std::string textOf(const void* data, std::uint32_t length) {
    return {static_cast<const char*>(data), length};
  }

  std::map<std::uint32_t, std::pair<lunet::IMRReceiveComplete*, void*>> receivers_;
};

}  // namespace testsupport
