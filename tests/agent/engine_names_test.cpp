#include <gtest/gtest.h>

#include <algorithm>

#include "engine/ArchiveKinds.h"
#include "engine/DetectionNames.h"
#include "json/CppJson.h"
#include "json/Values.h"

namespace agent {
namespace {

using enum json::RiskType;

struct NameRow {
  const char* test;
  const char* library;
  FindKind kind;
  const char* name;
  int engine;
  json::RiskType risk;
  const char* riskName;
};

class DetectionNames : public ::testing::TestWithParam<NameRow> {};

TEST_P(DetectionNames, GiveKindEngineAndRisk) {
  const auto& row = GetParam();
  const Find find = readFind(row.library);
  ASSERT_EQ(find.kind, row.kind);
  if (row.kind == FindKind::kNotScanned) {
    EXPECT_FALSE(find.reason.empty());
    return;
  }
  EXPECT_EQ(find.detection.name, row.name);
  EXPECT_EQ(find.detection.engineCode, row.engine);
  EXPECT_EQ(find.detection.riskType, row.risk);
  EXPECT_EQ(find.detection.riskTypeName, row.riskName);
}

constexpr auto kSure = FindKind::kDetection;
constexpr auto kGuess = FindKind::kHeuristic;
constexpr auto kPart = FindKind::kNotScanned;

INSTANTIATE_TEST_SUITE_P(
    Rows, DetectionNames,
    ::testing::Values(
        NameRow{"OwnPattern", "TAV.Test.Generic.UNOFFICIAL", kSure, "TAV.Test.Generic", json::kEngineRda,
                kTestFile, "测试文件"},
        NameRow{"OwnHash", "TAV.Hash.Test.UNOFFICIAL", kSure, "TAV.Hash.Test", json::kEngineRdaOld, kTestFile,
                "测试文件"},
        NameRow{"OwnWithoutASuffix", "TAV.Test.Generic", kSure, "TAV.Test.Generic", json::kEngineRda,
                kTestFile, "测试文件"},
        NameRow{"AnotherPublishersSuffixStays", "Some.Trojan.X.UNOFFICIAL", kSure, "Some.Trojan.X.UNOFFICIAL",
                json::kEngineHc, kVirus, "木马"},
        NameRow{"Virus", "Win.Virus.Sality-1", kSure, "Win.Virus.Sality-1", json::kEngineHc, kVirus, "病毒"},
        NameRow{"Trojan", "Win.Trojan.Agent-1", kSure, "Win.Trojan.Agent-1", json::kEngineHc, kVirus, "木马"},
        NameRow{"Ransomware", "Win.Ransomware.Foo-1", kSure, "Win.Ransomware.Foo-1", json::kEngineHc, kVirus,
                "勒索病毒"},
        NameRow{"Worm", "Unix.Worm.Foo-1", kSure, "Unix.Worm.Foo-1", json::kEngineHc, kVirus, "蠕虫"},
        NameRow{"Backdoor", "Unix.Backdoor.Foo-1", kSure, "Unix.Backdoor.Foo-1", json::kEngineHc, kVirus,
                "后门"},
        NameRow{"Exploit", "Win.Exploit.Foo-1", kSure, "Win.Exploit.Foo-1", json::kEngineHc, kVirus,
                "漏洞利用程序"},
        NameRow{"Miner", "Unix.Coinminer.Foo-1", kSure, "Unix.Coinminer.Foo-1", json::kEngineHc, kVirus,
                "挖矿程序"},
        NameRow{"Phishing", "Html.Phishing.Foo-1", kSure, "Html.Phishing.Foo-1", json::kEngineIxo, kVirus,
                "钓鱼文件"},
        NameRow{"Adware", "Win.Adware.Foo-1", kSure, "Win.Adware.Foo-1", json::kEngineHc, kVirus, "广告程序"},
        NameRow{"Macro", "Doc.Macro.Foo-1", kSure, "Doc.Macro.Foo-1", json::kEngineDocument, kVirus,
                "宏病毒"},
        NameRow{"Script", "Js.Downloader.Foo-1", kSure, "Js.Downloader.Foo-1", json::kEngineIxo, kVirus,
                "木马"},
        NameRow{"Document", "Pdf.Dropper.Foo-1", kSure, "Pdf.Dropper.Foo-1", json::kEngineDocument, kVirus,
                "木马"},
        NameRow{"Bytecode", "BC.Win.Virus.Foo-1", kSure, "BC.Win.Virus.Foo-1", json::kEngineBytecode, kVirus,
                "病毒"},
        NameRow{"Unwanted", "PUA.Win.Tool.Foo-1", kGuess, "PUA.Win.Tool.Foo-1", json::kEngineUnwanted,
                kHeuristic, "潜在有害程序"},
        NameRow{"Heuristic", "Heuristics.Broken.Executable", kGuess, "Heuristics.Broken.Executable",
                json::kEngineUmb, kHeuristic, "可疑文件"},
        NameRow{"TestFileOfTheSystemsDatabase", "Win.Test.EICAR_HDB-1", kSure, "Win.Test.EICAR_HDB-1",
                json::kEngineHc, kTestFile, "测试文件"},
        NameRow{"NoDots", "Eicar-Test-Signature", kSure, "Eicar-Test-Signature", json::kEngineHc, kTestFile,
                "测试文件"},
        NameRow{"EmptyName", "", kSure, "", json::kEngineHc, kVirus, "病毒"},
        NameRow{"FileSizeLimit", "Heuristics.Limits.Exceeded.MaxFileSize", kPart, "", {}, {}, ""},
        NameRow{"ScanSizeLimit", "Heuristics.Limits.Exceeded.MaxScanSize", kPart, "", {}, {}, ""},
        NameRow{"MembersLimit", "Heuristics.Limits.Exceeded.MaxFiles", kPart, "", {}, {}, ""},
        NameRow{"RecursionLimit", "Heuristics.Limits.Exceeded.MaxRecursion", kPart, "", {}, {}, ""},
        NameRow{"TimeLimit", "Heuristics.Limits.Exceeded.MaxScanTime", kPart, "", {}, {}, ""},
        NameRow{"MailLimit", "Heuristics.Limits.Exceeded.EmailHeaders", kPart, "", {}, {}, ""},
        NameRow{"AnyOtherLimit", "Heuristics.Limits.Exceeded.Whatever", kPart, "", {}, {}, ""},
        NameRow{"EncryptedZip", "Heuristics.Encrypted.Zip", kPart, "", {}, {}, ""},
        NameRow{"EncryptedPdf", "Heuristics.Encrypted.PDF", kPart, "", {}, {}, ""},
        NameRow{"OverlappingZip", "Heuristics.Zip.OverlappingFiles", kPart, "", {}, {}, ""},
        NameRow{"XzDictionary", "Heuristics.XZ.DicSizeLimit", kPart, "", {}, {}, ""}),
    [](const auto& tested) { return std::string(tested.param.test); });

TEST(ArchiveKinds, DocumentsMailsAndProgramsAreNoArchives) {
  for (const char* type :
       {"CL_TYPE_OOXML_WORD", "CL_TYPE_MAIL", "CL_TYPE_ELF", "CL_TYPE_PDF", "CL_TYPE_MSEXE", ""}) {
    EXPECT_EQ(archiveKindOf(type), nullptr) << type;
  }
  EXPECT_TRUE(isZipDocument("CL_TYPE_OOXML_WORD"));
}

TEST(ArchiveKinds, AnEndingIsAmongTheListWhenOneOfItsKindsIs) {
  EXPECT_TRUE(isEndingAmong("tgz", {"gz"}));
  EXPECT_TRUE(isEndingAmong("rar", {}));
  EXPECT_FALSE(isEndingAmong("rar", {"zip", "gz"}));
  EXPECT_FALSE(isEndingAmong("txt", {}));
  EXPECT_FALSE(isEndingAmong("", {}));
}

TEST(ArchiveKinds, AnEndingIsMatchedWhole) {
  const auto* gz = archiveKindOf("CL_TYPE_GZ");
  ASSERT_NE(gz, nullptr);
  EXPECT_EQ(nameOf(*gz), "gz");
  EXPECT_TRUE(isAmong(*gz, {}));
  EXPECT_TRUE(isAmong(*gz, {"rar", "tgz"}));
  EXPECT_FALSE(isAmong(*gz, {"g", "z", "gzip", ""}));
}

}  // namespace
}  // namespace agent
