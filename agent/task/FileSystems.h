#pragma once

#include <sys/types.h>

namespace agent {

/// The kind of a file system, by its magic number.
enum class FileSystemKind { kOrdinary, kPseudo, kNetwork };

struct FileSystem {
  FileSystemKind kind = FileSystemKind::kOrdinary;
  const char* name = "";  ///< "proc", "nfs", …; empty when ordinary
  bool inMemory = false;  ///< a write through a mapping keeps the times of a file
};

/// The file system of an open descriptor. Unknown ones count as ordinary and are walked. So does FUSE on a
/// local disk.
FileSystem fileSystemOf(int fd);
/// False for the numbers that the kernel gives to file systems without a disk: memory, network.
bool isOnBlockDevice(dev_t device);
/// The row of the table for statfs f_type.
FileSystem fileSystemByMagic(unsigned long magic);

}  // namespace agent
