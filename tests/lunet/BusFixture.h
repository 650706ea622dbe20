#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lunet/BusClient.h"
#include "lunet/Lunet.h"
#include "platform/Descriptor.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace lunettest {

/// One received message.
struct Message {
  std::uint32_t channel = 0;
  std::uint64_t id = 0;
  std::string data;
  void* replyContext = nullptr;
  void* context = nullptr;
  lunet::Guid peer{};
  lunet::PeerIdentity process;
  std::thread::id thread;
};

/// The bus library and one client of it.
class Client {
 public:
  explicit Client(const std::string& config, const char* uuid = "test");
  lunet::IClient* operator->() const { return bus_.client(); }
  std::uint32_t initResult() const { return initResult_; }

 private:
  lunet::BusClient bus_;
  std::uint32_t initResult_ = 0;
};

/// An endpoint of that client. The receiver of both channels stores each message and then runs `onMessage`,
/// if any, on the delivery thread.
class Endpoint final : public lunet::IMRReceiveComplete {
 public:
  using Handler = std::function<void(Endpoint&, const Message&)>;
  explicit Endpoint(Client& client, Handler onMessage = nullptr);
  Endpoint(Client& client, const lunet::Guid& guid, Handler onMessage = nullptr);
  ~Endpoint();

  lunet::IEndpoint* operator->() const { return endpoint_; }
  lunet::IEndpoint* get() const { return endpoint_; }
  const lunet::Guid& guid() const { return guid_; }

  std::uint32_t send(const lunet::Guid& target, const std::string& text,
                     std::uint32_t channel = lunet::kOnewayChannel);
  struct Answer {
    std::uint32_t error = 0;
    std::uint32_t errorOut = 0;
    std::string data;
    bool terminated = false;  ///< a NUL stands behind the data
  };
  Answer call(const lunet::Guid& target, const std::string& text, std::uint32_t timeoutMs = 20000,
              std::uint32_t channel = lunet::kRequestChannel);
  std::uint32_t reply(const Message& message, const std::string& text);

  std::size_t count() const;
  std::vector<Message> messages() const;
  bool waitForCount(std::size_t count) const;
  /// Closes and destroys the endpoint; the stored messages stay.
  void destroy();

  void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void* registrationContext) override;

 private:
  Client& client_;
  lunet::IEndpoint* endpoint_;
  lunet::Guid guid_{};
  Handler onMessage_;
  mutable std::mutex mutex_;
  std::vector<Message> messages_;
};

/// A fresh address.
lunet::Guid newGuid();
/// Answers each request with its own text.
void echo(Endpoint& endpoint, const Message& message);

/// A private tree for one test, with the sockets in run/lunet.
class BusTest : public ::testing::Test {
 protected:
  /// The tree's bus configuration, with further members ("\"log_level\":3").
  std::string config(const std::string& more = "") const;
  std::string socketFolder() const { return tree.at("run/lunet"); }
  std::string socketOf(const lunet::Guid& guid) const;

  /// Puts the library, lunetctl and lunet_intruder into the tree, and lets other users enter the tree.
  void installTree(const std::string& busConfig = "{}") const;
  std::vector<std::string> lunetctl(std::vector<std::string> words) const;

  testsupport::TempDir tree;
};

/// A process that plays an endpoint with "lunetctl listen".
class Player {
 public:
  Player(const std::vector<std::string>& lunetctl, const testsupport::Process::Options& options = {})
      : process(lunetctl, options) {}
  bool ready() { return process.waitForOut("\"event\":\"ready\""); }
  bool gotMessage(const std::string& data) { return process.waitForOut("\"data\":\"" + data + "\""); }

  testsupport::Process process;
};

/// A connection made by hand, which may break every rule.
class RawConnection {
 public:
  explicit RawConnection(const std::string& socketPath);

  bool connected() const { return static_cast<bool>(fd_); }
  void send(const void* data, std::size_t length) const;
  template <class T>
  void send(const T& object) const {
    send(&object, sizeof object);
  }
  /// False when the socket does not take all bytes at once.
  bool sendNow(const void* data, std::size_t length) const;
  /// Sets the size of the send buffer; false when the system refuses.
  bool growBuffer(int bytes) const;
  /// The verdict of a correct handshake.
  std::uint32_t handshake(const lunet::Guid& self, const lunet::Guid& target) const;
  /// Reads that many bytes; fewer when the peer ends the connection.
  std::string receive(std::size_t length) const;
  /// True when the peer ends the connection.
  bool waitUntilClosed() const;
  void endSending() const;  ///< the other side reads an end, and may still answer
  void close() { fd_.reset(); }

 private:
  platform::Descriptor fd_;
};

/// Threads wait here, with a limit, until a test opens the gate.
class Gate {
 public:
  void open();
  bool wait();

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

}  // namespace lunettest
