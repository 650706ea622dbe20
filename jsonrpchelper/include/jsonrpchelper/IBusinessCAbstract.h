#pragma once

#include "jsonrpchelper/BusServer.h"
#include "jsonrpchelper/ConsoleNotifications.h"

/// The console's receiver of a task's states and progress. Implement, make one on serverHelper(), and call
/// StartListening on it. Operations run on the bus's thread, with checked parameters. The agent gets no
/// answer.
class IBusinessCAbstract : public jsonrpchelper::BusServer<IBusinessCAbstract> {
 public:
  explicit IBusinessCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual void reportBusStatus(const jsonrpchelper::ReportBusStatus& report) = 0;
  virtual void reportBusProgress(const jsonrpchelper::ReportBusProgress& report) = 0;
};
