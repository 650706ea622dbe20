#pragma once

#include "service/Daemon.h"
#include "service/Options.h"

namespace agent {

/// Serves a tree until SIGTERM or SIGINT. Call while the process has one thread. What keeps it from serving
/// is one line on standard error and in the log. readiness may be null. An ExitCode.
int serve(const Options& options, Readiness* readiness);

}  // namespace agent
