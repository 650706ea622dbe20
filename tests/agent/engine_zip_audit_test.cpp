#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "engine/ZipAudit.h"
#include "support/ArchiveMaker.h"
#include "support/GuardedBytes.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using testsupport::GuardedBytes;
using testsupport::makeZip;

// The problem, or the reason for left-out content, or an empty text. A read beyond the zip ends the test.
std::string audit(const std::string& zip) {
  std::string problem;
  for (const auto side : {GuardedBytes::Side::kBegin, GuardedBytes::Side::kEnd}) {
    const GuardedBytes guarded(zip, side);
    const auto audited = auditZip(guarded.data(), zip.size());
    problem = audited ? audited->leftOut : audited.error();
  }
  return problem;
}

const std::string kHonest =
    makeZip({{"one.txt", "content of one"}, {"folder/", ""}, {"two.txt", "content of two"}});

TEST(ZipAudit, AnHonestZipHasNoProblem) {
  EXPECT_EQ(audit(kHonest), "");
  EXPECT_EQ(audit(makeZip({})), "");
}

TEST(ZipAudit, AZipBehindAProgramHasNoProblem) {
  EXPECT_EQ(audit("#!/bin/sh\nexit\n" + kHonest), "");
}

TEST(ZipAudit, AZipWithACommentHasNoProblem) {
  std::string zip = kHonest + "a comment";
  zip[kHonest.size() - 2] = 9;
  EXPECT_EQ(audit(zip), "");
}

TEST(ZipAudit, EveryCutOfAZipIsAProblem) {
  for (std::size_t size = 0; size < kHonest.size(); ++size) {
    EXPECT_NE(audit(kHonest.substr(0, size)), "") << "cut to " << size;
  }
}

TEST(ZipAudit, ADirectoryOfTheSixtyFourBitFormatIsAProblem) {
  std::string zip = kHonest;
  zip.replace(zip.size() - 6, 4, "\xFF\xFF\xFF\xFF");
  EXPECT_THAT(audit(zip), HasSubstr("64-bit directory"));
}

TEST(ZipAudit, AStreamedZipHasNoProblem) {
  EXPECT_EQ(audit(makeZip({{.name = "one", .content = "content of one", .streamed = true},
                           {.name = "two", .content = "content", .deflate = false, .streamed = true}})),
            "");
}

// As packaging tools for mobile applications write them.
TEST(ZipAudit, AStreamedZipWithItsSizesInTheLocalHeaderTooHasNoProblem) {
  EXPECT_EQ(audit(makeZip({{.name = "one",
                            .content = "content",
                            .deflate = false,
                            .streamed = true,
                            .localPackedBytes = 7,
                            .localBytes = 7}})),
            "");
}

const std::string kNotUnpacked = makeZip({{.name = "hidden.txt", .content = "content", .method = 14}});

TEST(ZipAudit, MembersBeforeASixtyFourBitRecordAreAudited) {
  EXPECT_EQ(audit(makeZip({{"one.txt", "content of one"}}, true)), "");
  EXPECT_EQ(audit("#!/bin/sh\nexit\n" + makeZip({{"one.txt", "content of one"}}, true)), "");
  EXPECT_THAT(audit(makeZip({{.name = "hidden.txt", .content = "content", .method = 14}}, true)),
              HasSubstr("method 14"));
}

TEST(ZipAudit, ASixtyFourBitRecordThatDiffersIsAProblem) {
  const std::string honest = makeZip({{"one.txt", "content of one"}}, true);
  for (const std::size_t fromEnd :
       {98U /*its mark*/, 94U /*its length*/, 58U /*size*/, 50U /*offset*/, 90U,
        87U /*upper half of its length*/, 54U, 51U /*of the size*/, 46U, 43U /*of the offset*/}) {
    std::string zip = honest;
    zip[zip.size() - fromEnd] ^= 1;
    EXPECT_THAT(audit(zip), HasSubstr("64-bit directory")) << fromEnd;
  }
}

TEST(ZipAudit, ANumberOfMembersThatOnlyItsUpperHalfTellsApartIsAProblem) {
  std::string zip = makeZip({{"one.txt", "content of one"}}, true);
  zip[zip.size() - 62] ^= 1;
  EXPECT_THAT(audit(zip), HasSubstr("has 1 entries and says 4294967297"));
}

TEST(ZipAudit, ManyMembersAreCountedInBothFormsOfTheirNumber) {
  std::vector<testsupport::ZipMember> many(0x10000 + 5, {.name = "x", .content = "", .deflate = false});
  EXPECT_EQ(audit(makeZip(many, true)), "");
  EXPECT_EQ(audit(makeZip(many, false)), "");
  many.back().method = 14;
  EXPECT_THAT(audit(makeZip(many, true)), HasSubstr("method 14"));
  EXPECT_THAT(audit(makeZip(many, false)), HasSubstr("method 14"));
}

TEST(ZipAudit, ADirectoryThatIsShorterOrLongerThanItsCountIsAProblem) {
  for (const char* count : {"\2", "\4"}) {
    std::string zip = kHonest;
    zip.replace(zip.size() - 12, 1, count);
    EXPECT_THAT(audit(zip), HasSubstr("has 3 entries and says " + std::to_string(count[0])));
  }
}

TEST(ZipAudit, ADirectoryWithAForgedSizeOfZeroIsAProblem) {
  for (const bool countToo : {false, true}) {
    std::string zip = kNotUnpacked;
    zip.replace(zip.size() - 10, 4, std::string(4, '\0'));
    if (countToo) {
      zip.replace(zip.size() - 14, 4, std::string(4, '\0'));
    }
    EXPECT_NE(audit(zip), "") << countToo;
  }
}

TEST(ZipAudit, AnEmptyDirectoryBehindMembersIsAProblem) {
  const std::string zip = kNotUnpacked.substr(0, kNotUnpacked.find("PK\1\2")) + makeZip({});
  EXPECT_THAT(audit(zip), HasSubstr("names none"));
}

TEST(ZipAudit, AMemberWhoseLocalHeaderDiffersIsAProblem) {
  const testsupport::ZipMember honest{.name = "a", .content = "content of a"};
  auto method = honest, packed = honest, bytes = honest, streamed = honest;
  method.localMethod = 14;
  packed.localPackedBytes = 3;
  bytes.localBytes = 3;
  streamed.streamed = true;
  streamed.localMethod = 0;
  for (const auto& forged : {method, packed, bytes, streamed}) {
    EXPECT_THAT(audit(makeZip({forged})), HasSubstr("described in two ways"));
  }
}

// A number in a zip, of two or four bytes.
std::string changed(std::string zip, std::size_t at, std::size_t bytes, std::uint64_t value) {
  for (std::size_t i = 0; i < bytes; ++i) {
    zip[at + i] = static_cast<char>(value >> (8 * i) & 0xFF);
  }
  return zip;
}

// The start of the directory in a zip that a test made.
std::size_t directoryOf(const std::string& zip) {
  return zip.find("PK\1\2");
}

// The library reads the directory at the stored offset, other programs the one before the end record.
TEST(ZipAudit, AnArchiveWithTwoDirectoriesIsAProblem) {
  const std::size_t offset = directoryOf(kHonest);
  const std::string decoy = kHonest.substr(0, kHonest.size() - 22);
  ASSERT_EQ(directoryOf(decoy + kHonest), offset);
  EXPECT_THAT(audit(decoy + kHonest), HasSubstr("two directories"));
  std::string otherwise = decoy + kHonest;
  otherwise[offset] = 'Q';
  EXPECT_THAT(audit(otherwise), HasSubstr("or not the first")) << "what stands there is no directory";
}

constexpr const char* kUnnamed = "a member that its directory does not name";

// Before the directory of a zip that a test made, with the directory's place put right.
std::string withGap(std::string zip, const std::string& gap) {
  const std::size_t at = directoryOf(zip);
  zip.insert(at, gap);
  zip[zip.size() - 6] = static_cast<char>((at + gap.size()) & 0xFF);
  zip[zip.size() - 5] = static_cast<char>((at + gap.size()) >> 8 & 0xFF);
  return zip;
}

TEST(ZipAudit, AMemberThatTheDirectoryDoesNotNameIsAProblem) {
  const std::string members = kNotUnpacked.substr(0, directoryOf(kNotUnpacked));
  EXPECT_EQ(audit(withGap(kHonest, "some bytes")), "");
  EXPECT_THAT(audit(withGap(kHonest, members)), HasSubstr(kUnnamed));
  EXPECT_THAT(audit(withGap(makeZip({{"one.txt", "content", true, true}}), members)), HasSubstr(kUnnamed));
  for (const char* front : {"", "PK00", "PK\7\10", "#!/bin/sh\n"}) {
    EXPECT_THAT(audit(front + members + kHonest), HasSubstr("or not the first")) << front;
    EXPECT_EQ(audit(front + kHonest), "") << front;
  }
}

TEST(ZipAudit, MagicBytesInAProgramInFrontAndAFillerBetweenMembersAreNoProblem) {
  EXPECT_EQ(audit("a program with PK\3\4 in it" + std::string(40, '\0') + kHonest), "");
  std::string filler("PK\3\4", 4);
  filler.resize(30 + 12);
  filler[28] = 12;
  EXPECT_EQ(audit(withGap(kHonest, filler)), "");
  filler[18] = 12;
  EXPECT_THAT(audit(withGap(kHonest, filler)), HasSubstr(kUnnamed)) << "with content";
}

TEST(ZipAudit, TwoEndRecordsWithMembersAreAProblem) {
  const std::string two = makeZip({{"a", "content of a"}, {"b", "content of b"}});
  const std::string one = makeZip({{"a", "content of a"}});
  const std::string directory =
      changed(one.substr(directoryOf(one)), one.size() - directoryOf(one) - 6, 4, two.size());
  EXPECT_NE(audit(two + directory), "");
  EXPECT_EQ(audit(makeZip({{.name = "inner.zip", .content = two, .deflate = false}})), "");
  EXPECT_NE(audit("text " + two + std::string("PK\5\6", 4) + std::string(18, '\0')), "");
}

TEST(ZipAudit, SymbolicLinksOfUnixAreNamed) {
  const std::string zip = makeZip({{.name = "a", .content = "content", .deflate = false}, {"b", "text"}});
  const std::size_t entry = directoryOf(zip);
  const std::string link = changed(changed(zip, entry + 5, 1, 3), entry + 38, 4, 0xA1ED0000);
  const auto linksOf = [](const std::string& archive) {
    const auto audited = auditZip(archive.data(), archive.size());
    return audited ? audited->links : std::vector<AuditedZip::Range>{};
  };
  ASSERT_EQ(linksOf(link).size(), 1U);
  EXPECT_EQ(linksOf(link)[0].begin, 0U);
  EXPECT_EQ(linksOf(link)[0].end, 30U + 1 + 7 + 24);
  EXPECT_TRUE(linksOf(zip).empty());
  EXPECT_TRUE(linksOf(changed(link, entry + 5, 1, 0)).empty()) << "not of Unix";
}

TEST(ZipAudit, ADirectoryOfTheSixtyFourBitFormatIsAudited) {
  const auto with64 = [](const std::string& zip) {
    return changed(changed(zip, zip.size() - 10, 4, 0xFFFFFFFF), zip.size() - 6, 4, 0xFFFFFFFF);
  };
  EXPECT_EQ(audit(with64(makeZip({{"one.txt", "content of one"}}, true))),
            "the archive has a 64-bit directory: not unpacked");
  EXPECT_THAT(audit(with64(makeZip({{.name = "a", .content = "b", .localMethod = 14}}, true))),
              HasSubstr("described in two ways"));
}

TEST(ZipAudit, EachNumberThatRefersToTheSixtyFourBitFormatIsAProblem) {
  const std::string zip = makeZip({{.name = "a", .content = "content", .streamed = true}});
  const std::size_t entry = directoryOf(zip);
  for (const std::size_t at :
       {std::size_t{18} /*packed, in the local header*/, std::size_t{22} /*size there*/,
        entry + 20 /*packed, in the directory*/, entry + 24 /*size there*/, entry + 42 /*place*/}) {
    EXPECT_THAT(audit(changed(zip, at, 4, 0xFFFFFFFF)), HasSubstr("has a 64-bit size")) << at;
  }
  for (const std::size_t fromEnd : {10U /*size*/, 6U /*place*/}) {
    EXPECT_THAT(audit(changed(zip, zip.size() - fromEnd, 4, 0xFFFFFFFF)), HasSubstr("64-bit directory"))
        << fromEnd;
  }
}

TEST(ZipAudit, ADirectoryOutsideTheFileIsAProblem) {
  const std::string zip = "#!/bin/sh\nexit\n" + kHonest;
  const std::string empty = changed(changed(zip, zip.size() - 14, 4, 0), zip.size() - 12, 2, 0);
  for (const std::uint64_t bytes : {std::uint64_t{0xFFFFFF}, std::uint64_t{0xFFFFFFFE}}) {
    EXPECT_THAT(audit(changed(empty, zip.size() - 10, 4, bytes)), HasSubstr("not where it says"));
  }
}

TEST(ZipAudit, AMemberWithoutItsLocalHeaderIsAProblem) {
  EXPECT_THAT(audit(changed(kHonest, 0, 1, 'Q')), HasSubstr("not where the directory says"));
}

TEST(ZipAudit, ANameOrExtraFieldBeyondTheEndIsAProblem) {
  for (const std::size_t at : {std::size_t{26} /*name*/, std::size_t{28} /*extra field*/}) {
    EXPECT_THAT(audit(changed(kHonest, at, 2, 0xFFFF)), HasSubstr("ends beyond the end")) << at;
  }
  EXPECT_THAT(audit(changed(kHonest, directoryOf(kHonest) + 28, 2, 0xFFFF)),
              HasSubstr("directory is damaged"));
}

TEST(ZipAudit, ExtraFieldsCommentsAndADirectorySignatureAreNoProblem) {
  std::string zip = kHonest;
  const std::size_t entry = directoryOf(zip);
  const std::string behindName = zip.substr(entry + 46 + 7);
  zip = zip.substr(0, entry + 46 + 7) + "extra" + "comment" + behindName;
  zip = changed(changed(zip, entry + 30, 2, 5), entry + 32, 2, 7);
  const std::size_t end = zip.size() - 22;
  zip = changed(zip, end + 12, 4, end - entry);
  EXPECT_EQ(audit(zip), "");
  for (const std::string& signature : {std::string(100, 's'), std::string("PK\1\2")}) {
    const std::string with = zip.substr(0, end) + signature + zip.substr(end);
    EXPECT_EQ(audit(changed(with, with.size() - 10, 4, end - entry + signature.size())), "");
  }
}

TEST(ZipAudit, TheEndRecordIsFoundBeforeTheLongestComment) {
  EXPECT_EQ(audit(kHonest + std::string(0xFFFF, 'c')), "");
  EXPECT_EQ(audit(kHonest + std::string(65700, 'c')), "") << "some programs look further back";
  EXPECT_THAT(audit(kHonest + std::string(66001, 'c')), HasSubstr("no directory"));
}

TEST(ZipAudit, TheDirectoryOfAZipInAZipIsNotTakenForTheOuterOne) {
  EXPECT_THAT(audit(makeZip({{.name = "inner.zip", .content = kHonest, .deflate = false},
                             {.name = "hidden.txt", .content = "content", .method = 14}})),
              HasSubstr("\"hidden.txt\" is packed by method 14"));
}

TEST(ZipAudit, AnEncryptedMemberIsNoProblemOfTheAudit) {
  EXPECT_EQ(audit(makeZip({{.name = "a", .content = "content", .method = 99}})), "");
}

TEST(ZipAudit, AMemberBeyondTheEndOfTheFileIsAProblem) {
  const std::string honest = makeZip({{.name = "a", .content = "content", .deflate = false}});
  const std::size_t data = 30 + 1;
  for (const auto& [packedBytes, problem] : {std::pair{honest.size() - data, ""},
                                             {honest.size() - data + 1, "ends beyond the end of the file"},
                                             {std::size_t{0xFFFFFF}, "ends beyond the end of the file"}}) {
    const std::string zip =
        changed(changed(honest, 18, 4, packedBytes), directoryOf(honest) + 20, 4, packedBytes);
    EXPECT_THAT(audit(zip), HasSubstr(problem)) << packedBytes;
    EXPECT_EQ(audit(zip).empty(), std::string(problem).empty()) << packedBytes << audit(zip);
  }
}

TEST(ZipAudit, AnyBytesAreReadWithinBounds) {
  const unsigned seed = 41;
  RecordProperty("seed", static_cast<int>(seed));
  std::mt19937 generator(seed);
  for (int round = 0; round < 20000; ++round) {
    std::string zip = kHonest;
    for (int change = 0; change < 4; ++change) {
      zip[generator() % zip.size()] = static_cast<char>(generator() % 4 == 0 ? 0xFF : generator() & 0xFF);
    }
    audit(zip.substr(generator() % 8, zip.size()));
  }
}

}  // namespace
}  // namespace agent
