#include "jsonrpchelper/IBusinessCAbstract.h"

IBusinessCAbstract::IBusinessCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindAll<jsonrpchelper::BusinessNotifications, &IBusinessCAbstract::reportBusStatus,
          &IBusinessCAbstract::reportBusProgress>();
}
