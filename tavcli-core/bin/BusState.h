#pragma once

#include <atomic>
#include <cstdint>

namespace tavcli {

inline constexpr std::uint32_t kBusStateNone = 0;
inline constexpr std::uint32_t kBusStateClean = 0x20010000;     ///< task over, no infected file
inline constexpr std::uint32_t kBusStateInfected = 0x20010001;  ///< task over, infected files found
inline constexpr std::uint32_t kBusStateBusy = 0x20010002;  ///< a scan task of the same type already exists

}  // namespace tavcli

/// How the task of an unattended run stands. Written on the bus's delivery thread by the display of the
/// task's state, read and reset by the batch loop.
extern std::atomic<std::uint32_t> g_lastBusState;

namespace tavcli {

/// Says that g_lastBusState holds a final value and that all that belongs to it is done: the report stands in
/// its place and the last line is printed. Any thread.
void announceFinalState();

/// A descriptor that is readable once announceFinalState has been called, until takeFinalState. Main thread.
int finalStateDescriptor();
/// True when there was an announcement; takes it back.
bool takeFinalState();

}  // namespace tavcli
