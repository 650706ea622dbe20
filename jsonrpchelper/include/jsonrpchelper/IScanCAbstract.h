#pragma once

#include "jsonrpchelper/BusServer.h"
#include "jsonrpchelper/ConsoleNotifications.h"

/// The console's receiver of a scan's findings. Derive a class, make one object on serverHelper(), and call
/// StartListening of the object. Operations run on the bus's thread, with checked parameters. The agent gets
/// no answer.
class IScanCAbstract : public jsonrpchelper::BusServer<IScanCAbstract> {
 public:
  explicit IScanCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper);

  virtual void reportRiskInfo(const jsonrpchelper::ReportRiskInfo& report) = 0;
  virtual void reportRiskFixInfo(const jsonrpchelper::ReportRiskFixInfo& report) = 0;
  virtual void reportScanBusOverView(const jsonrpchelper::ReportScanBusOverView& report) = 0;
  virtual void reportScanBusStage(const jsonrpchelper::ReportScanBusStage& report) = 0;
  virtual void reportScanAttributeInfo(const jsonrpchelper::ReportScanAttributeInfo& report) = 0;
};
