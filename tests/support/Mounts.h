#pragma once

#include <string>

namespace testsupport {

/// Gives this process mounts of its own, even in a chroot whose "/" is no mount point. For a child of the
/// test with one thread; the mounts end with the child. Empty on success, otherwise the system's reason.
std::string enterOwnMounts();

/// The reason why a child of this process cannot have mounts of its own, for GTEST_SKIP. Empty when a child
/// can.
std::string whyNoOwnMounts();

}  // namespace testsupport
