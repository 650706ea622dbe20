#include "jsonrpchelper/IAgentAbstract.h"

IAgentAbstract::IAgentAbstract(jsonrpchelper::IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindAll<jsonrpchelper::AgentMethods, &IAgentAbstract::startScanTask, &IAgentAbstract::ctlBus,
          &IAgentAbstract::getBusList, &IAgentAbstract::getAVConfig, &IAgentAbstract::setAVConfig,
          &IAgentAbstract::startDeIsolate, &IAgentAbstract::getIsolationInfo, &IAgentAbstract::ctlRegion,
          &IAgentAbstract::getRegionInfo, &IAgentAbstract::cleanScanCache,
          &IAgentAbstract::getScanCacheDetail>();
}
