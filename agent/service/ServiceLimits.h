#pragma once

#include "jsonrpchelper/IJsonRpcServerHelper.h"

namespace agent {

/// The limits of a caller's messages. Trusted callers (lunet::PeerIdentity) are root, the agent's own user
/// and the owner of the socket folder; all others are members of the bus's group.
const jsonrpchelper::RequestLimits& requestLimitsOf(const jsonrpchelper::Caller& caller);

}  // namespace agent
