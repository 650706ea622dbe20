#include "store/StoreTypes.h"

namespace agent {

FileIdentity FileIdentity::of(const struct stat& st) {
  constexpr std::int64_t kNs = 1'000'000'000;
  return {.device = st.st_dev,
          .inode = st.st_ino,
          .size = static_cast<std::uint64_t>(st.st_size),
          .changeTimeNs = st.st_ctim.tv_sec * kNs + st.st_ctim.tv_nsec,
          .modifyTimeNs = st.st_mtim.tv_sec * kNs + st.st_mtim.tv_nsec};
}

bool FileIdentity::sameContent(const FileIdentity& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         modifyTimeNs == other.modifyTimeNs;
}

}  // namespace agent
