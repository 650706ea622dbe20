#include "service/ServiceLimits.h"

#include "jsonrpchelper/AgentMethods.h"

namespace agent {

namespace {

using jsonrpchelper::CtlRegion;
using jsonrpchelper::ParameterLimit;
using jsonrpchelper::RequestLimits;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;

// docs/agent.md, "Limits of requests", has the same tables.

/// What the agent keeps as it came, or sends back: of every caller.
const std::vector<ParameterLimit>& parameterLimits() {
  static const std::vector<ParameterLimit> kRows = {
      {.name = "ctx", .bytes = 4 * kKiB},     {.name = "desc", .bytes = 4 * kKiB},
      {.name = "detail", .bytes = 4 * kKiB},  {.name = "token_id", .bytes = 4 * kKiB},
      {.name = "payload", .bytes = 4 * kKiB},
  };
  return kRows;
}

const RequestLimits& trustedLimits() {
  static const RequestLimits kLimits{
      .methods = {{.method = "", .bytes = 8 * kMiB, .depth = 64, .values = 131'072}},
      .parameters = parameterLimits(),
      .batch = 0};
  return kLimits;
}

const RequestLimits& memberLimits() {
  static const RequestLimits kLimits{
      .methods = {{.method = CtlRegion::kName, .bytes = 1 * kMiB, .depth = 32, .values = 16'384},
                  {.method = "", .bytes = 256 * kKiB, .depth = 32, .values = 4'096}},
      .parameters = parameterLimits(),
      .batch = 0};
  return kLimits;
}

}  // namespace

const jsonrpchelper::RequestLimits& requestLimitsOf(const jsonrpchelper::Caller& caller) {
  return caller.process.trusted ? trustedLimits() : memberLimits();
}

}  // namespace agent
