// What libclamav does not unpack, or unpacks in part: the audit of each layer, and the second unpacker.

#include <archive.h>
#include <archive_entry.h>
#include <clamav.h>
#include <gmock/gmock.h>
#include <zlib.h>

#include <array>
#include <cstdio>

#include "EngineFixture.h"
#include "engine/Digest.h"
#include "engine/LayerContents.h"
#include "engine/ScanRecord.h"
#include "engine/SignatureFolder.h"
#include "engine/Unpacker.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::archiveOf;
using testsupport::eicar;
using testsupport::genericSample;
using testsupport::makeDeflate;
using testsupport::makeRar;
using testsupport::makeRpm;
using testsupport::makeSevenZip;
using testsupport::makeTar;
using testsupport::makeTarMember;
using testsupport::makeZip;
using testsupport::noise;
using testsupport::packedBy;
using testsupport::readFile;
using testsupport::TarSize;
using testsupport::ZipMember;

const std::string kScript = "#!/bin/sh\necho hello\nexit 0\n";

std::string program() {
  return readFile("/bin/true");
}

struct Row {
  const char* what;
  std::string content;
};

class EngineUnpacking : public testing::EngineFixture {
 protected:
  void expectFound(const Row& row, const ScanOptions& options = {}) {
    const Verdict verdict = scan(row.content, options);
    EXPECT_EQ(verdict.outcome, Outcome::kInfected) << row.what << ": " << describe(verdict);
  }
  void expectError(const Row& row, const std::string& reason, const ScanOptions& options = {}) {
    const Verdict verdict = scan(row.content, options);
    EXPECT_EQ(verdict.outcome, Outcome::kError) << row.what << ": " << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason)) << row.what;
  }
  void expectSkipped(const Row& row, const std::string& reason, const ScanOptions& options = {}) {
    const Verdict verdict = scan(row.content, options);
    EXPECT_EQ(verdict.outcome, Outcome::kSkipped) << row.what << ": " << describe(verdict);
    EXPECT_THAT(verdict.reason, HasSubstr(reason)) << row.what;
  }
};

std::string encryptedZip() {
  ZipMember member{"test.com", eicar()};
  member.encryptedFlag = true;
  return makeZip({member});
}

// The member's data: version, length of the properties, the properties, the stream without its own header.
std::string lzmaZip(const std::string& content) {
  const std::string lzma = packedBy("lzma", content);
  ZipMember member{.name = "test.com", .content = content, .deflate = false, .method = 14};
  member.packed = std::string("\x10\x02\x05\x00", 4) + lzma.substr(0, 5) + lzma.substr(13);
  return makeZip({member});
}

TEST_F(EngineUnpacking, AnEncryptedZipBehindAnythingIsAnError) {
  for (const Row& row : {Row{"text", "some text\n"}, Row{"script", kScript}, Row{"program", program()}}) {
    expectError({row.what, row.content + encryptedZip()}, "encrypted");
  }
}

TEST_F(EngineUnpacking, AnLzmaZipIsUnpackedAlsoBehindAnything) {
  expectFound({"zip", lzmaZip(eicar())});
  for (const Row& row : {Row{"text", "some text\n"}, Row{"script", kScript}, Row{"program", program()}}) {
    expectFound({row.what, row.content + lzmaZip(eicar())});
  }
}

TEST_F(EngineUnpacking, AZipMemberByAnUnknownMethodBehindTextIsAnError) {
  ZipMember member{"test.com", eicar()};
  member.method = 77;
  expectError({"method 77", kScript + makeZip({member})}, "method 77");
}

TEST_F(EngineUnpacking, AZipWithoutItsDirectoryBehindTextIsUnpacked) {
  for (const std::string& zip : {lzmaZip(eicar()), makeZip({{"test.com", eicar()}})}) {
    expectFound({"cut off", kScript + zip.substr(0, zip.find("PK\1\2"))});
  }
  ZipMember shrunk{"test.com", eicar()};
  shrunk.method = 1;
  const std::string unknown = makeZip({{"a.txt", "some text"}, shrunk});
  expectError({"unknown method", kScript + unknown.substr(0, unknown.find("PK\1\2"))},
              "could not be unpacked");
  const std::string encrypted = encryptedZip();
  expectError({"encrypted", kScript + encrypted.substr(0, encrypted.find("PK\1\2"))}, "encrypted");
}

TEST_F(EngineUnpacking, AZipCutOffBehindAStoredZipIsAnError) {
  ZipMember inner{"inner.zip", makeZip({{"a.txt", "some text"}})};
  inner.deflate = false;
  const std::string zip = makeZip({inner, {"b.bin", noise(5000)}});
  expectError({"zip", zip.substr(0, 2000)}, "not the first");
}

// A number in an archive, of up to eight bytes.
std::string changed(std::string archive, std::size_t at, std::size_t bytes, std::uint64_t value) {
  for (std::size_t i = 0; i < bytes; ++i) {
    archive[at + i] = static_cast<char>(value >> (8 * i) & 0xFF);
  }
  return archive;
}

// Bytes before the directory of a zip, with the directory's place put right.
std::string withGap(const std::string& zip, const std::string& gap) {
  const std::size_t at = zip.find("PK\1\2");
  return changed(zip.substr(0, at) + gap + zip.substr(at), zip.size() + gap.size() - 6, 4, at + gap.size());
}

const std::string kEmptyEnd = std::string("PK\5\6", 4) + std::string(18, '\0');

TEST_F(EngineUnpacking, AZipBehindTextIsUnpackedWhateverEndRecordFollows) {
  expectFound({"lzma", kScript + lzmaZip(eicar()) + kEmptyEnd});
  expectError({"encrypted", kScript + encryptedZip() + kEmptyEnd}, "");
  ZipMember shrunk{"test.com", eicar()};
  shrunk.method = 1;
  expectError({"shrunk", kScript + makeZip({shrunk}) + kEmptyEnd}, "");
  expectError({"far from the end", kScript + makeZip({shrunk}) + std::string(65700, ' ')}, "method 1");
}

TEST_F(EngineUnpacking, AZipMemberThatTheDirectoryDoesNotNameIsAnError) {
  const std::string honest = makeZip({{"a.txt", "some text"}}), hidden = lzmaZip(eicar());
  const std::string members = hidden.substr(0, hidden.find("PK\1\2"));
  expectError({"between", withGap(honest, members)}, "does not name");
  expectError({"in front", "PK00" + members + honest}, "not the first");
  expectError({"in a zip", makeZip({{"inner", withGap(honest, members)}})}, "does not name");
}

// The zip's only member, marked as a symbolic link of Unix.
std::string asLink(const std::string& zip) {
  const std::size_t entry = zip.find("PK\1\2");
  return changed(changed(zip, entry + 5, 1, 3), entry + 38, 4, 0xA1ED0000);
}

// One symbolic link in a 7z.
std::string sevenZipLink(const std::string& target, const char* compression) {
  std::string out(10000, '\0');
  std::size_t used = 0;
  struct archive* archive = archive_write_new();
  archive_write_set_format_7zip(archive);
  archive_write_set_format_option(archive, "7zip", "compression", compression);
  archive_write_open_memory(archive, out.data(), out.size(), &used);
  archive_entry* entry = archive_entry_new();
  archive_entry_set_pathname(entry, "link");
  archive_entry_set_mode(entry, AE_IFLNK | 0777);
  archive_entry_set_symlink(entry, target.c_str());
  archive_write_header(archive, entry);
  archive_entry_free(entry);
  archive_write_close(archive);
  archive_write_free(archive);
  return out.substr(0, used);
}

// libarchive hands out the content of a link as its target, up to the first zero byte.
TEST_F(EngineUnpacking, AZipMemberThatIsMarkedAsASymbolicLinkIsScannedWhole) {
  const std::string cut = "harmless" + std::string(1, '\0') + packedBy("zstd", eicar());
  for (const std::string& content : {eicar(), cut}) {
    ZipMember large{"test.com", content};
    large.deflate = false;
    large.sizes64 = true;
    for (const std::string& zip : {asLink(makeZip({large})), asLink(lzmaZip(content)),
                                   asLink(makeZip({large, {"target", "harmless"}}))}) {
      expectFound({content == cut ? "cut" : "whole", zip});
      expectFound({"behind text", kScript + zip});
    }
  }
}

TEST_F(EngineUnpacking, ASymbolicLinkThatMayHoldMoreThanItsTargetIsAnError) {
  expectFound({"target", sevenZipLink(eicar(), "bzip2")});
  expectError({"7z", sevenZipLink("some/target", "bzip2")}, "symbolic link");
  ZipMember large{"link", "some/target"};
  large.deflate = false;
  large.sizes64 = true;
  for (const std::string& archive :
       {sevenZipLink("some/target", "lzma2"), sevenZipLink("lib", "lzma2"), asLink(makeZip({large})),
        asLink(makeZip({{"link", "some/target"}})), kScript + asLink(makeZip({{"link", "lib"}}))}) {
    const Verdict verdict = scan(archive);
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
  }
}

std::string newcMember(const std::string& name, const std::string& content, unsigned mode) {
  std::array<char, 120> header{};
  std::snprintf(header.data(), header.size(), "070701%08x%08x%08x%08x%08x%08x%08x%08x%08x%08x%08x%08x%08x", 1,
                mode, 0, 0, 1, 0, static_cast<unsigned>(content.size()), 0, 0, 0, 0,
                static_cast<unsigned>(name.size() + 1), 0);
  const auto padded = [](std::string text) {
    text.append((4 - text.size() % 4) % 4, '\0');
    return text;
  };
  return padded(header.data() + name + '\0') + padded(content);
}

TEST_F(EngineUnpacking, SymbolicLinksOfACpioAreCleanUnlessTheyHoldMoreThanATarget) {
  const std::string end = newcMember("TRAILER!!!", "", 0);
  const auto link = [&end](const std::string& target) {
    return newcMember("a", "some text", 0100644) + newcMember("link", target, 0120777) + end;
  };
  const Verdict verdict = scan(link("../some/target"));
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
  expectFound({"target", link(eicar())});
  expectError({"more", link("harmless" + std::string(1, '\0') + noise(5000))}, "symbolic link");
}

// The magic bytes make the library call the file an archive.
TEST_F(EngineUnpacking, ATarOrCpioInAFileThatLooksLikeAnotherArchiveIsUnpacked) {
  const std::string tar = makeTar({{"a", eicar()}}), cpio = archiveOf({{"a", eicar()}}, "newc");
  expectFound({"tar", "SZDD" + std::string(508, '\0') + tar});
  expectFound({"cpio", "SZDD junk" + cpio});
  expectFound({"gz", "SZDD junk" + packedBy("gzip", eicar())});
  const std::string zip = makeZip({{"a.txt", "some text"}});
  expectFound({"in a zip", withGap(zip, std::string(512 - zip.find("PK\1\2"), '\0') + tar)});
  std::string gzip = packedBy("gzip", "some text");
  gzip[3] = static_cast<char>(gzip[3] | 4);
  gzip.insert(10, changed(std::string(2, '\0'), 0, 2, cpio.size()) + cpio);
  expectFound({"in a gzip's header", gzip});
}

TEST_F(EngineUnpacking, AnArchiveBehindTheFirstWordOfAMailThatCannotBeUnpackedIsAnError) {
  const std::string sevenZip = makeSevenZip({{"a", "\4\1\11", "packed by no one", eicar().size()}});
  std::string rar = makeRar("test.com", eicar());
  rar = changed(rar, 7 + 3, 1, 0x80);  // encrypted headers
  const auto crc = crc32(0, reinterpret_cast<const Bytef*>(rar.data()) + 9, 11);
  rar = changed(rar, 7, 2, crc & 0xFFFF);
  const std::string boot = std::string(510, '\0') + "\x55\xAA";
  const std::string document = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1" + std::string(504, '\0');
  for (const std::string& front : {std::string("To: you\n"), std::string("From me\n"), boot, document}) {
    expectError({"7z", front + sevenZip}, "");
    expectError({"rar", front + rar}, "");
  }
}

TEST_F(EngineUnpacking, AnArchiveThatNobodyUnpacksIsAnErrorWhateverFollows) {
  const std::string lzh = std::string("\x20\0-lh5-", 7) + std::string(2000, '\xFF');
  expectError({"lzh", lzh}, "could not be unpacked");
  expectError({"and a rar", lzh + makeRar("a.txt", "some text")}, "could not be unpacked");
  expectError({"and a 7z", lzh + makeSevenZip({{"a.txt", std::string(1, '\0'), "some text", 9}})},
              "could not be unpacked");
}

// The limit of the fixture is 50 members.
TEST_F(EngineUnpacking, ATarOrCpioBehindTextIsUnpackedOnce) {
  testsupport::Members members;
  for (int i = 0; i < 30; ++i) {
    members.emplace_back("member" + std::to_string(i), "text " + std::to_string(i));
  }
  for (const char* format : {"ustar", "newc"}) {
    const Verdict verdict = scan(kScript + archiveOf(members, format));
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << format << describe(verdict);
  }
}

TEST_F(EngineUnpacking, TheHeadersOfATarOrCpioBehindTextAreListedUpToALimit) {
  std::string content = "text";
  while (content.size() < 400000) {
    content += "07";
  }
  const Contents contents = lookInto(content.data(), content.size(), nullptr);
  EXPECT_TRUE(contents.tooMany);
  ASSERT_EQ(contents.parts.size(), 1U);
  EXPECT_EQ(contents.parts[0].later.size(), 100000U);
  EXPECT_EQ(scan(content).outcome, Outcome::kError);
}

TEST_F(EngineUnpacking, ATarOrCpioBehindADamagedOneIsUnpacked) {
  const std::string front(512, ' '), end(1024, '\0');
  const std::string damaged =
      makeTarMember("x", "12 size=none\n", 'x') + makeTarMember("longer", std::string(3, '\xFF'), 'L');
  expectFound({"tar", front + damaged + makeTar({{"a", eicar()}})});
  expectFound({"tar far behind",
               front + makeTar({{"b", "text"}}) + std::string(600 * 1024, 'x') + makeTar({{"a", eicar()}})});
  expectFound({"cpio", front + archiveOf({{"b", "text"}}, "newc") + archiveOf({{"a", eicar()}}, "newc")});
}

TEST_F(EngineUnpacking, TheUnpackerEndsBehindAThousandDamagedHeaders) {
  const std::string path = dir().write("x.tar", makeTar({{"a", "text"}}) + std::string(2U << 20, 'x'));
  const platform::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  Unpacker unpacker({file.get(), 0, std::filesystem::file_size(path)}, Reader::kTar);
  int members = 0;
  while (unpacker.next()) {
    ++members;
  }
  EXPECT_EQ(members, 1);
  EXPECT_NE(unpacker.problem(), "");
  EXPECT_LT(unpacker.bytesRead(), 1U << 20);
}

// What follows in the same stream would have to be unpacked without a limit.
TEST_F(EngineUnpacking, AMemberAboveTheLimitEndsTheUnpackingOfAStream) {
  const testsupport::Members members{{"large", std::string(2U << 20, '\0')}, {"test.com", eicar()}};
  expectError({"7z", archiveOf(members, "7zip", "", "7zip:compression=bzip2")},
              "larger than the engine's limit");
}

TEST_F(EngineUnpacking, ADetectionEndsTheWork) {
  const Verdict verdict = scan(makeTar({{"a", eicar()}, {"b", packedBy("lzma", genericSample())}}));
  EXPECT_EQ(verdict.outcome, Outcome::kInfected);
  EXPECT_EQ(verdict.detections.size(), 1U);
}

TEST_F(EngineUnpacking, BytesThatOnlyLookLikeAnArchiveAreNotReportedAsSkipped) {
  ScanOptions listed, small;
  listed.archiveFormats = {"zip"};
  small.maxArchiveBytes = 1000;
  const std::string content = program() + std::string("\x1F\x8B\x08\0", 4) + noise(5000);
  for (const ScanOptions& options : {listed, small}) {
    const Verdict verdict = scan(content, options);
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
  }
}

// Results of other unpackers or rules do not hold.
TEST_F(EngineUnpacking, TheVersionOfResultsDependsOnTheUnpackerAndTheRules) {
  engine();
  EXPECT_NE(unpackerVersion(), "");
  EXPECT_THAT(state().rules, ::testing::HasSubstr(cl_retver()));
  EXPECT_THAT(state().rules, ::testing::HasSubstr(unpackerVersion()));
  EXPECT_THAT(state().rules, ::testing::EndsWith(std::string(", audit ") + kAuditVersion));
}

TEST_F(EngineUnpacking, BytesBehindTheEndOfACompressedFileAreScanned) {
  for (const char* filter : {"gzip", "bzip2", "lzma", "lzip"}) {
    const std::string front = packedBy(filter, "some harmless text");
    expectFound({filter, front + packedBy("gzip", packedBy("zstd", eicar()))});
    EXPECT_EQ(scan(front + std::string(700, '\0')).outcome, Outcome::kClean) << filter;
  }
}

// The limit of the fixture is 50 members.
TEST_F(EngineUnpacking, EachOfManyCompressedFilesInAProgramIsUnpackedOnce) {
  std::string content = program();
  for (int i = 0; i < 20; ++i) {
    content += "some text " + packedBy("gzip", "harmless text " + std::to_string(i));
  }
  const Verdict verdict = scan(content);
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
  expectFound({"the last", content + packedBy("gzip", eicar())});
}

TEST_F(EngineUnpacking, OneZipMemberThatManyDirectoryEntriesNameIsFoundAndElseAnError) {
  const auto overlapping = [](const std::string& content) {
    const std::string one = makeZip({{"test.com", content}});
    const std::size_t at = one.find("PK\1\2"), end = one.size() - 22;
    const std::string entry = one.substr(at, end - at);
    constexpr std::size_t kEntries = 3000;
    std::string zip = one.substr(0, at);
    for (std::size_t i = 0; i < kEntries; ++i) {
      zip += entry;
    }
    std::string tail = one.substr(end);
    const auto put = [&tail](std::size_t offset, std::size_t bytes, std::size_t value) {
      for (std::size_t i = 0; i < bytes; ++i) {
        tail[offset + i] = static_cast<char>(value >> (8 * i) & 0xFF);
      }
    };
    put(8, 2, kEntries);
    put(10, 2, kEntries);
    put(12, 4, entry.size() * kEntries);
    return zip + tail;
  };
  expectFound({"found", overlapping(eicar())});
  expectError({"harmless", overlapping("some harmless text")}, "overlap");
}

TEST_F(EngineUnpacking, EveryStreamOfACompressedFileIsScanned) {
  const std::string first(5000, 'x');
  for (const char* filter : {"bzip2", "gzip", "xz", "zstd", "lz4", "lzip"}) {
    const std::string streams = packedBy(filter, first) + packedBy(filter, genericSample());
    expectFound({filter, streams});
    expectFound({"in a tar", makeTar({{"a", streams}})});
  }
  for (const char* filter : {"bzip2", "gzip", "xz", "zstd"}) {
    expectFound({filter, packedBy(filter, "") + packedBy(filter, eicar())});
  }
}

TEST_F(EngineUnpacking, SevenZipFoldersOfSeveralCodersAreAllScanned) {
  const std::string harmless = "some harmless text";
  const testsupport::SevenZipMember stored{"a.txt", std::string(1, '\0'), harmless, harmless.size()};
  for (const auto& [coder, packed] :
       {std::pair{std::string("\4\1\10"), makeDeflate(eicar())}, {"\4\2\2", packedBy("bzip2", eicar())}}) {
    expectFound({"mixed", makeSevenZip({stored, {"test.com", coder, packed, eicar().size()}})});
  }
  expectError(
      {"unknown", makeSevenZip({stored, {"test.com", "\4\1\11", "packed by no one", eicar().size()}})},
      "could not be unpacked");
}

TEST_F(EngineUnpacking, SevenZipAndRarBehindTextOrAProgramAreUnpacked) {
  const std::string sevenZip =
      makeSevenZip({{"test.com", "\4\2\2", packedBy("bzip2", eicar()), eicar().size()}});
  for (const std::string& front : {kScript, program()}) {
    expectFound({"7z", front + sevenZip});
    expectFound({"rar", front + makeRar("test.com", eicar())});
    expectError({"unknown coder",
                 front + makeSevenZip({{"test.com", "\4\1\11", "packed by no one", eicar().size()}})},
                "could not be unpacked");
  }
}

TEST_F(EngineUnpacking, CompressedFilesAndTarsBehindTextOrAProgramAreUnpacked) {
  for (const std::string& front : {kScript, program()}) {
    for (const char* filter : {"gzip", "bzip2", "xz", "zstd", "lz4"}) {
      expectFound({filter, front + packedBy(filter, eicar())});
    }
    expectFound({"tar", front + makeTar({{"a", eicar()}})});
    expectFound({"cpio", front + archiveOf({{"a", eicar()}}, "newc")});
    expectFound({"iso", front + archiveOf({{"a", eicar()}}, "iso9660")});
  }
}

TEST_F(EngineUnpacking, RarFilesAreUnpacked) {
  expectFound({"rar", makeRar("test.com", eicar())});
}

TEST_F(EngineUnpacking, TarMembersAreScannedHoweverTheirSizeIsWritten) {
  const std::string end(1024, '\0');
  expectFound({"number", makeTarMember("a", eicar(), '0', TarSize::kBase256) + end});
  const std::string size = std::to_string(eicar().size());
  const std::string pax = std::to_string(size.size() + 9) + " size=" + size + "\n";
  expectFound({"pax", makeTarMember("x", pax, 'x') + makeTarMember("a", eicar(), '0', TarSize::kZero) + end});
}

TEST_F(EngineUnpacking, TarMembersAreScannedWhateverTheirType) {
  for (const char type : std::string("0\0007SZ9AEIN346V", 14)) {
    const std::string tar = makeTarMember("first", "some text") + makeTarMember("a", eicar(), type);
    const Verdict verdict = scan(tar + std::string(1024, '\0'));
    // The unpacker reports content that it does not unpack.
    const Outcome expected =
        std::string("346AV").find(type) == std::string::npos ? Outcome::kInfected : Outcome::kError;
    EXPECT_EQ(verdict.outcome, expected) << type << describe(verdict);
  }
}

TEST_F(EngineUnpacking, MembersBehindTheEndMarkOfATarAreScanned) {
  expectFound({"two", makeTar({{"a", "some text"}}) + makeTar({{"b", eicar()}})});
}

TEST_F(EngineUnpacking, KindsThatOnlyTheSecondUnpackerKnowsAreUnpacked) {
  for (const char* filter : {"lzma", "lzip", "zstd", "lz4", "compress"}) {
    expectFound({filter, packedBy(filter, eicar())});
    expectFound({"a tar in it", packedBy(filter, makeTar({{"test.com", eicar()}}))});
    expectFound({"in a zip", makeZip({{"inner", packedBy(filter, eicar())}})});
  }
  expectFound({"ar", archiveOf({{"test.com", eicar()}}, "ar")});
  expectFound({"deb", archiveOf({{"debian-binary", "2.0\n"},
                                 {"data.tar.zst", packedBy("zstd", makeTar({{"./test.com", eicar()}}))}},
                                "ar")});
  const std::string cpio = archiveOf({{"./test.com", eicar()}}, "newc");
  expectFound({"rpm", makeRpm(packedBy("gzip", cpio))});
  expectFound({"rpm of zst", makeRpm(packedBy("zstd", cpio))});
}

TEST_F(EngineUnpacking, AFileThatWasCompressedTwiceIsUnpackedTwice) {
  for (const char* filter : {"gzip", "bzip2", "xz", "lzma", "lzip", "zstd", "lz4"}) {
    expectFound({filter, packedBy(filter, packedBy(filter, eicar()))});
  }
  expectError({"compress", packedBy("compress", packedBy("compress", eicar()))}, "more than one layer");
}

TEST_F(EngineUnpacking, HarmlessArchivesOfEveryKindAreClean) {
  const std::string text = "some harmless text\n";
  for (const char* filter : {"gzip", "bzip2", "xz", "lzma", "lzip", "zstd", "lz4", "compress"}) {
    for (const std::string& content : {text, noise(200000), makeTar({{"a", text}})}) {
      const Verdict verdict = scan(packedBy(filter, content));
      EXPECT_EQ(verdict.outcome, Outcome::kClean) << filter << describe(verdict);
    }
  }
  for (const char* format :
       {"7zip", "ar", "cpio", "newc", "iso9660", "pax", "ustar", "v7tar", "xar", "zip"}) {
    const Verdict verdict = scan(archiveOf({{"a", text}, {"b", noise(100000)}}, format));
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << format << describe(verdict);
  }
}

TEST_F(EngineUnpacking, KindsThatNobodyUnpacksAreSkippedAndNeverClean) {
  const std::string rest = noise(5000);
  const std::string squashFs =
      "hsqs" + std::string("\0\0\0\0\0\0\0\0\0\0\2\0\0\0\0\0\1\0\x11\0\0\0\0\0\4\0\0\0", 28) + rest;
  const std::string wim = std::string("MSWIM\0\0\0\xD0\0\0\0", 12) + rest;
  for (const Row& row :
       {Row{"squashfs", squashFs}, Row{"wim", wim}, Row{"lrz", std::string("LRZI\0", 5) + rest},
        Row{"vhdx", std::string("vhdxfileM\0i\0", 12) + rest},
        Row{"lzo", std::string("\x89LZO\0\r\n\x1A\n", 9) + rest}, Row{"qcow2", "QFI\xFB" + rest}}) {
    const std::string reason = std::string("an archive of a kind that cannot be unpacked (") + row.what + ")";
    expectSkipped(row, reason);
    expectSkipped({row.what, makeZip({{"inner", row.content}})}, reason);
  }
  expectSkipped({"squashfs", program() + squashFs}, "(squashfs)");
  expectFound({"a detection wins", makeZip({{"inner", squashFs}, {"test.com", eicar()}})});
}

TEST_F(EngineUnpacking, ATruncatedArchiveIsAnError) {
  const std::string content = noise(100000);
  for (const char* filter : {"gzip", "bzip2", "xz", "lzma", "lzip", "zstd", "lz4"}) {
    const std::string whole = packedBy(filter, content);
    for (const std::size_t size : {whole.size() / 4, whole.size() / 2, whole.size() - 5}) {
      expectError({filter, whole.substr(0, size)}, "");
      expectError({"in a zip", makeZip({{"inner", whole.substr(0, size)}})}, "");
    }
  }
  for (const char* format : {"7zip", "ar", "bin", "newc", "iso9660", "ustar", "xar"}) {
    const std::string whole = archiveOf({{"a", noise(600000)}}, format);
    expectError({format, whole.substr(0, whole.size() / 2)}, "");
  }
}

TEST_F(EngineUnpacking, AnArOrRpmCutOffInAHeaderIsAnError) {
  const std::string ar = archiveOf({{"a", "some text "}, {"b", eicar()}}, "ar");
  expectError({"the first header", ar.substr(0, 20)}, "cut off");
  expectError({"the last header", ar.substr(0, ar.rfind("`\n") - 30)}, "cut off");
  const std::string rpm = makeRpm(packedBy("gzip", archiveOf({{"a", eicar()}}, "newc")));
  expectError({"rpm", rpm.substr(0, 100)}, "could not be unpacked");
  expectError({"rpm", rpm.substr(0, 112)}, "could not be unpacked");
}

TEST_F(EngineUnpacking, EachMemberOfAXarBehindTextIsScanned) {
  expectFound({"xar", kScript + archiveOf({{"a", noise(1000)}, {"b", eicar()}}, "xar")});
}

TEST_F(EngineUnpacking, AnEncryptedMemberIsAnError) {
  const std::string zip = archiveOf({{"test.com", eicar()}}, "zip", "", "zip:encryption=aes256");
  expectError({"zip", zip}, "encrypted");
  expectError({"behind text", kScript + zip}, "encrypted");
}

TEST_F(EngineUnpacking, TheSettingsHoldForEveryKind) {
  ScanOptions off, listed, small, shallow;
  off.archives = false;
  listed.archiveFormats = {"zip", "rar"};
  small.maxArchiveBytes = 30;
  shallow.maxLayers = 2;
  for (const char* filter : {"lzma", "lzip", "zstd", "lz4", "compress"}) {
    const Row row{filter, packedBy(filter, eicar())};
    expectSkipped(row, "archives are not unpacked", off);
    expectSkipped(row, "of a kind that is not unpacked", listed);
    expectSkipped(row, "larger than the 30 bytes", small);
    expectError({filter, packedBy("zstd", packedBy("lz4", row.content))}, "deeper than 2 layers", shallow);
    expectFound({filter, packedBy("zstd", row.content)}, shallow);
  }
  expectSkipped({"7z", kScript + makeSevenZip({})}, "archives are not unpacked", off);
}

TEST_F(EngineUnpacking, AKindThatTheSettingsCannotNameFollowsTheNearestThatTheyCan) {
  for (const auto& [filter, nearest] :
       {std::pair{"zstd", "xz"}, {"lzma", "xz"}, {"lzip", "xz"}, {"compress", "gz"}, {"lz4", "gz"}}) {
    ScanOptions options;
    options.archiveFormats = {nearest};
    expectFound({filter, packedBy(filter, eicar())}, options);
  }
  ScanOptions options;
  options.archiveFormats = {"tar"};
  expectFound({"ar", archiveOf({{"test.com", eicar()}}, "ar")}, options);
}

// The limits of the fixture: 1 MiB a member, 4 MiB in all, 50 members, 12 levels.
TEST_F(EngineUnpacking, TheLimitsHoldForTheSecondUnpacker) {
  expectError({"member", packedBy("zstd", std::string(2U << 20, '\0'))}, "larger than the engine's limit");
  testsupport::Members many, large;
  for (int i = 0; i < 60; ++i) {
    const std::string name = "member" + std::to_string(i);
    many.emplace_back(name, "text of " + name);
    large.emplace_back(name, std::string(900000, static_cast<char>('a' + i % 20)) + name);
  }
  expectError({"members", packedBy("zstd", archiveOf(many, "ar"))}, "more members");
  large.resize(10);
  expectError({"sum", packedBy("zstd", archiveOf(large, "7zip"))}, "limit");
  std::string deep = eicar();
  for (int i = 0; i < 14; ++i) {
    deep = packedBy("zstd", deep);
  }
  ScanOptions options;
  options.maxLayers = 100;
  expectError({"levels", deep}, "nested deeper", options);
}

TEST_F(EngineUnpacking, TheTimeLimitHoldsForTheSecondUnpacker) {
  EngineLimits limits;
  limits.processorMs = 1;
  limits.processorMsPer100Mb = 0;
  limits.clockFactor = 1;
  load(limits);
  expectError({"time", packedBy("zstd", std::string(200U << 20, '\0'))}, "than its budget of 1 ms");
}

TEST_F(EngineUnpacking, TheReasonNamesTheArchiveInside) {
  const std::string whole = packedBy("zstd", noise(50000));
  expectError({"zst", makeZip({{"inner.zst", whole.substr(0, 20000)}})},
              "\"inner.zst\" inside: a zst archive");
}

TEST_F(EngineUnpacking, NoTemporaryFileOfTheSecondUnpackerStaysBehind) {
  expectFound({"zst", makeZip({{"inner.zst", packedBy("zstd", makeTar({{"a", eicar()}}))}})});
  EXPECT_TRUE(std::filesystem::is_empty(dir().at("quick")));
  EXPECT_TRUE(std::filesystem::is_empty(dir().at("disk")));
}

TEST_F(EngineUnpacking, AMemberTooLargeForTheFolderInMemoryIsUnpackedOnDisk) {
  EngineLimits limits = smallLimits();
  limits.quickTempBytes = 64U << 10;
  load(limits);
  expectFound({"zst", packedBy("zstd", std::string(500000, '\0') + genericSample())});
}

// The programs of an archiver hold the magic bytes of archives.
TEST_F(EngineUnpacking, OrdinaryProgramsAndTextsWithMagicBytesAreClean) {
  for (const char* path : {"/usr/bin/file", "/bin/true", "/usr/bin/unzip", "/usr/bin/xz", "/bin/gzip"}) {
    const Verdict verdict = scan(readFile(path));
    EXPECT_EQ(verdict.outcome, Outcome::kClean) << path << describe(verdict);
  }
  using namespace std::string_literals;
  const std::string magics = "7z\xBC\xAF\x27\x1C Rar!\x1A\x07\0 PK\5\6 hsqs MSWIM ustar 070701"s;
  const Verdict verdict = scan("a list of magic bytes: " + magics + noise(3000));
  EXPECT_EQ(verdict.outcome, Outcome::kClean) << describe(verdict);
}

}  // namespace
}  // namespace agent
