#pragma once

namespace platform {

/// Opens /dev/null in place of each closed standard stream. Files opened later then cannot take the number of
/// a standard stream. Started programs inherit the streams. The first call in main: before any thread and any
/// other opening.
void openClosedStandardStreams();

}  // namespace platform
