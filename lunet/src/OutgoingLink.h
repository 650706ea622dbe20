#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "Dial.h"
#include "FrameReader.h"
#include "FrameWriter.h"
#include "Log.h"
#include "SocketSet.h"

namespace lunet {

/// A connection from this endpoint to another: messages and requests go out, answers come in.
///
/// The callers read the answers themselves. One waiting caller at a time has the reader's role and hands the
/// other callers their answers. A reader that leaves passes the role on. So a lone caller's answer costs no
/// change of threads. The io thread reads only while no caller waits: late answers, and a hang-up.
class OutgoingLink final : public Watched, public std::enable_shared_from_this<OutgoingLink> {
 public:
  struct Answer {
    Error error = kOk;
    MallocBuffer data;  ///< with a NUL behind
    std::uint32_t length = 0;
  };

  OutgoingLink(Dialled dialled, Watcher& watcher, Log& log, std::string name);
  ~OutgoingLink();
  void start();

  /// False once the peer has hung up: a new connection is needed.
  bool alive() const { return alive_ && !hungUp_; }
  bool trusted() const { return trusted_; }
  bool admitted() const { return admitted_; }
  const PeerIdentity& identity() const { return identity_; }

  /// kErrPeerLost: the peer is gone, and the message did not reach the peer.
  Error send(std::uint32_t channel, const void* data, std::uint32_t length);
  /// *sent: set to true when the request may have reached the peer.
  Answer call(std::uint32_t channel, const void* data, std::uint32_t length,
              std::chrono::steady_clock::time_point deadline, bool* sent);
  void waitUntilDrained(std::chrono::steady_clock::time_point deadline) {
    writer_.waitUntilDrained(deadline);
  }
  /// Ends the link. Calls under way get `error`.
  void shut(Error error);

  void onReady(std::uint32_t events) override;

 private:
  struct Call {
    std::uint64_t id = 0;
    std::condition_variable wake;
    bool done = false;
    Answer answer;
  };
  using Lock = std::unique_lock<std::mutex>;
  enum class Read { kSome, kNothing, kEnd, kTimeout };

  Error writeFrame(const FrameHeader& header, const void* data);
  void await(Lock& lock, Call& call, std::chrono::steady_clock::time_point deadline);
  Read waitAndRead(std::chrono::steady_clock::time_point deadline);
  Read readSome();
  bool takeFrames();
  bool takeFrame();
  std::vector<Call*>::iterator callOf(std::uint64_t id);
  void finish(std::uint64_t id, Answer answer);
  void leave();
  void drain();
  void watchForAnswers();
  void watch();
  void fail(Error error, const char* reason);

  const platform::Descriptor fd_;
  const PeerIdentity identity_;
  const bool trusted_;
  const bool admitted_;
  Watcher& watcher_;
  Log& log_;
  const std::string name_;  ///< of the peer, for the log
  FrameWriter writer_;
  std::atomic<bool> alive_{true};
  std::atomic<bool> hungUp_{false};

  std::mutex watchMutex_;  // taken last; guards the three below
  std::uint64_t watchKey_ = 0;
  bool wantWrite_ = false;
  bool wantRead_ = false;

  // Guards the members below; reader_ only while no caller has the reader's role.
  std::mutex mutex_;
  std::vector<Call*> calls_;  ///< under way
  std::uint64_t nextId_ = 1;
  bool readerActive_ = false;    ///< a caller reads, without mutex_
  std::size_t lateAnswers_ = 0;  ///< answers that may still come for callers that left
  FrameReader reader_;
};

}  // namespace lunet
