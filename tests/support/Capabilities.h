#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace testsupport {

/// Takes a capability from the calling thread.
inline void giveUp(unsigned capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  ASSERT_EQ(0, syscall(SYS_capget, &header, data));
  data[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
  ASSERT_EQ(0, syscall(SYS_capset, &header, data));
}

}  // namespace testsupport
