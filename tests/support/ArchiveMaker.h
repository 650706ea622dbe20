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
  std::string packed{};  ///< the packed content, by `method`; empty: packed here
};

/// end64: writes an end record and locator of the 64-bit format before the plain one, as for many members.
std::string makeZip(const std::vector<ZipMember>& members, bool end64 = false);
std::string makeGzip(std::string_view content);
std::string makeZlib(std::string_view content);
/// ustar. Pairs of name and content.
std::string makeTar(const std::vector<std::pair<std::string, std::string>>& members);
/// The size in a tar header: in octal digits, as a number of eight bytes, or zero (a pax header has the true
/// one).
enum class TarSize { kOctal, kBase256, kZero };
/// One member of a tar, without the end mark. type: the header's type flag.
std::string makeTarMember(const std::string& name, std::string_view content, char type = '0',
                          TarSize size = TarSize::kOctal);
/// RAR 4, stored.
std::string makeRar(const std::string& name, std::string_view content);
/// ARJ, stored. encrypted: the member is marked so; the content is then useless.
std::string makeArj(const std::string& name, std::string_view content, bool encrypted);
/// One member of a 7z file, in a folder of its own.
struct SevenZipMember {
  std::string name;
  std::string coder;  ///< the identifier's bytes: "\x00" stored, "\x04\x01\x08" deflate, "\x04\x02\x02" bzip2
  std::string packed;  ///< the content, packed by the coder
  std::size_t bytes;   ///< of the content; below 128
};
/// A 7z file with a plain header.
std::string makeSevenZip(const std::vector<SevenZipMember>& members);
/// Deflated without a header, as in a zip or a 7z.
std::string makeDeflate(std::string_view content);
/// The lead and an empty header of an rpm file, before the packed cpio archive.
std::string makeRpm(std::string_view packedCpio);
/// zip in zip in zip, `layers` of them, around one member.
std::string makeNestedZip(int layers, const std::string& name, const std::string& content);

}  // namespace testsupport
