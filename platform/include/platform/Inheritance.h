#pragma once

#include <initializer_list>

/// Descriptors that a process inherits. A process that outlives its parent, or may hang, must hold no
/// descriptor that another process waits for. These functions allocate nothing: they are safe after a fork.
namespace platform {

/// Connects standard input, output and error with /dev/null, except for the kept ones. Under a sanitizer
/// standard error stays for its report.
void leaveStandardStreams(std::initializer_list<int> kept = {});

/// Closes all descriptors above standard error except for the kept ones.
void closeAllBut(std::initializer_list<int> kept);

}  // namespace platform
