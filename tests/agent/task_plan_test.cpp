#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "OwnMounts.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "platform/Descriptor.h"
#include "support/Json.h"
#include "support/TempDir.h"
#include "task/FileFilter.h"
#include "task/Places.h"
#include "task/ScanPlan.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Handling = json::HandleAction;
using testsupport::jsonOf;

class FixedSettings : public Settings {
 public:
  FixedSettings() {
    scan = jsonOf(
        R"({"Common":{"FixMethod":2,"HandleAction":2,"ScanFileType":1,"SkipSize":0,"Parallelism":0,
            "ScanWithCache":true,"MemCheck":false,"FixMethod_MemRisk":0,"NetworkmapScan":false},
            "Compressed":{"Flag":true,"Layer":16,"FileSize":1024,"Format":["zip","gz"]}})");
    engines = jsonOf(R"({"MultiEngines":{"HCengine":true,"UMBengine":true}})");
  }
  Json::Value document(json::ConfigType type) const override {
    return type == json::ConfigType::kScan ? scan : engines;
  }
  platform::Expected<void> change(json::ConfigType, const std::string&) override {
    return platform::failure("fixed");
  }
  Json::Value scan, engines;
};

class PlanTest : public ::testing::Test {
 protected:
  PlanTest() {
    params = jsonOf(
        R"({"follow_link":false,"max_scan_sec":0,"uid":0,"custom_stop":true,"items":["/some/path"],"force_scan":false,
            "handle_action":-1,"fix_method":2,"handle_filter_types":[],"parallelism":0,"proc_fix_method":0,
            "expire_time":0,"scan_type":2})");
  }
  ScanPlan plan() {
    const auto result = makePlan(params, settings);
    EXPECT_TRUE(result) << result.error();
    return result.value_or(ScanPlan{});
  }
  std::string refusal() {
    const auto result = makePlan(params, settings);
    return result ? "" : result.error();
  }
  FixedSettings settings;
  Json::Value params;
};

TEST_F(PlanTest, TheConsolesCustomRequestIsReportOnlyForFixMethodTwo) {
  const ScanPlan made = plan();
  EXPECT_FALSE(made.programsOnly);
  EXPECT_EQ(std::chrono::seconds(0), made.limit);
  EXPECT_EQ(json::ScanMode::kCustom, made.mode);
  EXPECT_THAT(made.items, ElementsAre("/some/path"));
  EXPECT_EQ(json::Handling::kReportOnly, made.handling);
  EXPECT_EQ(Handling::kNothing, made.action);
  EXPECT_FALSE(made.options.heuristics);
}

TEST_F(PlanTest, FixMethodZeroHandlesAsTheSettingsSay) {
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  EXPECT_EQ(Handling::kQuarantine, plan().action);
  settings.scan["Common"]["HandleAction"] = json::toNumber(Handling::kDelete);
  EXPECT_EQ(Handling::kDelete, plan().action);
  settings.scan["Common"]["HandleAction"] = json::toNumber(Handling::kClean);
  EXPECT_EQ(Handling::kClean, plan().action);
  settings.scan["Common"]["HandleAction"] = json::toNumber(Handling::kNothing);
  EXPECT_EQ(Handling::kNothing, plan().action);
}

TEST_F(PlanTest, AFixMethodMayBeTheTextOfItsNumber) {
  params["fix_method"] = "2";
  EXPECT_EQ(json::Handling::kReportOnly, plan().handling);
  params["fix_method"] = "0";
  EXPECT_EQ(json::Handling::kAutomatic, plan().handling);
}

TEST_F(PlanTest, ARequestedHandlingActionComesBeforeTheSettings) {
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  params["handle_action"] = json::toNumber(Handling::kDelete);
  EXPECT_EQ(Handling::kDelete, plan().action);
}

TEST_F(PlanTest, WithoutAHandlingActionTheSettingDecides) {
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  params.removeMember("handle_action");
  settings.scan["Common"]["HandleAction"] = json::toNumber(Handling::kDelete);
  EXPECT_EQ(Handling::kDelete, plan().action);
}

TEST_F(PlanTest, WithoutAFixMethodTheSettingDecidesAndItsDefaultReportsOnly) {
  params.removeMember("fix_method");
  EXPECT_EQ(Handling::kNothing, plan().action);
  settings.scan["Common"]["FixMethod"] = json::toFixMethod(json::Handling::kAutomatic);
  EXPECT_EQ(Handling::kQuarantine, plan().action);
  settings.scan["Common"]["FixMethod"] = 1;
  EXPECT_EQ(Handling::kNothing, plan().action);
}

struct TypeRow {
  int type;
  json::ScanMode mode;
  bool strong;
};
class ScanTypes : public PlanTest, public ::testing::WithParamInterface<TypeRow> {};
TEST_P(ScanTypes, IsAModeAndThreeMoreWithStrongScan) {
  params["scan_type"] = GetParam().type;
  const ScanPlan made = plan();
  EXPECT_EQ(GetParam().mode, made.mode);
  EXPECT_EQ(GetParam().strong, made.options.heuristics);
  EXPECT_EQ(GetParam().type, made.scanType);
}
INSTANTIATE_TEST_SUITE_P(
    Rows, ScanTypes,
    ::testing::Values(TypeRow{0, json::ScanMode::kFast, false}, TypeRow{1, json::ScanMode::kFull, false},
                      TypeRow{2, json::ScanMode::kCustom, false}, TypeRow{3, json::ScanMode::kFast, true},
                      TypeRow{4, json::ScanMode::kFull, true}, TypeRow{5, json::ScanMode::kCustom, true}),
    [](const auto& row) { return "Type" + std::to_string(row.param.type); });

struct RefusalRow {
  const char* name;
  const char* change;
  const char* why;
};
class Refusals : public PlanTest, public ::testing::WithParamInterface<RefusalRow> {};
TEST_P(Refusals, IsRefusedWithItsReason) {
  const Json::Value change = jsonOf(GetParam().change);
  for (const std::string& key : change.getMemberNames()) {
    params[key] = change[key];
  }
  EXPECT_THAT(refusal(), HasSubstr(GetParam().why));
}
INSTANTIATE_TEST_SUITE_P(
    Rows, Refusals,
    ::testing::Values(RefusalRow{"ScanTypeSix", R"({"scan_type":6})", "scan type 6"},
                      RefusalRow{"ScanTypeNegative", R"({"scan_type":-1})", "scan type -1"},
                      RefusalRow{"FollowLink", R"({"follow_link":true})", "symbolic links"},
                      RefusalRow{"FilterTypes", R"({"handle_filter_types":["x"]})", "risk type"},
                      RefusalRow{"ExpiryTime", R"({"expire_time":5})", "expiry"},
                      RefusalRow{"FixMethodSeven", R"({"fix_method":7})", "handling method 7"},
                      RefusalRow{"FixMethodMinusOne", R"({"fix_method":-1})", "handling method"},
                      RefusalRow{"FixMethodNull", R"({"fix_method":null})", "handling method"},
                      RefusalRow{"FixMethodTrue", R"({"fix_method":true})", "handling method"},
                      RefusalRow{"FixMethodFalse", R"({"fix_method":false})", "handling method"},
                      RefusalRow{"FixMethodList", R"({"fix_method":[]})", "handling method"},
                      RefusalRow{"FixMethodText", R"({"fix_method":"automatic"})", "handling method"},
                      RefusalRow{"FixMethodEmptyText", R"({"fix_method":""})", "handling method"},
                      RefusalRow{"FixMethodHalf", R"({"fix_method":0.5})", "handling method"},
                      RefusalRow{"FixMethodHuge", R"({"fix_method":4294967296})", "handling method"},
                      RefusalRow{"HandleActionNine", R"({"handle_action":9})", "handling action 9"},
                      RefusalRow{"HandleActionFour", R"({"handle_action":4})", "handling action 4"},
                      RefusalRow{"HandleActionMinusTwo", R"({"handle_action":-2})", "handling action -2"},
                      RefusalRow{"FixMethodThree", R"({"fix_method":3})", "handling method 3"},
                      RefusalRow{"ProcFixMethodTwo", R"({"proc_fix_method":2})", "processes 2"},
                      RefusalRow{"ProcFixMethodMinusOne", R"({"proc_fix_method":-1})", "processes -1"},
                      RefusalRow{"ParallelismNegative", R"({"parallelism":-1})", "parallelism"},
                      RefusalRow{"ParallelismTooHigh", R"({"parallelism":65})", "parallelism"},
                      RefusalRow{"NegativeLimit", R"({"max_scan_sec":-1})", "time limit"},
                      RefusalRow{"NoItems", R"({"items":[]})", "no path"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(PlanTest, TheLargestNumbersOfARequestAreTaken) {
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  params["handle_action"] = json::toNumber(Handling::kNothing);
  params["proc_fix_method"] = json::toNumber(json::ProcessFix::kEnd);
  params["parallelism"] = 64;
  params["max_scan_sec"] = 5;
  const ScanPlan made = plan();
  EXPECT_EQ(json::Handling::kAutomatic, made.handling);
  EXPECT_EQ(Handling::kNothing, made.action);
  EXPECT_TRUE(made.endProcesses);
  EXPECT_EQ(64U, made.parallelism);
  EXPECT_EQ(std::chrono::seconds(5), made.limit);
}

TEST_F(PlanTest, ARequestsParallelismComesBeforeTheSetting) {
  settings.scan["Common"]["Parallelism"] = 5;
  params["parallelism"] = 3;
  EXPECT_EQ(3U, plan().parallelism);
}

TEST_F(PlanTest, SettingsOutsideTheirRangeDoNoHarm) {
  Json::Value& common = settings.scan["Common"];
  common["Parallelism"] = -3;
  common["SkipSize"] = -1;
  settings.scan["Compressed"]["Layer"] = 0;
  const ScanPlan made = plan();
  EXPECT_EQ(0U, made.parallelism);
  EXPECT_EQ(0U, made.skipBytes);
  EXPECT_EQ(16U, made.options.maxLayers);
  common["Parallelism"] = 100;
  EXPECT_EQ(64U, plan().parallelism);
  settings.scan["Compressed"]["Format"] = jsonOf(R"({"first":"zip"})");  // no list: every format
  EXPECT_THAT(plan().options.archiveFormats, IsEmpty());
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  for (const int action : {-1, 4, 7}) {
    common["HandleAction"] = action;
    EXPECT_EQ(Handling::kNothing, plan().action);
  }
}

TEST_F(PlanTest, ParametersThatAreNoObjectAreRefused) {
  for (const char* text : {"[1]", "[null]", "[\"text\"]"}) {
    params = jsonOf(text)[0];
    EXPECT_THAT(refusal(), HasSubstr("no object"));
  }
}

TEST_F(PlanTest, MorePathsThanOneScanMayHoldOpenAreRefused) {
  for (int i = 1; i < 1024; ++i) {
    params["items"].append("/some/path");
  }
  EXPECT_EQ(1024U, plan().items.size());
  params["items"].append("/some/path");
  EXPECT_THAT(refusal(), HasSubstr("1025 paths"));
}

TEST_F(PlanTest, EveryPathOfTheRequestIsPlannedAnEmptyOneAndOneGivenTwiceToo) {
  params["items"] = jsonOf(R"(["","/a","","/a"," "])");
  EXPECT_THAT(plan().items, ElementsAre("", "/a", "", "/a", " "));
}

TEST_F(PlanTest, PathBytesThatAreNoUtf8ComeBackFromTheWire) {
  params["items"][0] = json::encodePath("/x/\xff\x80y");
  EXPECT_THAT(plan().items, ElementsAre("/x/\xff\x80y"));
}

TEST_F(PlanTest, EachSettingChangesThePlan) {
  Json::Value& common = settings.scan["Common"];
  Json::Value& compressed = settings.scan["Compressed"];
  common["ScanFileType"] = json::toNumber(json::ScanFileType::kProgramsAndDocuments);
  common["SkipSize"] = 7;
  common["Parallelism"] = 5;
  common["ScanWithCache"] = false;
  common["MemCheck"] = true;
  compressed["Flag"] = false;
  compressed["Layer"] = 3;
  compressed["FileSize"] = 2;
  settings.engines["MultiEngines"]["HCengine"] = false;
  const ScanPlan made = plan();
  EXPECT_TRUE(made.programsOnly);
  EXPECT_EQ(7U << 20, made.skipBytes);
  EXPECT_EQ(5U, made.parallelism);
  EXPECT_FALSE(made.useCache);
  EXPECT_FALSE(made.readCache);
  EXPECT_TRUE(made.memoryCheck);
  EXPECT_FALSE(made.options.archives);
  EXPECT_EQ(3U, made.options.maxLayers);
  EXPECT_EQ(2U << 20, made.options.maxArchiveBytes);
  EXPECT_THAT(made.options.archiveFormats, ElementsAre("zip", "gz"));
  EXPECT_EQ(0U, made.options.enabledEngines & (1U << json::kEngineHc));
  EXPECT_NE(0U, made.options.enabledEngines & (1U << json::kEngineUmb));
  EXPECT_NE(0U, made.options.enabledEngines & (1U << json::kEngineRejectList));
}

TEST_F(PlanTest, WhatTheSettingsDoNotSayHasItsDefault) {
  settings.scan = settings.engines = Json::Value(Json::objectValue);
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  const ScanPlan made = plan();
  EXPECT_TRUE(made.options.archives);
  EXPECT_EQ(16U, made.options.maxLayers);
  EXPECT_EQ(0U, made.options.maxArchiveBytes);
  EXPECT_THAT(made.options.archiveFormats, IsEmpty());
  for (int index = 0; index < json::kEngineCount; ++index) {
    EXPECT_NE(0U, made.options.enabledEngines & (1U << json::engineAt(index).code)) << index;
  }
  EXPECT_EQ(Handling::kQuarantine, made.action);
  EXPECT_FALSE(made.endProcesses);
  EXPECT_FALSE(made.memoryCheck);
  EXPECT_TRUE(made.useCache);
  EXPECT_EQ(0U, made.parallelism);
  EXPECT_EQ(0U, made.skipBytes);
  EXPECT_FALSE(made.programsOnly);
}

TEST_F(PlanTest, WhatChangesAVerdictChangesTheCacheKey) {
  const std::string key = plan().cacheKey;
  settings.scan["Common"]["SkipSize"] = 9;
  EXPECT_EQ(key, plan().cacheKey);
  settings.scan["Compressed"]["Layer"] = 2;
  const std::string layered = plan().cacheKey;
  EXPECT_NE(key, layered);
  settings.engines["MultiEngines"]["UMBengine"] = false;
  const std::string withoutEngine = plan().cacheKey;
  EXPECT_NE(layered, withoutEngine);
  params["scan_type"] = json::toScanType(json::ScanMode::kCustom, true);
  const std::string strong = plan().cacheKey;
  EXPECT_NE(withoutEngine, strong);
  settings.scan["Compressed"]["FileSize"] = 7;
  const std::string smallArchives = plan().cacheKey;
  EXPECT_NE(strong, smallArchives);
  settings.scan["Compressed"]["Format"].append("cab");
  const std::string oneFormatMore = plan().cacheKey;
  EXPECT_NE(smallArchives, oneFormatMore);
  settings.scan["Compressed"]["Format"] = Json::Value(Json::arrayValue);
  const std::string everyFormat = plan().cacheKey;
  EXPECT_NE(oneFormatMore, everyFormat);
  settings.scan["Compressed"]["Flag"] = false;
  EXPECT_NE(everyFormat, plan().cacheKey);
  settings.scan["Compressed"]["Format"].append("tar");
  settings.scan["Compressed"]["Format"].append("gz");
  const std::string twoFormats = plan().cacheKey;
  settings.scan["Compressed"]["Format"] = Json::Value(Json::arrayValue);
  settings.scan["Compressed"]["Format"].append("targz");
  EXPECT_NE(twoFormats, plan().cacheKey);
}

TEST_F(PlanTest, AForcedScanWritesTheCacheAndDoesNotReadIt) {
  EXPECT_TRUE(plan().readCache);
  params["force_scan"] = true;
  EXPECT_TRUE(plan().useCache);
  EXPECT_FALSE(plan().readCache);
}

TEST_F(PlanTest, ProcessesAreEndedOnlyByAScanThatHandles) {
  settings.scan["Common"]["FixMethod_MemRisk"] = json::toNumber(json::ProcessFix::kEnd);
  EXPECT_FALSE(plan().endProcesses);
  params["fix_method"] = json::toFixMethod(json::Handling::kAutomatic);
  EXPECT_TRUE(plan().endProcesses);
  settings.scan["Common"]["FixMethod_MemRisk"] = json::toNumber(json::ProcessFix::kIgnore);
  EXPECT_FALSE(plan().endProcesses);
}

TEST_F(PlanTest, NetworkFileSystemsAreForCustomScansUnlessSet) {
  EXPECT_TRUE(plan().networkFileSystems);
  params["scan_type"] = json::toNumber(json::ScanMode::kFull);
  EXPECT_FALSE(plan().networkFileSystems);
  settings.scan["Common"]["NetworkmapScan"] = true;
  EXPECT_TRUE(plan().networkFileSystems);
}

/// A file of a kind; whether a scan of programs and documents takes it.
struct KindRow {
  const char* name;
  const char* file;
  const char* content;
  mode_t mode;
  bool scanned;
  std::vector<std::string> formats{"zip", "bz2"};  // of archives
};
class ProgramsAndDocuments : public ::testing::TestWithParam<KindRow> {};
TEST_P(ProgramsAndDocuments, AreScannedAndTheRestIsLeftOut) {
  const testsupport::TempDir dir;
  const std::string path = dir.write(GetParam().file, GetParam().content);
  ASSERT_EQ(0, chmod(path.c_str(), GetParam().mode));
  EncounteredFile file;
  file.path = path;
  file.fd = platform::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, fstat(file.fd.get(), &file.status));
  ScanPlan plan;
  plan.options.archiveFormats = GetParam().formats;
  EXPECT_TRUE(checkIncluded(plan, file));
  plan.programsOnly = true;
  EXPECT_EQ(GetParam().scanned, checkIncluded(plan, file).has_value());
  EXPECT_EQ(0, lseek(file.fd.get(), 0, SEEK_CUR));
}
INSTANTIATE_TEST_SUITE_P(
    Kinds, ProgramsAndDocuments,
    ::testing::Values(
        KindRow{"Elf", "x.dat",
                "\x7f"
                "ELF...",
                0600, true},
        KindRow{"Script", "x", "#!/bin/sh\n", 0600, true},
        KindRow{"WindowsProgram", "x.jpg", "MZ...", 0600, true},
        KindRow{"PdfByItsBeginning", "x.dat", "%PDF-1.7", 0600, true},
        KindRow{"RichText", "x.dat", "{\\rtf1", 0600, true},
        KindRow{"OldOfficeDocument", "x.dat", "\xd0\xcf\x11\xe0\xa1", 0600, true},
        KindRow{"JavaClass", "x.dat", "\xca\xfe\xba\xbe", 0600, true},
        KindRow{"MachOBigEndian", "x.dat", "\xfe\xed\xfa\xce", 0600, true},
        KindRow{"MachO64BigEndian", "x.dat", "\xfe\xed\xfa\xcf", 0600, true},
        KindRow{"MachO", "x.dat", "\xce\xfa\xed\xfe", 0600, true},
        KindRow{"MachO64", "x.dat", "\xcf\xfa\xed\xfe", 0600, true},
        KindRow{"Php", "x.dat", "<?php echo 1;", 0600, true}, KindRow{"Html", "x.dat", "<html>", 0600, true},
        KindRow{"HtmlWithItsType", "x.dat", "<!DOCTYPE html>", 0600, true},
        KindRow{"Executable", "x.txt", "text", 0700, true}, KindRow{"Document", "x.PDF", "text", 0600, true},
        KindRow{"Archive", "x.zip", "PK", 0600, true},
        KindRow{"ArchiveOfTheSameKind", "x.war", "PK", 0600, true},
        KindRow{"PackedTar", "x.TBZ2", "BZh", 0600, true},
        KindRow{"ArchiveThatIsNotNamed", "x.cab", "MSCF", 0600, false},
        KindRow{"AnyArchiveWhenNoneIsNamed", "x.cab", "MSCF", 0600, true, {}},
        KindRow{"TextWhenNoArchiveIsNamed", "x.txt", "text", 0600, false, {}},
        KindRow{"Text", "x.txt", "text", 0600, false},
        KindRow{"Picture", "x.jpg", "\xff\xd8\xff", 0600, false}, KindRow{"Empty", "x.log", "", 0600, false}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ProgramsOnly, AnArchiveIsLeftOutWhenArchivesAreNotUnpacked) {
  EncounteredFile file;
  file.path = "/x.zip";
  ScanPlan plan;
  plan.programsOnly = true;
  EXPECT_TRUE(checkIncluded(plan, file));
  plan.options.archives = false;
  EXPECT_THAT(checkIncluded(plan, file).error(), HasSubstr("neither"));
}

TEST(Ending, IsTheLowerCaseOneOfTheNameAndNotOfItsFolder) {
  EXPECT_EQ("exe", endingOf("/a/b.EXE"));
  EXPECT_EQ("gz", endingOf("/a/b.tar.gz"));
  EXPECT_EQ("", endingOf("/a.exe/b"));
  EXPECT_EQ("", endingOf("/a/b"));
  EXPECT_EQ("exe", endingOf("b.exe"));
}

TEST(SkipSize, AFileLargerThanTheSettingIsLeftOutAndOneOfThatSizeIsNot) {
  ScanPlan plan;
  plan.skipBytes = 1 << 20;
  EncounteredFile file;
  file.path = "/x";
  file.status.st_size = 1 << 20;
  EXPECT_TRUE(checkIncluded(plan, file));
  file.status.st_size += 1;
  EXPECT_THAT(checkIncluded(plan, file).error(), HasSubstr("1 MB"));
}

std::vector<std::string> pathsOf(const Stage& stage) {
  std::vector<std::string> paths;
  for (const Place& place : stage.places) {
    paths.push_back(place.path);
  }
  return paths;
}

TEST(Stages, AFastScanReportsEveryStageInOrder) {
  const std::vector<Stage> stages = stagesOf(json::ScanMode::kFast, true, {{"/root", "root", 0, 0}});
  ASSERT_EQ(5U, stages.size());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(2 * i, stages[static_cast<std::size_t>(i)].begin);
    EXPECT_EQ(2 * i + 1, stages[static_cast<std::size_t>(i)].end);
    EXPECT_EQ(i == 2, stages[static_cast<std::size_t>(i)].runningPrograms);
  }
}

TEST(Stages, WithoutMemoryCheckTheStageOfRunningProgramsIsLeftOut) {
  for (const Stage& stage : stagesOf(json::ScanMode::kFast, false, {})) {
    EXPECT_FALSE(stage.runningPrograms);
    EXPECT_NE(4, stage.begin);
  }
}

TEST(Stages, AStageHasTheSameNameWithAndWithoutMemoryCheck) {
  const auto namesOf = [](bool memoryCheck) {
    std::map<int, std::string> names;
    for (const Stage& stage : stagesOf(json::ScanMode::kFast, memoryCheck, {})) {
      names[stage.begin] = stage.what;
    }
    return names;
  };
  std::map<int, std::string> names = {{0, "system settings"},
                                      {2, "common software"},
                                      {4, "running programs"},
                                      {6, "start-up items"},
                                      {8, "key places of the system"}};
  EXPECT_EQ(names, namesOf(true));
  names.erase(4);
  EXPECT_EQ(names, namesOf(false));
}

TEST(Stages, AFullScanEndsWithTheWholeDisk) {
  EXPECT_THAT(pathsOf(stagesOf(json::ScanMode::kFull, true, {}).back()), ElementsAre("/"));
}

TEST(Stages, ACustomScanHasNone) {
  EXPECT_TRUE(stagesOf(json::ScanMode::kCustom, true, {}).empty());
}

TEST(Stages, OnlyPlacesThatExistAreNamedAndBelowHomeFoldersAll) {
  const testsupport::TempDir home;
  const HomeFolder owner{home.path(), "person", 1000, 1000};
  bool found = false;
  for (const Stage& stage : stagesOf(json::ScanMode::kFast, true, {owner})) {
    for (const Place& place : stage.places) {
      EXPECT_TRUE(place.home || access(place.path.c_str(), F_OK) == 0) << place.path;
      found = found || (place.path == home.at(".bashrc") && place.home && place.home->uid == 1000);
    }
  }
  EXPECT_TRUE(found);
}

TEST(Stages, TheLastOneOfAFastScanLooksForSetuidFilesAndAFullScanMeetsThemAnyway) {
  for (const json::ScanMode mode : {json::ScanMode::kFast, json::ScanMode::kFull}) {
    const std::vector<Stage> stages = stagesOf(mode, true, {});
    for (const Stage& stage : stages) {
      EXPECT_EQ(mode == json::ScanMode::kFast && &stage == &stages.back(), stage.setuidFiles);
    }
  }
}

TEST(Stages, EachPlaceBelongsToOneOfThem) {
  std::set<std::string> seen;
  for (const Stage& stage : stagesOf(json::ScanMode::kFast, true, {})) {
    for (const std::string& path : pathsOf(stage)) {
      EXPECT_TRUE(seen.insert(path).second) << path;
    }
  }
  EXPECT_FALSE(seen.empty());
}

TEST(Stages, TheWholeDiskIsWalkedByTheLastStageOfAFullScanAlone) {
  const std::vector<Stage> full = stagesOf(json::ScanMode::kFull, true, {});
  for (std::size_t i = 0; i + 1 < full.size(); ++i) {
    EXPECT_THAT(pathsOf(full[i]), Not(Contains("/")));
  }
  for (const Stage& stage : stagesOf(json::ScanMode::kFast, true, {})) {
    EXPECT_THAT(pathsOf(stage), Not(Contains("/")));
  }
}

TEST(HomeFolders, AreThoseOfRootAndOfPeopleThatAreThereEachOnce) {
  const testsupport::TempDir homes;
  for (const char* name : {"root", "person", "shared", "system"}) {
    std::filesystem::create_directory(homes.at(name));
  }
  const auto line = [](const char* user, int uid, const std::string& home) {
    return std::string(user) + ":x:" + std::to_string(uid) + ":0::" + home + ":/bin/sh\n";
  };
  const std::string database = line("root", 0, homes.at("root")) + line("daemon", 1, homes.at("system")) +
                               line("service", 999, homes.at("system")) +
                               line("person", 1000, homes.at("person") + "/") +
                               line("one", 1001, homes.at("shared")) + line("two", 1002, homes.at("shared")) +
                               line("absent", 1003, homes.at("absent")) + line("slash", 1004, "/") +
                               line("relative", 1005, "etc") + line("none", 1006, "");
  const std::vector<std::string> expected{homes.at("person"), homes.at("root"), homes.at("shared")};
  std::vector<std::string> first, second;
  const auto paths = [] {
    std::vector<std::string> result;
    for (const HomeFolder& home : homeFolders()) {
      result.push_back(home.path);
    }
    return result;
  };
  const testsupport::TempDir dir;
  if (!withOwnMounts(userDatabase(dir.write("passwd", database)), [&] {
        ASSERT_EQ(0, chdir("/"));  // where the relative one would be
        first = paths();
        second = paths();
      })) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_EQ(expected, first);
  EXPECT_EQ(expected, second);
}

TEST(HomeFolders, SeveralThreadsAskAndEachGetsThemAll) {
  const std::size_t all = homeFolders().size();
  ASSERT_LT(0U, all);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 100; ++round) {
        wrong += homeFolders().size() == all ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, wrong);
}

}  // namespace
}  // namespace agent
