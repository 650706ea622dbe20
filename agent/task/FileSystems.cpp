#include "task/FileSystems.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <cstdint>

namespace agent {

namespace {

constexpr std::uint32_t kFuse = 0x65735546;

struct Row {
  std::uint32_t magic;
  FileSystem what;
};

// The "files" of pseudo file systems are answers of the kernel, some of them endless. tmpfs and devtmpfs (one
// magic number) hold real files.
constexpr Row kRows[] = {
    {0x00009fa0, {FileSystemKind::kPseudo, "proc"}},
    {0x62656572, {FileSystemKind::kPseudo, "sysfs"}},
    {0x0027e0eb, {FileSystemKind::kPseudo, "cgroup"}},
    {0x63677270, {FileSystemKind::kPseudo, "cgroup2"}},
    {0x64626720, {FileSystemKind::kPseudo, "debugfs"}},
    {0x74726163, {FileSystemKind::kPseudo, "tracefs"}},
    {0x73636673, {FileSystemKind::kPseudo, "securityfs"}},
    {0xcafe4a11, {FileSystemKind::kPseudo, "bpf"}},
    {0x6165676c, {FileSystemKind::kPseudo, "pstore"}},
    {0xde5e81e4, {FileSystemKind::kPseudo, "efivarfs"}},
    {0x00001cd1, {FileSystemKind::kPseudo, "devpts"}},
    {0x62656570, {FileSystemKind::kPseudo, "configfs"}},
    {0x19800202, {FileSystemKind::kPseudo, "mqueue"}},
    {0xf97cff8c, {FileSystemKind::kPseudo, "selinuxfs"}},
    {0x6e736673, {FileSystemKind::kPseudo, "nsfs"}},
    {0x42494e4d, {FileSystemKind::kPseudo, "binfmt_misc"}},
    {0x67596969, {FileSystemKind::kPseudo, "rpc_pipefs"}},
    {0x6e667364, {FileSystemKind::kPseudo, "nfsd"}},
    {0x65735543, {FileSystemKind::kPseudo, "fusectl"}},
    {0x958458f6, {FileSystemKind::kPseudo, "hugetlbfs"}},
    {0x00006969, {FileSystemKind::kNetwork, "nfs"}},
    {0xff534d42, {FileSystemKind::kNetwork, "cifs"}},
    {0xfe534d42, {FileSystemKind::kNetwork, "smb2"}},
    {0x0000517b, {FileSystemKind::kNetwork, "smb"}},
    {0x00c36400, {FileSystemKind::kNetwork, "ceph"}},
    {0x5346414f, {FileSystemKind::kNetwork, "afs"}},
    {0x73757245, {FileSystemKind::kNetwork, "coda"}},
    {0x01161970, {FileSystemKind::kNetwork, "gfs2"}},
    {kFuse, {FileSystemKind::kNetwork, "fuse"}},
    {0x01021997, {FileSystemKind::kNetwork, "9p"}},
    {0x0bd00bd0, {FileSystemKind::kNetwork, "lustre"}},
    {0x47504653, {FileSystemKind::kNetwork, "gpfs"}},
    {0x00000187, {FileSystemKind::kNetwork, "autofs"}},
    {0x01021994, {FileSystemKind::kOrdinary, "", true}},  // tmpfs, devtmpfs
    {0x858458f6, {FileSystemKind::kOrdinary, "", true}},  // ramfs
};

}  // namespace

FileSystem fileSystemByMagic(unsigned long magic) {
  for (const Row& row : kRows) {
    if (row.magic == static_cast<std::uint32_t>(magic)) {
      return row.what;
    }
  }
  return {};
}

FileSystem fileSystemOf(int fd) {
  struct statfs info {};
  struct stat status {};
  if (fstatfs(fd, &info) != 0 || (static_cast<std::uint32_t>(info.f_type) == kFuse &&
                                  fstat(fd, &status) == 0 && isOnBlockDevice(status.st_dev))) {
    return {};
  }
  return fileSystemByMagic(static_cast<unsigned long>(info.f_type));
}

bool isOnBlockDevice(dev_t device) {
  return major(device) != 0;
}

}  // namespace agent
