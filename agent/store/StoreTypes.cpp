#include "store/StoreTypes.h"

namespace agent {

FileIdentity FileIdentity::of(const struct stat& st) {
  return {.device = st.st_dev,
          .inode = st.st_ino,
          .size = static_cast<std::uint64_t>(st.st_size),
          .changeTimeNs = toNs(st.st_ctim),
          .modifyTimeNs = toNs(st.st_mtim)};
}

bool FileIdentity::sameContent(const FileIdentity& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modifyTimeNs == other.modifyTimeNs;
}

}  // namespace agent
