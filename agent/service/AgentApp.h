#pragma once

#include "service/Daemon.h"
#include "service/Options.h"

namespace agent {

/// Serves a tree until SIGTERM or SIGINT. Call while the process has one thread. A failure is one line on
/// standard error and in the log. daemon: null in the foreground. Returns an ExitCode.
int serve(const Options& options, Daemon* daemon);

}  // namespace agent
