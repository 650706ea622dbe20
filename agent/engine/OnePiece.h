#pragma once

#include "engine/ArchiveKinds.h"
#include "engine/Bytes.h"

namespace agent {

/// Whether the header says that an archive stands here as a whole. The file around it may cut embedded files
/// into pieces; then the bytes of an archive are not all here, and a failure to unpack them says nothing. For
/// a 7z: its last header is where the first says. For a RAR: the first block is complete. False for all other
/// kinds. Never reads outside the buffer.
bool isInOnePiece(Reader reader, const Bytes& archive);

}  // namespace agent
