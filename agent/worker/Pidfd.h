#pragma once

// glibc 2.36 declares these without C linkage.
extern "C" {
#include <sys/pidfd.h>
}
