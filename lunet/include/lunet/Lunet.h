#pragma once

// The message bus as its users see it: abstract classes of libLunetClientMgr.so, which BusClient loads at run
// time. A new virtual operation goes to the end of its class: the order of the operations is part of the
// interface.

#include <sys/types.h>

#include <cstdint>

#include "lunet/Guid.h"

namespace lunet {

/// Error numbers of the bus. 0 is success; every other value is one of these.
enum Error : std::uint32_t {
  kOk = 0,
  kErrNotOpen = 0xE0010001,    ///< the endpoint (or the client) is not open, or was closed meanwhile
  kErrNoTarget = 0xE0010002,   ///< no process is at that GUID now
  kErrPeerLost = 0xE0010003,   ///< the peer went away before it answered
  kErrTimeout = 0xE0010004,    ///< no answer within the time given
  kErrTooLarge = 0xE0010005,   ///< the message is larger than kMaxMessageBytes
  kErrQueueFull = 0xE0010006,  ///< the receiver does not take its messages, or the user has too many
                               ///< connections; nothing was queued
  kErrInUse = 0xE0010007,      ///< Open: the GUID is alive elsewhere
  kErrPath = 0xE0010008,       ///< the socket directory is missing, unsafe, or its path too long
  kErrDenied = 0xE0010009,     ///< the peer is not a permitted one
  kErrArgument = 0xE001000A,   ///< a null pointer, a bad length, an unparsable configuration
  kErrNotSame = 0xE001000B,    ///< SendToProcess: another process is at that GUID by now
  kErrSystem = 0xE001000C,     ///< the system refused (no descriptors, no memory, …); see the log
};

/// A channel is a number; JSON-RPC uses these two.
inline constexpr std::uint32_t kRequestChannel = 10990;
inline constexpr std::uint32_t kOnewayChannel = 20991;

/// The largest message body, both ways.
inline constexpr std::uint32_t kMaxMessageBytes = 256u << 20;

// The quota of a group member (PeerIdentity::trusted is false) at an endpoint. The quota does not apply to
// answers.

/// The largest message of a member. A longer message closes the connection: calls end with kErrPeerLost,
/// accepted one-way messages are lost (both logs say so). The next send connects anew.
inline constexpr std::uint32_t kMaxMemberMessageBytes = 8u << 20;
/// Connections of one member, and of one address of the member, at a time. Further connections are refused
/// with kErrQueueFull. An endpoint has one connection to each target, and a few more whose end is not noticed
/// yet.
inline constexpr std::uint32_t kMaxMemberLinks = 32;
inline constexpr std::uint32_t kMaxMemberLinksOfAddress = 4;

/// The process at the other end of a connection, as the kernel names it.
struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::uint64_t startTicks = 0;  ///< field 22 of /proc/<pid>/stat: differs for a re-used pid
  /// Set by GetPeerIdentity: root, this process's own user, or the owner of the socket folder. False for a
  /// group member.
  bool trusted = false;

  friend bool operator==(const PeerIdentity& a, const PeerIdentity& b) {
    return a.pid == b.pid && a.uid == b.uid && a.startTicks == b.startTicks;
  }
};

/// Receives the messages of one endpoint.
class IMRReceiveComplete {
 public:
  /// One message. Called on the endpoint's delivery thread, one message at a time. The messages of one sender
  /// come in the order sent, over both channels together. `data` is valid during the call. `replyContext` is
  /// null for a one-way message, else valid for one Reply until the endpoint closes. `registrationContext` is
  /// the `context` of RegisterReceiver. The callback may send, also with SyncSend, and must not throw.
  virtual void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data,
                               std::uint32_t length, void* replyContext, void* registrationContext) = 0;

 protected:
  ~IMRReceiveComplete() = default;
};

/// An address on the bus. All operations may be called from any thread, and from a receive callback.
/// Exception: Close must not be called from a callback of the same endpoint.
class IEndpoint {
 public:
  /// Takes the address. kErrInUse when a live process holds the address; the files of a crash are taken over.
  virtual std::uint32_t Open(const Guid& self) = 0;
  /// Gives the address up. Queued messages have up to a second to go out. Calls under way return kErrNotOpen.
  /// A callback under way may still reply. Returns when no callback runs any more.
  virtual void Close() = 0;
  /// Sends without an answer; 0 or an Error. Returns once the message is queued for the peer. Blocks only to
  /// connect (up to three seconds to a stopped peer). While 32 MiB wait for a stalled receiver, sends give
  /// kErrQueueFull at once. Accepted messages are delivered in order, unless one of the two processes ends.
  virtual std::uint32_t OnewaySend(const Guid& target, std::uint32_t channel, const void* data,
                                   std::uint32_t length) = 0;
  /// Sends and waits for the answer; 0 or the Error, also in *error. timeoutMs: on the monotonic clock. On
  /// success *reply is a buffer of *replyLength bytes with a NUL behind, for FreeBuffer; otherwise null. A
  /// peer that dies ends the wait at once (kErrPeerLost). A late answer is dropped. kErrQueueFull as with
  /// OnewaySend. kErrArgument for a call to the own address from a callback.
  virtual std::uint32_t SyncSend(const Guid& target, std::uint32_t channel, const void* data,
                                 std::uint32_t length, std::uint32_t* error, char** reply,
                                 std::uint32_t* replyLength, std::uint32_t timeoutMs) = 0;
  /// Gives a reply buffer back; null is allowed.
  virtual void FreeBuffer(char* buffer) = 0;
  /// Sets the receiver of a channel, in place of an earlier one. The receiver stays the caller's and must
  /// live until UnregisterReceiver or Close has returned. Without a receiver a request is answered with
  /// kErrNoTarget, a one-way message is dropped and logged.
  virtual std::uint32_t RegisterReceiver(std::uint32_t channel, IMRReceiveComplete* receiver,
                                         void* context) = 0;
  /// Returns when no callback of that channel runs any more; inside such a callback at once.
  virtual std::uint32_t UnregisterReceiver(std::uint32_t channel) = 0;
  /// Answers one request; uses up the reply context. `reserved` is 0. kErrArgument: the context is used,
  /// or its connection has ended. kErrPeerLost: the caller is gone. kErrQueueFull: the caller does not read.
  virtual std::uint32_t Reply(std::uint32_t reserved, std::uint64_t messageId, const void* data,
                              std::uint32_t length, void* replyContext) = 0;
  /// The sender's address; inside a receive callback only, elsewhere sixteen zero bytes.
  virtual void GetPeer(Guid* peer) = 0;
  /// The sender's process; inside a receive callback only (kErrNotOpen elsewhere).
  virtual std::uint32_t GetPeerIdentity(PeerIdentity* peer) = 0;
  /// OnewaySend to exactly that process, of any user who may join the bus. kErrNotSame when another process
  /// has the address by now, kErrNoTarget when no process has.
  virtual std::uint32_t SendToProcess(const Guid& target, const PeerIdentity& process, std::uint32_t channel,
                                      const void* data, std::uint32_t length) = 0;

 protected:
  ~IEndpoint() = default;
};

/// Receives the library's log: a BusLogLevel, and one line of text without a line end. Called on any thread
/// of the library. Must not call the library, and must not throw.
using LogCallback = void (*)(int level, const char* text);

/// The bus client of a process.
class IClient {
 public:
  /// Owned by the client, given back with DestroyEndpoint. Null when Init has not succeeded.
  virtual IEndpoint* CreateEndpoint() = 0;
  /// Closes and deletes.
  virtual void DestroyEndpoint(IEndpoint* endpoint) = 0;
  /// config: compact JSON. Keys read: "runtime_path" (the install tree), "socket_dir" (absolute, or below
  /// runtime_path; default "run/lunet"), "group" (name of a group whose members may join), "log_path",
  /// "log_backup_path", "log_level" (-1 nothing, 0 errors … 3 everything), "connect_timeout_ms".
  /// uuid: names this process in the log. 0 or an Error.
  virtual std::uint32_t Init(const char* config, const char* uuid) = 0;
  virtual void SetLogCallback(LogCallback callback) = 0;
  virtual void Reserved() = 0;
  /// Waits until the agent's endpoint accepts, for `timeoutSec` seconds or "connect_timeout_ms", whichever is
  /// less. 0, kErrNoTarget or kErrQueueFull; kErrDenied and kErrPath at once. With a time of 0 the call looks
  /// once, without a wait and a handshake: 0 when a permitted process listens. A look whose result is that of
  /// the last call is not logged.
  virtual std::uint32_t Connect(std::uint32_t timeoutSec) = 0;
  virtual void Uninit() = 0;
  virtual void Disconnect() = 0;

 protected:
  ~IClient() = default;
};

/// The interface identifier that CreateInstance and DestoryInstance take.
inline constexpr const char* kInterfaceGuid = "69948CC6-CA3A-471E-9D6D-E532496DBBE2";
/// The agent's endpoint: Connect waits for it, and every call of the console goes to it.
inline constexpr const char* kAgentGuid = "FBE54D8E-D8E6-41F8-BE05-A94CE5469587";
/// The console's endpoint and the name of its single-instance mark.
inline constexpr const char* kConsoleGuid = "A4F72BA6-6DE6-44D4-B955-5A880273427E";

/// The two entry points of the library, by these names (C linkage).
using CreateInstanceFn = IClient* (*)(const char* interfaceGuid);
using DestoryInstanceFn = void (*)(const char* interfaceGuid, IClient* client);

}  // namespace lunet
