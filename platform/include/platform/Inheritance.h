#pragma once

#include <initializer_list>

/// What a process gives up of what it was started or forked with: a process that lives longer than its maker,
/// or may hang, must hold nothing that others wait for. No memory is asked for, so a child of a process with
/// several threads may call these.
namespace platform {

/// Standard input, output and error lead nowhere from here on, but for those that are kept. Under a sanitizer
/// standard error stays: its report goes there.
void leaveStandardStreams(std::initializer_list<int> kept = {});

/// Closes all descriptors above standard error but those.
void closeAllBut(std::initializer_list<int> kept);

}  // namespace platform
