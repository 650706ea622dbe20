#include "jsonrpchelper/AgentMethods.h"

namespace jsonrpchelper {

const std::vector<MethodRow>& agentMethods() {
  static const std::vector<MethodRow> kRows = rowsOf(AgentMethods());
  return kRows;
}

}  // namespace jsonrpchelper
