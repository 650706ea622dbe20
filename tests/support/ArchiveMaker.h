#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

/// One member of a zip file. The fields say where the zip differs from an honest zip.
struct ZipMember {
  std::string name;
  std::string content;
  bool deflate = true;
  bool sizes64 = false;        ///< the 64-bit extra field has the sizes, and 0xFFFFFFFF stands in their place
  bool encryptedFlag = false;  ///< marked as encrypted; the content is then useless
  std::int64_t declaredBytes = -1;  ///< the unpacked size written in the headers; -1: the true one
  std::int32_t method = -1;         ///< the method written in the headers; -1: the true one
  bool streamed = false;            ///< sizes and sum stand behind the content, and zeros in the local header
  std::int32_t localMethod = -1;    ///< the method in the local header alone
  std::int64_t localPackedBytes = -1, localBytes = -1;  ///< the sizes in the local header alone
};

/// end64: writes an end record and locator of the 64-bit format before the plain one, as for many members.
std::string makeZip(const std::vector<ZipMember>& members, bool end64 = false);
std::string makeGzip(std::string_view content);
/// ustar. Pairs of name and content.
std::string makeTar(const std::vector<std::pair<std::string, std::string>>& members);
/// RAR 4, stored.
std::string makeRar(const std::string& name, std::string_view content);
/// ARJ, stored. encrypted: the member is marked so; the content is then useless.
std::string makeArj(const std::string& name, std::string_view content, bool encrypted);
/// zip in zip in zip, `layers` of them, around one member.
std::string makeNestedZip(int layers, const std::string& name, const std::string& content);

}  // namespace testsupport
