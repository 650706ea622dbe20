#pragma once

#include <string>

namespace testsupport {

/// Gives this process mounts that no other sees, also in a chroot whose "/" is no mount point. For a child of
/// the test, which has one thread and whose end takes the mounts away. Empty, or what the system says.
std::string enterOwnMounts();

/// Why a child of this process could not have and make mounts of its own; empty when it could. What a test
/// that needs them is skipped with.
std::string whyNoOwnMounts();

}  // namespace testsupport
