#include <algorithm>
#include <csignal>
#include <fstream>

#include "QuarantineFixture.h"
#include "platform/Posix.h"
#include "store/ItemFile.h"
#include "store/Sqlite.h"
#include "store/Vault.h"
#include "support/FileCalls.h"

namespace agent {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string stepName(const testing::TestParamInfo<const char*>& info) {
  std::string name = info.param;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

class CrashTest : public QuarantineTest {
 protected:
  /// Runs the work in a process that dies at the step. The store of this process stays closed.
  void leaveAt(const std::string& step, const std::function<void()>& work) {
    store_.reset();
    const int status = inChild([&] {
      reopen();
      exitAt(step);
      work();
    });
    ASSERT_EQ(status, 77) << "the step was not reached";
  }
  /// The same, then opens the store again.
  void dieAt(const std::string& step, const std::function<void()>& work) {
    ASSERT_NO_FATAL_FAILURE(leaveAt(step, work));
    reopen();
  }
  /// The same with two pieces of work under way: both stand at the step when the process dies.
  void dieWithBothAt(const std::string& step, const std::function<void()>& first,
                     const std::function<void()>& second) {
    store_.reset();
    const int status = inChild([&] {
      reopen();
      bool underWay = false;
      store::stepHook = [&](const char* now) {
        if (step == now && underWay) {
          ::_exit(77);
        }
        if (step == now) {
          underWay = true;
          second();
        }
      };
      first();
    });
    ASSERT_EQ(status, 77) << "the step was not reached twice";
    reopen();
  }
  /// Each file is unchanged, either in place or restorable, and nothing is left over.
  void expectExactlyOneOfEach(const std::map<std::string, FileFacts>& files) {
    EXPECT_EQ(vaultFiles().size(), items().size());
    std::vector<std::string> names;
    for (const auto& [path, before] : files) {
      names.push_back(std::filesystem::path(path).filename());
      const std::string uuid = uuidOf(path);
      EXPECT_NE(std::filesystem::exists(path), !uuid.empty()) << path;
      if (!uuid.empty()) {
        const auto result = restore(uuid);
        EXPECT_TRUE(result) << lineOf(result);
      }
      EXPECT_EQ(FileFacts::of(path), before) << path;
    }
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(vaultFiles(), IsEmpty());
    EXPECT_EQ(namesIn(at("")), names);
  }
  void expectExactlyOne(const std::string& path, const FileFacts& before) {
    expectExactlyOneOfEach({{path, before}});
  }
};

class CrashWhileAddingTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Steps, CrashWhileAddingTest,
                         testing::Values("opened", "copied", "recorded", "named", "moved", "set aside",
                                         "removed", "completed"),
                         stepName);

TEST_P(CrashWhileAddingTest, LeavesTheFileWhereItWasOrACompleteItem) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  dieAt(GetParam(), [&] { add(path); });
  expectExactlyOne(path, before);
}

TEST_P(CrashWhileAddingTest, OfTwoFilesLeavesEachWhereItWasOrACompleteItem) {
  const std::string first = writeRich("first"), second = writeRich("second");
  const std::map<std::string, FileFacts> before{{first, FileFacts::of(first)},
                                                {second, FileFacts::of(second)}};
  dieWithBothAt(
      GetParam(), [&] { add(first); }, [&] { add(second); });
  expectExactlyOneOfEach(before);
}

TEST_F(CrashTest, AnItemWithoutItsNameYetIsNotSaidToBeMissing) {
  const std::string path = write("victim");
  dieAt("recorded", [&] { add(path); });
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its removal had not begun")));
}

TEST_P(CrashWhileAddingTest, AndAgainWhileThatIsSettledLosesNothing) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  for (const char* second : {"marked gone", "row erased"}) {
    store_.reset();
    EXPECT_EQ(inChild([&] {
                reopen();
                exitAt(GetParam());
                add(path);
              }),
              77);
    // After some steps the start has nothing to erase and simply ends.
    inChild([&] {
      exitAt(second);
      reopen();
    });
    reopen();
    if (!std::filesystem::exists(path)) {
      EXPECT_TRUE(restore(uuidOf(path)));
    }
    EXPECT_EQ(FileFacts::of(path), before);
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(vaultFiles(), IsEmpty());
  }
}

class CrashWhileGivingUpTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Steps, CrashWhileGivingUpTest, testing::Values("marked gone", "row erased"),
                         stepName);

TEST_P(CrashWhileGivingUpTest, LeavesTheFileWhereItWas) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  dieAt(GetParam(), [&] {
    const auto die = store::stepHook;
    store::stepHook = [&](const char* step) {
      if (step == std::string("named")) {
        // A foreign file in its place makes the removal give up.
        std::filesystem::rename(path, path + ".moved");
        write("victim", "another");
      }
      die(step);
    };
    add(path);
  });
  EXPECT_EQ(testsupport::readFile(path), "another");
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim", "victim.moved"));
  EXPECT_EQ(FileFacts::of(path + ".moved"), before);
  EXPECT_EQ(vaultFiles().size(), items().size());
}

/// Permanent deletion: before it is set aside, the file has its own name; afterwards the file is gone.
struct DeletionStep {
  const char* step;
  bool stays;
  const char* notice;
};
class CrashWhileDeletingTest : public CrashTest, public testing::WithParamInterface<DeletionStep> {};
INSTANTIATE_TEST_SUITE_P(Steps, CrashWhileDeletingTest,
                         testing::Values(DeletionStep{"deletion recorded", true, "had not begun"},
                                         DeletionStep{"moved", false, "was ended"},
                                         DeletionStep{"set aside", false, "was ended"},
                                         DeletionStep{"removed", false, "had ended"}),
                         [](const auto& tested) {
                           return stepName({tested.param.step, tested.index});
                         });

TEST_P(CrashWhileDeletingTest, NothingStandsUnderAPrivateName) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  dieAt(GetParam().step, [&] { store().quarantine().remove(requestFor(path)); });
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr(GetParam().notice)));
  if (GetParam().stays) {
    EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
    EXPECT_EQ(FileFacts::of(path), before);
  } else {
    EXPECT_THAT(namesIn(at("")), IsEmpty());
  }
  reopen();
  EXPECT_THAT(store().notices(), IsEmpty()) << "it is settled once";
}

TEST_P(CrashWhileDeletingTest, OfTwoFilesNeitherStandsUnderAPrivateName) {
  const std::string first = write("first"), second = write("second", "another");
  dieWithBothAt(
      GetParam().step, [&] { store().quarantine().remove(requestFor(first)); },
      [&] { store().quarantine().remove(requestFor(second)); });
  EXPECT_THAT(store().notices(), ElementsAre(AllOf(HasSubstr("first"), HasSubstr(GetParam().notice)),
                                             AllOf(HasSubstr("second"), HasSubstr(GetParam().notice))));
  if (GetParam().stays) {
    EXPECT_THAT(namesIn(at("")), ElementsAre("first", "second"));
  } else {
    EXPECT_THAT(namesIn(at("")), IsEmpty());
  }
  reopen();
  EXPECT_THAT(store().notices(), IsEmpty()) << "both are settled once";
}

TEST_F(CrashTest, AnotherFileUnderTheNameOfADeletionIsPutBack) {
  const std::string path = write("victim", "bad");
  write("good", "good");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  const auto names = namesIn(at(""));
  ASSERT_EQ(names.size(), 2U);
  std::filesystem::rename(at("good"), at(names[0]));
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  EXPECT_EQ(testsupport::readFile(path), "good");
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("put back")));
  reopen();
  EXPECT_THAT(store().notices(), IsEmpty()) << "it is settled once";
}

TEST_F(CrashTest, ALinkToTheFileOfADeletionIsNotThatFile) {
  const std::string path = write("victim", "bad");
  ASSERT_NO_FATAL_FAILURE(
      leaveAt("deletion recorded", [&] { store().quarantine().remove(requestFor(path)); }));
  std::filesystem::rename(path, at("moved"));
  std::filesystem::create_symlink(at("moved"), path);
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("had ended")));
  EXPECT_THAT(namesIn(at("")), ElementsAre("moved", "victim"));
}

TEST_F(CrashTest, ALinkUnderTheNameOfADeletionIsPutBack) {
  const std::string path = write("victim", "bad");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  const std::string aside = namesIn(at("")).at(0);
  std::filesystem::rename(at(aside), at("moved"));
  std::filesystem::create_symlink(at("moved"), at(aside));
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("put back")));
  EXPECT_THAT(namesIn(at("")), ElementsAre("moved", "victim"));
}

/// One property of the file under the name of a deletion differs from the record.
class OtherFileOfADeletionTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Columns, OtherFileOfADeletionTest,
                         testing::Values("device", "inode", "size", "modify_ns"), stepName);

TEST_P(OtherFileOfADeletionTest, IsPutBack) {
  const std::string path = write("victim", "good");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  const std::string column = GetParam();
  sql(("UPDATE deletions SET " + column + "=" + column + "+1").c_str());
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("put back")));
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
}

TEST_F(CrashTest, WhatIsNoRegularFileUnderTheNameOfADeletionIsPutBack) {
  const std::string path = write("victim", "bad");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  const auto names = namesIn(at(""));
  ASSERT_EQ(names.size(), 1U);
  std::filesystem::remove(at(names[0]));
  ASSERT_EQ(::mkfifo(at(names[0]).c_str(), 0600), 0);
  struct stat st {};
  ASSERT_EQ(::lstat(at(names[0]).c_str(), &st), 0);
  const FileIdentity pipe = FileIdentity::of(st);
  sql(("UPDATE deletions SET inode=" + std::to_string(pipe.inode) +
       ",size=0,modify_ns=" + std::to_string(pipe.modifyTimeNs))
          .c_str());
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  EXPECT_TRUE(std::filesystem::is_fifo(path));
}

TEST_F(CrashTest, AnotherFileUnderTheNameOfADeletionIsNotPutOverAThird) {
  const std::string path = write("victim", "bad");
  write("good", "good");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  const std::string aside = namesIn(at("")).at(0);
  std::filesystem::rename(at("good"), at(aside));
  write("victim", "third");
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("could not be put back (File exists): it stands as")));
  EXPECT_EQ(testsupport::readFile(path), "third");
  EXPECT_EQ(testsupport::readFile(at(aside)), "good");
}

TEST_F(CrashTest, ADeletionThatEndedIsSaidToHaveThoughAnotherFileHasTheName) {
  const std::string path = write("victim", "bad");
  ASSERT_NO_FATAL_FAILURE(leaveAt("removed", [&] { store().quarantine().remove(requestFor(path)); }));
  write("victim", "good");
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("had ended")));
  EXPECT_EQ(testsupport::readFile(path), "good");
}

TEST_F(CrashTest, ADeletionThatCannotBeEndedIsTriedAgainByALaterStart) {
  const std::string path = write("victim", "bad");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  {
    testsupport::FileCalls calls;
    calls.fail("unlink .tav-", "", EPERM);
    reopen();
  }
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("could not be ended (Operation not permitted)")));
  EXPECT_EQ(namesIn(at("")).size(), 1U);
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("was ended")));
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(CrashTest, ADeletionThroughALinkedFolderIsSettledWhereTheFileIs) {
  const std::string path = write("real/victim", "bad");
  std::filesystem::create_symlink(at("real"), at("linked"));
  ASSERT_NO_FATAL_FAILURE(
      leaveAt("set aside", [&] { store().quarantine().remove(requestFor(at("linked/victim"))); }));
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("was ended")));
  EXPECT_THAT(namesIn(at("real")), IsEmpty());
}

TEST_F(CrashTest, ADeletionThatWasGivenUpIsForgotten) {
  const std::string path = write("victim", "bad");
  before("deletion recorded", [&] {
    std::filesystem::remove(path);
    write("victim", "another file");
  });
  EXPECT_FALSE(store().quarantine().remove(requestFor(path)));
  EXPECT_EQ(testsupport::readFile(path), "another file");
  reopen();
  EXPECT_THAT(store().notices(), IsEmpty());
}

TEST_F(CrashTest, ADeletionWhoseFolderIsAwayIsSettledByALaterStart) {
  std::filesystem::create_directory(at("disk"));
  const std::string path = write("disk/victim", "bad");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  std::filesystem::rename(at("disk"), at("away"));
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("cannot be reached")));
  std::filesystem::rename(at("away"), at("disk"));
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("was ended")));
  EXPECT_THAT(namesIn(at("disk")), IsEmpty());
}

class CrashWhileRestoringTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Steps, CrashWhileRestoringTest,
                         testing::Values("restore recorded", "content sent", "restored", "trusted",
                                         "marked gone", "row erased"),
                         stepName);

TEST_P(CrashWhileRestoringTest, LeavesTheFileRestoredOrACompleteItem) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  const std::string uuid = take(path);
  dieAt(GetParam(), [&] { restore(uuid); });
  expectExactlyOne(path, before);
}

TEST_P(CrashWhileRestoringTest, AFileThatCameBackIsTrustedWhenThatWasAsked) {
  const std::string path = writeRich("victim");
  const std::string uuid = take(path);
  dieAt(GetParam(), [&] { restore(uuid, root(), "", true); });
  EXPECT_EQ(store().regions().byPath(path) == RegionVerdict::kTrusted, std::filesystem::exists(path));
}

class AnotherFileAtARestoresPlaceTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Contents, AnotherFileAtARestoresPlaceTest,
                         testing::Values("as long", "of another length", ""));

TEST_P(AnotherFileAtARestoresPlaceTest, AtTheNextStartLeavesTheItem) {
  const std::string path = write("victim", "content");
  const std::string uuid = take(path);
  ASSERT_NO_FATAL_FAILURE(leaveAt("restored", [&] { restore(uuid, root(), "", true); }));
  write("victim", GetParam());
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its restore had not ended")));
  EXPECT_EQ(store().regions().byPath(path), RegionVerdict::kNone);
  EXPECT_EQ(testsupport::readFile(path), GetParam());
  EXPECT_EQ(uuidOf(path), uuid);
  EXPECT_TRUE(restore(uuid, root(), folder_.path()));
  EXPECT_EQ(testsupport::readFile(folder_.at("victim")), "content");
}

TEST_F(CrashTest, AChildThatOutlivesItsAgentIsWaitedForAndItsFileCounts) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  const std::string uuid = take(path);
  store_.reset();
  const int status = inChild([&] {
    reopen();
    const pid_t agent = ::getpid();
    QuarantineTest::before("file placed", [agent] { ::kill(agent, SIGKILL); });
    restore(uuid);
  });
  EXPECT_EQ(status, 128 + SIGKILL);
  reopen();
  EXPECT_TRUE(std::filesystem::exists(path));
  expectExactlyOne(path, before);
}

TEST_F(CrashTest, AnAgentThatDiesBeforeItsWordLeavesNothingInTheFolder) {
  const std::string path = writeRich("victim");
  const std::string uuid = take(path);
  dieAt("content sent", [&] { restore(uuid); });
  EXPECT_THAT(namesIn(at("")), IsEmpty());
  EXPECT_EQ(uuidOf(path), uuid);
}

TEST_F(CrashTest, WhenTheItemIsDamagedWhatWasSetAsideIsPutBack) {
  const std::string path = writeRich("victim");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  ASSERT_FALSE(std::filesystem::exists(path));
  const auto files = vaultFiles();
  ASSERT_EQ(files.size(), 1U);
  std::filesystem::resize_file(stateDir() + "/quarantine/" + files[0], 100);
  reopen();
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_THAT(items(), IsEmpty());
  EXPECT_THAT(vaultFiles(), IsEmpty());
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("put back")));
}

/// A removal under way, with another file under the private name.
TEST_F(CrashTest, AnotherFileUnderThePrivateNameOfARemovalIsPutBackAndTheItemStays) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  const auto names = namesIn(at(""));
  ASSERT_EQ(names.size(), 1U);
  write("good", before.content);
  std::filesystem::rename(at("good"), at(names[0]));
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  EXPECT_EQ(FileFacts::of(path).uid, 0U) << "the other file";
  ASSERT_EQ(items().size(), 1U);
  std::filesystem::remove(path);
  EXPECT_TRUE(restore(uuidOf(path)));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(CrashTest, ALinkUnderThePrivateNameOfARemovalIsPutBackAndTheItemStays) {
  const std::string path = write("victim", "as scanned");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  const std::string aside = namesIn(at("")).at(0);
  std::filesystem::rename(at(aside), at("moved"));
  std::filesystem::create_symlink(at("moved"), at(aside));
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("moved", "victim"));
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(CrashTest, AFileThatGrewUnderItsPrivateNameIsPutBack) {
  const std::string path = write("victim", "as scanned");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  const auto names = namesIn(at(""));
  ASSERT_EQ(names.size(), 1U);
  std::ofstream(at(names[0]), std::ios::app) << " and more";
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  EXPECT_EQ(testsupport::readFile(path), "as scanned and more");
}

TEST_F(CrashTest, AFileThatCannotBePutBackSinceAnotherHasItsNameIsSaidAndItsItemStays) {
  const std::string path = write("victim", "as scanned");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  const auto names = namesIn(at(""));
  ASSERT_EQ(names.size(), 1U);
  std::ofstream(at(names[0]), std::ios::app) << " and more";
  write("victim", "another file");
  reopen();
  EXPECT_EQ(testsupport::readFile(path), "another file");
  EXPECT_EQ(testsupport::readFile(at(names[0])), "as scanned and more");
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("could not be put back (File exists)")));
  EXPECT_TRUE(restore(uuidOf(path), root(), folder_.path()));
  EXPECT_EQ(testsupport::readFile(folder_.at("victim")), "as scanned");
}

TEST_F(CrashTest, AFileWithTheSameContentInThePlaceOfTheOriginalIsNotTakenForIt) {
  const std::string path = write("victim", "as scanned");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  write("victim", "as scanned");
  reopen();
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim")) << "what was set aside is gone";
  EXPECT_EQ(items().size(), 1U) << "its removal had begun";
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its removal was ended")));
}

TEST_F(CrashTest, APipeInThePlaceOfTheOriginalIsNotWaitedFor) {
  const std::string path = write("victim", "as scanned");
  ASSERT_NO_FATAL_FAILURE(leaveAt("named", [&] { add(path); }));
  std::filesystem::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  ::alarm(20);
  reopen();
  ::alarm(0);
  EXPECT_TRUE(std::filesystem::is_fifo(path));
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(CrashTest, ALinkInThePlaceOfARestoredFileIsNotTheFile) {
  const std::string path = write("victim", "content");
  const std::string uuid = take(path);
  ASSERT_NO_FATAL_FAILURE(leaveAt("restored", [&] { restore(uuid); }));
  std::filesystem::rename(path, at("moved"));
  std::filesystem::create_symlink(at("moved"), path);
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its restore had not ended")));
  EXPECT_EQ(uuidOf(path), uuid);
}

TEST_F(CrashTest, AHalfDoneItemWhoseFileWasChangedSinceIsKeptBesideTheFile) {
  for (const char* step : {"recorded", "named"}) {
    const std::string path = write("victim", "as scanned");
    ASSERT_NO_FATAL_FAILURE(leaveAt(step, [&] { add(path); }));
    write("victim", "changed since");
    reopen();
    EXPECT_EQ(testsupport::readFile(path), "changed since") << step;
    const std::string uuid = uuidOf(path);
    EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item")) << step;
    EXPECT_TRUE(restore(uuid, root(), folder_.path())) << step;
    EXPECT_EQ(testsupport::readFile(folder_.at("victim")), "as scanned") << step;
    std::filesystem::remove(folder_.at("victim"));
  }
}

/// The row differs from the file under its name.
class OtherInodeTest : public CrashTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Members, OtherInodeTest, testing::Values("device", "inode"), stepName);

TEST_P(OtherInodeTest, UnderTheNameOfARemovalKeepsTheItem) {
  const std::string path = write("victim", "content");
  ASSERT_NO_FATAL_FAILURE(leaveAt("named", [&] { add(path); }));
  const std::string member = "$." + std::string(GetParam());
  sql(("UPDATE items SET meta=CAST(json_set(CAST(meta AS TEXT),'" + member +
       "',1+json_extract(CAST(meta AS TEXT),'" + member + "')) AS BLOB)")
          .c_str());
  reopen();
  EXPECT_EQ(testsupport::readFile(path), "content");
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(CrashTest, AFolderThatBecameALinkIsNotFollowedToWhatWasSetAside) {
  const std::string path = write("sub/victim", "content");
  ASSERT_NO_FATAL_FAILURE(leaveAt("set aside", [&] { add(path); }));
  std::filesystem::rename(at("sub"), at("moved"));
  std::filesystem::create_symlink(at("moved"), at("sub"));
  reopen();
  EXPECT_EQ(items().size(), 1U);
  EXPECT_EQ(namesIn(at("moved")).size(), 1U);
}

TEST_F(CrashTest, AFolderThatBecameALinkIsNotFollowedToWhatWasRestored) {
  const std::string uuid = take(write("sub/victim", "content"));
  ASSERT_NO_FATAL_FAILURE(leaveAt("restored", [&] { restore(uuid); }));
  std::filesystem::rename(at("sub"), at("moved"));
  std::filesystem::create_symlink(at("moved"), at("sub"));
  reopen();
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(CrashTest, APipeInThePlaceOfAnEmptyFileIsNotTheFile) {
  const std::string path = write("victim", "");
  const std::string uuid = take(path);
  ASSERT_NO_FATAL_FAILURE(leaveAt("restored", [&] { restore(uuid); }));
  std::filesystem::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  reopen();
  EXPECT_EQ(uuidOf(path), uuid);
}

TEST_F(CrashTest, TheTemporaryFileOfARestoreIsTakenAwayAndWhatElseHasItsNameIsNot) {
  const std::string uuid = take(write("victim", "content"));
  store_.reset();
  EXPECT_EQ(inChild([&] {
              reopen();
              const pid_t agent = ::getpid();
              QuarantineTest::before("file made", [agent] {
                ::kill(agent, SIGKILL);
                ::pause();  // the child dies with its agent
              });
              testsupport::FileCalls calls;
              calls.fail("create nameless", "", EOPNOTSUPP);
              restore(uuid);
            }),
            128 + SIGKILL);
  reopen();
  EXPECT_THAT(namesIn(at("")), IsEmpty());

  ASSERT_NO_FATAL_FAILURE(leaveAt("restore recorded", [&] { restore(uuid); }));
  ASSERT_EQ(::mkfifo(at(".tav-" + uuid).c_str(), 0600), 0);
  reopen();
  EXPECT_EQ(namesIn(at("")).size(), 1U);

  std::filesystem::remove(at(".tav-" + uuid));
  ASSERT_NO_FATAL_FAILURE(leaveAt("restore recorded", [&] { restore(uuid); }));
  std::filesystem::create_symlink(write("another"), at(".tav-" + uuid));
  reopen();
  EXPECT_EQ(namesIn(at("")).size(), 2U) << "the link and where it leads";
}

TEST_F(CrashTest, AnItemWhoseRowWasErasedGoesWithoutANotice) {
  const std::string uuid = take(write("victim"));
  dieAt("row erased", [&] { restore(uuid); });
  EXPECT_THAT(store().notices(), IsEmpty());
  EXPECT_THAT(vaultFiles(), IsEmpty());
}

TEST_F(CrashTest, AnItemThatIsKeptThoughItIsDamagedIsSaid) {
  const std::string path = write("victim");
  ASSERT_NO_FATAL_FAILURE(leaveAt("removed", [&] { add(path); }));
  std::filesystem::resize_file(stateDir() + "/quarantine/" + vaultFiles().at(0), 100);
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("is damaged")));
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(CrashTest, TrustThatACrashHeldUpIsAddedInTheCallersName) {
  std::filesystem::create_directory(at("theirs"));
  const std::string path = write("theirs/victim");
  ASSERT_EQ(::chown(at("theirs").c_str(), kOther, kOther), 0);
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  const std::string uuid = take(path);
  dieAt("restored", [&] { restore(uuid, other(), "", true); });
  EXPECT_EQ(store::Database(stateDir() + "/agent.db", store::Durability::kFull)
                .number("SELECT added_by FROM regions"),
            std::int64_t{kOther});
}

TEST_F(CrashTest, AHalfDoneItemWhoseRecordCannotBeReadIsLeftAsItIs) {
  take(write("victim"));
  store_.reset();
  sql("UPDATE items SET state=0,meta='{}'");
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its record cannot be read: left as it is")));
  EXPECT_EQ(vaultFiles().size(), 1U);
}

TEST_F(CrashTest, ARestoreWhosePlanCannotBeReadIsSettledAsNotEnded) {
  take(write("victim"));
  for (const char* plan : {"garbage", "[1]", "{}"}) {
    store_.reset();
    sql(("UPDATE items SET state=2,pending='" + std::string(plan) + "'").c_str());
    reopen();
    EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its restore had not ended"))) << plan;
    EXPECT_EQ(items().size(), 1U);
  }
}

TEST_F(CrashTest, AnItemUnderTheNameOfAnotherIsLeftAsItIs) {
  const std::string uuid = take(write("victim"));
  const std::string folder = stateDir() + "/quarantine/";
  const std::string other = "00000000-0000-4000-8000-000000000000";
  std::filesystem::copy_file(folder + uuid + ".item", folder + other + ".item");
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("belongs to another item: left as it is")));
  ASSERT_EQ(items().size(), 1U);
  EXPECT_EQ(items()[0]["uuid"], uuid);
  EXPECT_EQ(vaultFiles().size(), 2U);
}

TEST_F(CrashTest, TheFolderOfTheItemsIsNoLinkAndClosedToOthers) {
  const std::string folder = stateDir() + "/quarantine";
  ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  reopen();
  EXPECT_EQ(FileFacts::of(folder).mode, 0700U);
  store_.reset();
  std::filesystem::rename(folder, folder_.at("moved"));
  std::filesystem::create_symlink(folder_.at("moved"), folder);
  try {
    reopen();
    ADD_FAILURE() << "it was opened";
  } catch (const store::StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("Not a directory"));
  }
}

TEST(VaultTest, AnItemIsMadeOnce) {
  const testsupport::TempDir folder;
  const store::Vault vault(folder.at("vault"));
  vault.create("uuid");
  EXPECT_THROW(vault.create("uuid"), store::StoreError);
}

TEST(VaultTest, IsNotIdleWhileAnotherIsBusyAndIsNotWaitedForWithoutEnd) {
  const testsupport::TempDir folder;
  const store::Vault vault(folder.at("vault")), another(folder.at("vault"));
  another.setBusy(true);
  EXPECT_FALSE(vault.waitIdle(std::chrono::milliseconds(20)));
  another.setBusy(false);
  EXPECT_TRUE(vault.waitIdle());
  EXPECT_TRUE(another.waitIdle(std::chrono::milliseconds(20))) << "who waited holds nothing";
}

TEST(VaultTest, ALinkThatLeadsNowhereHasTheNameOfAnItemToo) {
  const testsupport::TempDir folder;
  const store::Vault vault(folder.at("vault"));
  EXPECT_FALSE(vault.isWhole("uuid"));
  std::filesystem::create_symlink("nowhere", folder.at("vault/uuid.item"));
  EXPECT_TRUE(vault.isWhole("uuid"));
}

TEST(VaultTest, FilesAreThoseWithANameBeforeTheEnding) {
  const testsupport::TempDir folder;
  const store::Vault vault(folder.at("vault"));
  for (const char* name : {"a.part", "b.item", "c.gone", ".item", "d.txt", "item"}) {
    folder.write("vault/" + std::string(name), "");
  }
  EXPECT_EQ(vault.files().size(), 3U);
}

TEST_F(CrashTest, ItemsWhoseRecordsWereLostAreTakenUpAgainFromTheirFiles) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  const std::string uuid = take(path);
  const Json::Value listed = items();
  store_.reset();
  for (const char* name : {"agent.db", "agent.db-wal", "agent.db-shm"}) {
    std::filesystem::remove(stateDir() + "/" + name);
  }
  reopen();
  EXPECT_EQ(items(), listed);
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("taken up again")));
  EXPECT_EQ(
      store::Database(stateDir() + "/agent.db", store::Durability::kFull)
          .number("SELECT stored_bytes FROM items"),
      static_cast<std::int64_t>(std::filesystem::file_size(stateDir() + "/quarantine/" + uuid + ".item")));
  EXPECT_TRUE(restore(uuid));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(CrashTest, StrangeFilesInTheStoreAreLeftAlone) {
  std::ofstream(stateDir() + "/quarantine/readme.txt") << "x";
  std::ofstream(stateDir() + "/quarantine/garbage.item") << "x";
  reopen();
  EXPECT_THAT(vaultFiles(), ElementsAre("garbage.item", "readme.txt"));
  EXPECT_THAT(items(), IsEmpty());
}

TEST_F(CrashTest, AnItemThatLostItsFileIsSaidAtTheStartAndRefusedClearly) {
  const std::string uuid = take(write("victim"));
  std::filesystem::remove(stateDir() + "/quarantine/" + uuid + ".item");
  reopen();
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("missing")));
  EXPECT_EQ(lineOf(restore(uuid)), "its file in the quarantine is missing");
}

}  // namespace
}  // namespace agent
