#pragma once

#include "bin/ContainerConfig.h"
#include "lunet/BusClient.h"
#include "platform/Locks.h"

/// Owns the console's link to the agent: the logs, the bus library, the console's endpoint, and JSON-RPC on
/// this endpoint. A failed step writes its name to standard output and the debug log, and its reason to
/// standard error. The earlier steps stay until `uninit`. Main thread; `init`, `start` and `uninit` hold the
/// manager's lock.
class CContainerMgr {
 public:
  explicit CContainerMgr(tavcli::ContainerConfig config);
  ~CContainerMgr();  ///< runs `uninit`
  CContainerMgr(const CContainerMgr&) = delete;
  CContainerMgr& operator=(const CContainerMgr&) = delete;

  /// Sets up the logs and the bus library. False on failure, and after an earlier `init`.
  bool init();
  /// Connects to the agent and serves notifications. False on failure, and without `init`.
  bool start();
  /// Ends JSON-RPC. Returns when no notification is being handled.
  void stop();
  /// Releases everything. False without `init`.
  bool uninit();

  /// True when the agent listens at its address. Costs one local connection and no wait. Only a change is
  /// logged.
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
