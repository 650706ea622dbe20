// The order of the quarantine's file calls: what is durable before the next step. And calls that fail.

#include <algorithm>

#include "QuarantineFixture.h"
#include "support/FileCalls.h"

namespace agent {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::FileCalls;

/// The database syncs its log with every commit.
constexpr const char* kRowWritten = "write agent.db-wal";
constexpr const char* kRowSynced = "sync agent.db-wal";

class DurabilityTest : public QuarantineTest {
 protected:
  void SetUp() override {
    QuarantineTest::SetUp();
    EXPECT_TRUE(restore(take(write("first"))));  // makes the log of the database
    std::filesystem::remove(at("first"));
  }
  /// Runs the work in a process that dies at the step. The store stays closed.
  void dieAt(const std::string& step, const std::function<void()>& work) {
    store_.reset();
    ASSERT_EQ(inChild([&] {
                reopen();
                exitAt(step);
                work();
              }),
              77);
  }
  /// The file calls of the next start, without those on the database.
  std::vector<std::string> callsOfAStart() {
    const FileCalls calls;
    reopen();
    std::vector<std::string> seen = calls.seen();
    std::erase_if(seen, [](const std::string& call) {
      return call == "sync state" || (call.find(".db") != std::string::npos && call != kRowSynced);
    });
    return seen;
  }
  /// The file is refused for that reason and unchanged, and the store is empty.
  void expectLeftAlone(const std::string& path, const platform::Expected<Remark>& result,
                       const std::string& why) {
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr(why));
    EXPECT_EQ(testsupport::readFile(path), "a file that was detected");
    EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(vaultFiles(), IsEmpty());
  }
};

TEST_F(DurabilityTest, AnItemAndItsRowAreOnTheDiskBeforeTheOriginalIsTouched) {
  const std::string path = write("victim");
  const FileCalls calls;
  EXPECT_TRUE(add(path));
  EXPECT_THAT(calls.seen(),
              ElementsAre("write ID.part", "sync ID.part", kRowWritten, kRowSynced,
                          "rename ID.part to ID.item", "sync quarantine", "rename victim to .tav-ID",
                          "unlink .tav-ID", "sync files", kRowWritten, kRowSynced));
}

TEST_F(DurabilityTest, ARestoredFileAndItsFolderAreOnTheDiskBeforeTheItemGoes) {
  const std::string uuid = take(write("victim"));
  const FileCalls calls;
  EXPECT_TRUE(restore(uuid));
  EXPECT_THAT(calls.seen(), ElementsAre(kRowWritten, kRowSynced, "write nameless", "sync nameless",
                                        "link nameless to victim", "sync files", "rename ID.item to ID.gone",
                                        "sync quarantine", kRowWritten, kRowSynced, "unlink ID.gone"));
}

TEST_F(DurabilityTest, TrustIsOnTheDiskBeforeTheItemGoes) {
  const std::string uuid = take(write("victim"));
  const FileCalls calls;
  EXPECT_TRUE(restore(uuid, root(), "", true));
  EXPECT_THAT(calls.seen(), ElementsAre(kRowWritten, kRowSynced, "write nameless", "sync nameless",
                                        "link nameless to victim", "sync files", kRowWritten, kRowSynced,
                                        "rename ID.item to ID.gone", "sync quarantine", kRowWritten,
                                        kRowSynced, "unlink ID.gone"));
}

TEST_F(DurabilityTest, WhereNamelessFilesCannotBeTheRestoredFileIsSyncedUnderItsPrivateName) {
  const std::string path = writeRich("victim");
  const FileFacts before = FileFacts::of(path);
  const std::string uuid = take(path);
  {
    FileCalls calls;
    calls.fail("create nameless", "", EOPNOTSUPP);
    EXPECT_TRUE(restore(uuid));
    EXPECT_THAT(calls.seen(),
                ElementsAre(kRowWritten, kRowSynced, "write .tav-ID", "sync .tav-ID",
                            "rename .tav-ID to victim", "sync files", "rename ID.item to ID.gone",
                            "sync quarantine", kRowWritten, kRowSynced, "unlink ID.gone"));
  }
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(DurabilityTest, ANamelessFileThatTheDiskRefusesIsNotTriedUnderAName) {
  const std::string uuid = take(write("victim"));
  FileCalls calls;
  calls.fail("create nameless", "", ENOSPC);
  EXPECT_THAT(lineOf(restore(uuid)), HasSubstr("No space left on device"));
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(DurabilityTest, AFolderThatItsUserMayNotReadIsSyncedWithItsFileSystem) {
  std::filesystem::create_directory(at("drop"));
  const std::string path = write("drop/victim");
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  const std::string uuid = take(path);
  ASSERT_EQ(::chown(at("drop").c_str(), kOther, kOther), 0);
  ASSERT_EQ(::chmod(at("drop").c_str(), 0300), 0);
  FileCalls calls;
  EXPECT_TRUE(restore(uuid, other()));
  EXPECT_THAT(calls.seen(), ElementsAre(kRowWritten, kRowSynced, "write nameless", "sync nameless",
                                        "link nameless to victim", testing::StartsWith("syncfs "),
                                        "rename ID.item to ID.gone", "sync quarantine", kRowWritten,
                                        kRowSynced, "unlink ID.gone"));
}

TEST_F(DurabilityTest, ADeletionIsRecordedOnTheDiskBeforeItBeginsAndForgottenWhenItsFolderIsSynced) {
  const std::string path = write("victim");
  const FileCalls calls;
  EXPECT_TRUE(store().quarantine().remove(requestFor(path)));
  EXPECT_THAT(calls.seen(), ElementsAre(kRowWritten, kRowSynced, "rename victim to .tav-ID", "unlink .tav-ID",
                                        "sync files", kRowWritten, kRowSynced));
}

TEST_F(DurabilityTest, AStartThatEndsARemovalSyncsTheFolderBeforeTheRow) {
  const std::string path = write("victim");
  ASSERT_NO_FATAL_FAILURE(dieAt("set aside", [&] { add(path); }));
  EXPECT_THAT(callsOfAStart(), ElementsAre("lock quarantine", "unlink .tav-ID", "sync files", kRowSynced));
}

TEST_F(DurabilityTest, AStartThatEndsADeletionSyncsTheFolderBeforeTheRow) {
  const std::string path = write("victim");
  ASSERT_NO_FATAL_FAILURE(dieAt("set aside", [&] { store().quarantine().remove(requestFor(path)); }));
  EXPECT_THAT(callsOfAStart(), ElementsAre("lock quarantine", "unlink .tav-ID", "sync files", kRowSynced));
}

TEST_F(DurabilityTest, AStartThatFindsARestoreEndedSyncsTheFolderBeforeTheItemGoes) {
  const std::string uuid = take(write("victim"));
  ASSERT_NO_FATAL_FAILURE(dieAt("restored", [&] { restore(uuid); }));
  EXPECT_THAT(callsOfAStart(), ElementsAre("lock quarantine", "sync files", "rename ID.item to ID.gone",
                                           "sync quarantine", kRowSynced, "unlink ID.gone"));
}

TEST_F(DurabilityTest, AStartThatRevivesAnItemSyncsItsName) {
  const std::string uuid = take(write("victim"));
  ASSERT_NO_FATAL_FAILURE(dieAt("marked gone", [&] { restore(uuid); }));
  std::filesystem::remove(at("victim"));
  EXPECT_THAT(callsOfAStart(),
              ElementsAre("lock quarantine", "rename ID.gone to ID.item", "sync quarantine", kRowSynced));
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its restore had not ended")));
}

TEST_F(DurabilityTest, AStartWaitsForTheChildOfAnEarlierAgentBeforeItLooksAtAnything) {
  const std::string uuid = take(write("victim"));
  ASSERT_NO_FATAL_FAILURE(dieAt("restored", [&] { restore(uuid); }));
  FileCalls calls;
  calls.fail("lock quarantine", "", EWOULDBLOCK, 3);
  reopen();
  const auto seen = calls.seen();
  const auto lock = std::find(seen.begin(), seen.end(), "lock quarantine");
  EXPECT_LT(lock, std::find(seen.begin(), seen.end(), "sync files"));
  EXPECT_THAT(store().notices(), ElementsAre(HasSubstr("its restore had ended")));
}

// Calls that fail.

TEST_F(DurabilityTest, AnItemThatCannotBeSyncedLeavesTheOriginalAlone) {
  const std::string path = write("victim");
  FileCalls calls;
  calls.fail("sync", ".part", EIO);
  expectLeftAlone(path, add(path), "cannot sync the quarantine: Input/output error");
}

TEST_F(DurabilityTest, AnItemThatCannotBeWrittenLeavesTheOriginalAlone) {
  const std::string path = write("victim");
  FileCalls calls;
  calls.fail("write", ".part", EIO);
  expectLeftAlone(path, add(path), "cannot write into the quarantine: Input/output error");
}

TEST_F(DurabilityTest, ARowThatCannotBeSyncedLeavesTheOriginalAlone) {
  const std::string path = write("victim");
  {
    FileCalls calls;
    calls.fail("sync", "agent.db-wal", EIO);
    EXPECT_THAT(lineOf(add(path)), EndsWith("agent.db': disk I/O error")) << "no damage";
    EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  }
  EXPECT_EQ(testsupport::readFile(path), "a file that was detected");
}

TEST_F(DurabilityTest, AnItemThatCannotGetItsNameLeavesTheOriginalAlone) {
  const std::string path = write("victim");
  for (const auto& [begin, end] : {std::pair{"rename ", ".item"}, std::pair{"sync quarantine", ""}}) {
    FileCalls calls;
    calls.fail(begin, end, EIO);
    const auto result = add(path);
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr("cannot rename in the quarantine: Input/output error"));
    EXPECT_EQ(testsupport::readFile(path), "a file that was detected");
    EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
    EXPECT_EQ(vaultFiles().empty(), begin == std::string("rename "));
  }
}

struct FailingRestore {
  const char* name;
  const char* begin;
  const char* end;
  const char* why;
};
void PrintTo(const FailingRestore& failing, std::ostream* out) {
  *out << failing.name;
}
class FailingRestoreTest : public DurabilityTest, public testing::WithParamInterface<FailingRestore> {};
INSTANTIATE_TEST_SUITE_P(
    Calls, FailingRestoreTest,
    testing::Values(FailingRestore{"TheWrite", "write", "nameless", "cannot write"},
                    FailingRestore{"TheMode", "set mode of", "nameless", "mode cannot be given back"},
                    FailingRestore{"TheTimes", "set times of", "nameless", "times cannot be given back"},
                    FailingRestore{"TheSync", "sync", "nameless", "cannot be synced to disk"},
                    FailingRestore{"TheName", "link", "victim", "cannot give"}),
    [](const auto& failing) { return std::string(failing.param.name); });

TEST_P(FailingRestoreTest, LeavesTheItemAndNoFile) {
  const std::string uuid = take(write("victim"));
  {
    FileCalls calls;
    calls.fail(GetParam().begin, GetParam().end, EIO);
    const auto result = restore(uuid);
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr(GetParam().why));
  }
  EXPECT_THAT(namesIn(at("")), IsEmpty());
  EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item"));
  EXPECT_TRUE(restore(uuid));
}

TEST_F(DurabilityTest, ARestoredFileWhoseFolderCannotBeSyncedStandsBesideItsItem) {
  const std::string uuid = take(write("victim"));
  FileCalls calls;
  calls.fail("sync files", "", EIO);
  EXPECT_THAT(lineOf(restore(uuid)), HasSubstr("cannot be synced to disk: Input/output error"));
  EXPECT_THAT(namesIn(at("")), ElementsAre("victim"));
  EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item"));
}

TEST_F(DurabilityTest, ARestoreUnderAPrivateNameThatFailsTakesTheNameAway) {
  const std::string uuid = take(write("victim"));
  std::filesystem::create_directory(at("target"));
  before("file made", [&] { write("target/victim", "another file"); });
  FileCalls calls;
  calls.fail("create nameless", "", EOPNOTSUPP);
  EXPECT_THAT(lineOf(restore(uuid, root(), at("target"))), HasSubstr("exists already"));
  EXPECT_THAT(namesIn(at("target")), ElementsAre("victim"));
  EXPECT_EQ(testsupport::readFile(at("target/victim")), "another file");
}

TEST_F(DurabilityTest, AFilePlantedUnderThePrivateNameOfARestoreIsNotWritten) {
  const std::string uuid = take(write("victim"));
  const std::string planted = write(".tav-" + uuid, "planted");
  FileCalls calls;
  calls.fail("create nameless", "", EOPNOTSUPP);
  EXPECT_THAT(lineOf(restore(uuid)), HasSubstr("cannot write in"));
  EXPECT_EQ(testsupport::readFile(planted), "planted");
}

TEST_F(DurabilityTest, WhereARenameCannotSpareAnotherFileALinkDoesTheSame) {
  const std::string path = write("victim");
  FileCalls calls;
  calls.fail("rename victim", "", EINVAL);
  EXPECT_TRUE(add(path));
  EXPECT_THAT(calls.seen(),
              testing::IsSupersetOf({"link victim to .tav-ID", "unlink victim", "unlink .tav-ID"}));
  EXPECT_THAT(namesIn(at("")), IsEmpty());
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(DurabilityTest, AnOriginalThatCannotBeUnlinkedGetsItsNameBack) {
  const std::string path = write("victim");
  FileCalls calls;
  calls.fail("unlink .tav-", "", EPERM);
  expectLeftAlone(path, add(path), "cannot remove it: Operation not permitted");
}

}  // namespace
}  // namespace agent
