#pragma once

// The message bus as its users see it: abstract classes only, implemented by libLunetClientMgr.so, which
// is loaded at run time (lunet/ClientLibrary.h) and never linked. The order of the virtual operations is
// part of the interface: a new operation goes to the end of its class.

#include <sys/types.h>

#include <cstdint>

#include "lunet/Guid.h"

namespace lunet {

/// Error numbers of the bus. 0 is success; every other value is one of these.
enum Error : std::uint32_t {
  kOk = 0,
  kErrNotOpen = 0xE0010001,    ///< the endpoint (or the client) is not open, or was closed meanwhile
  kErrNoTarget = 0xE0010002,   ///< nobody is at that GUID now
  kErrPeerLost = 0xE0010003,   ///< the peer went away before it answered
  kErrTimeout = 0xE0010004,    ///< no answer within the time given
  kErrTooLarge = 0xE0010005,   ///< the message is larger than kMaxMessageBytes
  kErrQueueFull = 0xE0010006,  ///< the receiver does not take its messages, or no more connections of this
                               ///< user; nothing was queued
  kErrInUse = 0xE0010007,      ///< Open: the GUID is alive elsewhere
  kErrPath = 0xE0010008,       ///< the socket directory is missing, unsafe, or its path too long
  kErrDenied = 0xE0010009,     ///< who is at the other end may not be talked to
  kErrArgument = 0xE001000A,   ///< a null pointer, a bad length, an unparsable configuration
  kErrNotSame = 0xE001000B,    ///< SendToProcess: another process is at that GUID by now
  kErrSystem = 0xE001000C,     ///< the system refused (no descriptors, no memory, …); see the log
};

/// Channels carry a number only; the two in use are those of the JSON-RPC plumbing.
inline constexpr std::uint32_t kRequestChannel = 10990;
inline constexpr std::uint32_t kOnewayChannel = 20991;

/// The largest message body, both ways.
inline constexpr std::uint32_t kMaxMessageBytes = 256u << 20;

// What an endpoint lets a mere member of the bus's group cost it (PeerIdentity::trusted is false); answers to
// him are not meant.

/// The largest message from him. A longer one closes its connection: his calls end with kErrPeerLost, his
/// one-way messages, which had been taken, are lost (both logs say so); the next send connects anew.
inline constexpr std::uint32_t kMaxMemberMessageBytes = 8u << 20;
/// Connections of one user, and of one address of his, at a time. One more is refused with kErrQueueFull. An
/// endpoint has one to each of its targets; a few more may wait to be noticed as ended.
inline constexpr std::uint32_t kMaxMemberLinks = 32;
inline constexpr std::uint32_t kMaxMemberLinksOfAddress = 4;

/// The process at the other end of a connection, on the kernel's word (never the peer's own).
struct PeerIdentity {
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::uint64_t startTicks = 0;  ///< field 22 of /proc/<pid>/stat: tells a re-used pid apart
  /// Set by GetPeerIdentity: root, this process's own user, or the owner of the socket folder, not a mere
  /// member of the bus's group.
  bool trusted = false;

  friend bool operator==(const PeerIdentity& a, const PeerIdentity& b) {
    return a.pid == b.pid && a.uid == b.uid && a.startTicks == b.startTicks;
  }
};

/// Receives the messages of one endpoint.
class IMRReceiveComplete {
 public:
  /// One message. Called on the endpoint's delivery thread, one message at a time and in the order in
  /// which each sender sent them, over both channels together. `data` is the caller's, valid during the
  /// call. `replyContext` is null for a one-way message; otherwise it is good for one Reply, during the
  /// call or later, until the endpoint closes. `registrationContext` is RegisterReceiver's `context`.
  /// The callback may send, also with SyncSend. It must not throw.
  virtual void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data,
                               std::uint32_t length, void* replyContext, void* registrationContext) = 0;

 protected:
  ~IMRReceiveComplete() = default;
};

/// An address on the bus. All operations may be called from any thread, those of this class also from a
/// receive callback, but Close not from a callback of the same endpoint.
class IEndpoint {
 public:
  /// Takes the address: 16 bytes. kErrInUse when a live process has it; what a crash left is taken over.
  virtual std::uint32_t Open(const Guid& self) = 0;
  /// Gives the address up. What is queued for peers has up to a second to go out. Calls under way return
  /// kErrNotOpen; a callback under way may still reply. Returns when no callback runs any more.
  virtual void Close() = 0;
  /// Sends without an answer. Returns once the message is queued for the peer; 0 or an Error. Never blocks
  /// for longer than it takes to connect on this machine (three seconds with a peer that was stopped).
  /// A receiver that stalls is noticed when 32 MiB wait for it in this process: from then on kErrQueueFull,
  /// at once, until it takes its messages again. What was taken is delivered in order unless one of the two
  /// processes ends.
  virtual std::uint32_t OnewaySend(const Guid& target, std::uint32_t channel, const void* data,
                                   std::uint32_t length) = 0;
  /// Sends and waits for the answer. timeoutMs: milliseconds on the monotonic clock. 0 on success, and
  /// then *reply is a buffer of *replyLength bytes (NUL-terminated behind them) that the caller gives back
  /// with FreeBuffer; otherwise the Error, also in *error, and *reply null. A peer that dies meanwhile
  /// ends the wait at once (kErrPeerLost); a late answer is dropped. kErrQueueFull as with OnewaySend. From a
  /// callback a call to the own address is refused with kErrArgument: nobody could answer it.
  virtual std::uint32_t SyncSend(const Guid& target, std::uint32_t channel, const void* data,
                                 std::uint32_t length, std::uint32_t* error, char** reply,
                                 std::uint32_t* replyLength, std::uint32_t timeoutMs) = 0;
  /// Gives a reply buffer back; null is allowed.
  virtual void FreeBuffer(char* buffer) = 0;
  /// One receiver a channel; a second one replaces the first. The receiver stays the caller's and must
  /// live until UnregisterReceiver or Close has returned. Messages for a channel without a receiver are
  /// answered with kErrNoTarget (requests) or dropped and logged (one-way).
  virtual std::uint32_t RegisterReceiver(std::uint32_t channel, IMRReceiveComplete* receiver,
                                         void* context) = 0;
  /// Returns when no callback of that channel runs any more, unless called from one.
  virtual std::uint32_t UnregisterReceiver(std::uint32_t channel) = 0;
  /// Answers one request. `reserved` is 0. The reply context is used up, whatever the result; a second reply
  /// gives kErrArgument. kErrPeerLost when the caller is gone, kErrQueueFull when he does not read his
  /// answers.
  virtual std::uint32_t Reply(std::uint32_t reserved, std::uint64_t messageId, const void* data,
                              std::uint32_t length, void* replyContext) = 0;
  /// The sender's address; inside a receive callback only, elsewhere sixteen zero bytes.
  virtual void GetPeer(Guid* peer) = 0;
  /// The sender's process; inside a receive callback only (kErrNotOpen elsewhere).
  virtual std::uint32_t GetPeerIdentity(PeerIdentity* peer) = 0;
  /// OnewaySend to that very process: kErrNotSame when another one has the address by now, kErrNoTarget
  /// when none has. Unlike OnewaySend it reaches an address held by any user who may join the bus.
  virtual std::uint32_t SendToProcess(const Guid& target, const PeerIdentity& process, std::uint32_t channel,
                                      const void* data, std::uint32_t length) = 0;

 protected:
  ~IEndpoint() = default;
};

/// Receives the library's log: level 0 (errors) to 3 (everything), one line of text without a line end.
/// Called on any of the library's threads; must not call the library back and must not throw.
using LogCallback = void (*)(int level, const char* text);

/// The bus client: one a process is enough.
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
  /// Waits until the agent's endpoint accepts, for `timeoutSec` seconds or "connect_timeout_ms",
  /// whichever is less. 0 or kErrNoTarget/kErrQueueFull/kErrDenied/kErrPath, the last two at once. A process
  /// that serves others and needs nobody need not call it.
  /// A time of 0 is a look that does not wait: 0 when a process that may be talked to listens there, which is
  /// not asked whether it answers. A look that finds what the last call found is not logged.
  virtual std::uint32_t Connect(std::uint32_t timeoutSec) = 0;
  virtual void Uninit() = 0;
  virtual void Disconnect() = 0;

 protected:
  ~IClient() = default;
};

/// The interface identifier that CreateInstance and DestoryInstance take.
inline constexpr const char* kInterfaceGuid = "69948CC6-CA3A-471E-9D6D-E532496DBBE2";
/// The agent's service endpoint: whom Connect waits for, and the target of every call of the console.
inline constexpr const char* kAgentGuid = "FBE54D8E-D8E6-41F8-BE05-A94CE5469587";
/// The console's endpoint and the name of its single-instance mark.
inline constexpr const char* kConsoleGuid = "A4F72BA6-6DE6-44D4-B955-5A880273427E";

/// The two entry points of the library, by these names (C linkage).
using CreateInstanceFn = IClient* (*)(const char* interfaceGuid);
using DestoryInstanceFn = void (*)(const char* interfaceGuid, IClient* client);

}  // namespace lunet
