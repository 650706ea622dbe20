#include "jsonrpchelper/AgentServer.h"

using namespace jsonrpchelper;

IAgentAbstract::IAgentAbstract(IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindMethod<kStartScanTask, &IAgentAbstract::startScanTask>();
  bindMethod<kCtlBus, &IAgentAbstract::ctlBus>();
  bindMethod<kGetBusList, &IAgentAbstract::getBusList>();
  bindMethod<kGetAVConfig, &IAgentAbstract::getAVConfig>();
  bindMethod<kSetAVConfig, &IAgentAbstract::setAVConfig>();
  bindMethod<kStartDeIsolate, &IAgentAbstract::startDeIsolate>();
  bindMethod<kGetIsolationInfo, &IAgentAbstract::getIsolationInfo>();
  bindMethod<kCtlRegion, &IAgentAbstract::ctlRegion>();
  bindMethod<kGetRegionInfo, &IAgentAbstract::getRegionInfo>();
  bindNotification<kCleanScanCache, &IAgentAbstract::cleanScanCache>();
  bindMethod<kGetScanCacheDetail, &IAgentAbstract::getScanCacheDetail>();
}
