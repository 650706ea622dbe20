#pragma once

#include <string>

#include "bin/ContainerConfig.h"
#include "lunet/BusClient.h"
#include "platform/Locks.h"

/// Owns the console's link to the agent: the logs, the bus library, the console's endpoint, and the JSON-RPC
/// plumbing on it. The entry routine builds one. Every step that fails says so on standard output and in the
/// debug log, why on standard error, and leaves the steps before it in place for `uninit`. Main thread;
/// `init`, `start` and `uninit` hold the manager's lock.
class CContainerMgr {
 public:
  explicit CContainerMgr(tavcli::ContainerConfig config);
  ~CContainerMgr();  ///< runs `uninit`
  CContainerMgr(const CContainerMgr&) = delete;
  CContainerMgr& operator=(const CContainerMgr&) = delete;

  /// Logs and bus library. False on failure, and when done already.
  bool init();
  /// Connects and serves. False on failure, and when not initialised.
  bool start();
  /// Ends the JSON-RPC plumbing; returns when no notification is being handled any more.
  void stop();
  /// Gives everything back. False when not initialised.
  bool uninit();

  /// True when the agent listens at its address. Costs one connection on this machine and no wait; only a
  /// change is logged.
  bool agentAnswers();

 private:
  bool initLunet();
  bool createConEndpoint();
  void unInitLunet();
  void explainMissingAgent(std::uint32_t error) const;

  tavcli::ContainerConfig config_;
  CMutex lock_;
  bool initialised_ = false;
  lunet::BusClient bus_;
};
