#pragma once

#include "jsonrpchelper/BusServer.h"
#include "jsonrpchelper/ConsoleNotifications.h"

/// The console's receiver of a task's states and progress. Derive a class, make one object on serverHelper(),
/// and call StartListening of the object. Operations run on the bus's thread, with checked parameters. The
/// agent gets no answer.
class IBusinessCAbstract : public jsonrpchelper::BusServer<IBusinessCAbstract> {
 public:
  explicit IBusinessCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual void reportBusStatus(const jsonrpchelper::ReportBusStatus& report) = 0;
  virtual void reportBusProgress(const jsonrpchelper::ReportBusProgress& report) = 0;
};
