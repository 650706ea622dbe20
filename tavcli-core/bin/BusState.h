#pragma once

#include <atomic>
#include <cstdint>

namespace tavcli {

inline constexpr std::uint32_t kBusStateNone = 0;
inline constexpr std::uint32_t kBusStateClean = 0x20010000;     ///< task over, no infected file
inline constexpr std::uint32_t kBusStateInfected = 0x20010001;  ///< task over, infected files found
inline constexpr std::uint32_t kBusStateBusy =
    0x20010002;  ///< the agent has a scan task of the same type already

}  // namespace tavcli

/// The state of an unattended run's task. IBusinessCImpl writes the state on the bus's delivery thread; the
/// batch loop reads and resets the state.
extern std::atomic<std::uint32_t> g_lastBusState;

namespace tavcli {

/// Announces a final value of g_lastBusState. By then the report stands in its place and the last line is
/// printed. Any thread.
void announceFinalState();

/// A descriptor that is readable from announceFinalState to takeFinalState. The descriptor stays open to the
/// end of the process. Main thread.
int finalStateDescriptor();
/// True when there was an announcement; removes the announcement.
bool takeFinalState();

}  // namespace tavcli
