#include <grp.h>
#include <linux/securebits.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/xattr.h>

#include <csignal>
#include <fstream>

#include "QuarantineFixture.h"
#include "platform/Posix.h"
#include "store/RestorePlan.h"
#include "store/Sqlite.h"
#include "support/Capabilities.h"

namespace agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class RestoreTest : public QuarantineTest {
 protected:
  /// Quarantines a file of the second user.
  std::string takeOthers(const std::string& name, unsigned mode = 0644) {
    const std::string path = write(name, "their content");
    EXPECT_EQ(::chown(path.c_str(), kOther, kOther), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return take(path);
  }
  void giveFolderToOther(const std::string& name) {
    std::filesystem::create_directories(at(name));
    ASSERT_EQ(::chown(at(name).c_str(), kOther, kOther), 0);
  }
  void expectKept(const platform::Expected<Remark>& result, const std::string& uuid, const std::string& why) {
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr(why));
    ASSERT_EQ(items().size(), 1U);
    EXPECT_EQ(items()[0]["uuid"], uuid);
    EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item"));
  }
};

TEST_F(RestoreTest, ContentOwnerGroupModeTimesAndAttributesAreAsBefore) {
  const std::string path = writeRich("rich");
  const FileFacts before = FileFacts::of(path);
  ASSERT_EQ(before.attributes.count("security.capability"), 1U);
  const std::string uuid = take(path);
  EXPECT_EQ(lineOf(restore(uuid)), "");
  EXPECT_EQ(FileFacts::of(path), before);
  EXPECT_THAT(items(), IsEmpty());
  EXPECT_THAT(vaultFiles(), IsEmpty());
  EXPECT_THAT(namesIn(at("")), ElementsAre("rich"));
}

TEST_F(RestoreTest, ItComesBackAfterARestartOfTheAgent) {
  const std::string path = writeRich("rich");
  const FileFacts before = FileFacts::of(path);
  const std::string uuid = take(path);
  reopen();
  EXPECT_TRUE(restore(uuid));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(RestoreTest, AnExistingFileIsNeverOverwritten) {
  const std::string path = write("a", "old");
  const std::string uuid = take(path);
  write("a", "new");
  expectKept(restore(uuid), uuid, "exists already");
  EXPECT_EQ(testsupport::readFile(path), "new");
}

TEST_F(RestoreTest, AFileThatAppearsAtTheLastMomentIsNotOverwritten) {
  const std::string path = write("a", "old");
  const std::string uuid = take(path);
  before("file made", [&] { write("a", "new"); });
  expectKept(restore(uuid), uuid, "exists already");
  EXPECT_EQ(testsupport::readFile(path), "new");
  EXPECT_THAT(namesIn(at("")), ElementsAre("a"));
}

TEST_F(RestoreTest, ALinkThatLeadsNowhereIsAnExistingFileToo) {
  const std::string path = write("a", "old");
  const std::string uuid = take(path);
  ASSERT_EQ(::symlink(folder_.at("elsewhere").c_str(), path.c_str()), 0);
  expectKept(restore(uuid), uuid, "exists already");
  EXPECT_FALSE(std::filesystem::exists(folder_.at("elsewhere")));
}

TEST_F(RestoreTest, AnItemIsRestoredOnce) {
  const std::string uuid = take(write("a"));
  EXPECT_TRUE(restore(uuid));
  EXPECT_EQ(lineOf(restore(uuid)), "there is no such item");
}

TEST_F(RestoreTest, AnUnknownUuidIsRefused) {
  for (const char* uuid : {"", "x", "../../etc/passwd", "00000000-0000-0000-0000-000000000000"}) {
    EXPECT_EQ(lineOf(restore(uuid)), "there is no such item");
  }
}

TEST_F(RestoreTest, AFolderThatIsGoneIsAClearRefusal) {
  const std::string uuid = take(write("sub/a"));
  std::filesystem::remove(at("sub"));
  expectKept(restore(uuid), uuid, "the folder '" + at("sub") + "' is not there");
}

TEST_F(RestoreTest, AnotherFolderCanBeGiven) {
  const std::string path = write("sub/a", "content");
  const std::string uuid = take(path);
  std::filesystem::create_directory(at("target"));
  EXPECT_TRUE(restore(uuid, root(), at("/target//")));
  EXPECT_EQ(testsupport::readFile(at("target/a")), "content");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(RestoreTest, AnotherFolderMustBeAbsolute) {
  const std::string uuid = take(write("a"));
  expectKept(restore(uuid, root(), "relative/folder"), uuid, "'relative/folder' is not an absolute path");
  EXPECT_EQ(lineOf(restore(uuid, root(), "relative")), "'relative' is not an absolute path");
}

TEST_F(RestoreTest, AnotherFolderIsTakenByItsText) {
  const std::string uuid = take(write("a", "content"));
  std::filesystem::create_directory(at("target"));
  EXPECT_TRUE(restore(uuid, root(), at("/./target/absent/.."), true));
  EXPECT_EQ(testsupport::readFile(at("target/a")), "content");
  EXPECT_EQ(store().regions().byPath(at("target/a")), RegionVerdict::kTrusted);
}

TEST_F(RestoreTest, AFileThatCouldNotBeTrustedIsRestoredAndThatIsSaid) {
  const std::string path = write("a", "content");
  const std::string uuid = take(path);
  sql("CREATE TRIGGER refuse BEFORE INSERT ON regions BEGIN SELECT RAISE(ABORT,'refused'); END");
  const auto result = restore(uuid, root(), "", true);
  EXPECT_FALSE(result);
  EXPECT_THAT(lineOf(result), testing::StartsWith("restored, but not trusted: "));
  EXPECT_EQ(testsupport::readFile(path), "content");
  EXPECT_THAT(items(), IsEmpty());
}

TEST_F(RestoreTest, TheQuarantineIsMarkedBusyWhileAChildIsAtWorkAndNoLonger) {
  const std::string uuid = take(write("a"));
  const std::string vault = stateDir() + "/quarantine";
  const auto isFree = [vault] {
    const platform::Descriptor folder(::open(vault.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
  };
  EXPECT_TRUE(isFree());
  before("file made", [isFree] {
    if (isFree()) {
      ::_exit(1);
    }
  });
  EXPECT_TRUE(restore(uuid));
  EXPECT_TRUE(isFree());
}

TEST_F(RestoreTest, TimesBefore1970AreAsBefore) {
  const std::string path = write("a");
  const timespec times[2] = {{-1'000'000'001, 123'456'789}, {-5, 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  const FileFacts before = FileFacts::of(path);
  EXPECT_TRUE(restore(take(path)));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(RestoreTest, AnAccessListThatTheFolderGivesIsTakenOff) {
  std::filesystem::create_directory(at("sub"));
  const std::string uuid = take(write("sub/a"));
  // Version 2; owner, user 4242, group, mask, others: tag, rights, id.
  const std::uint32_t list[] = {2, 0x70001, ~0U, 0x60002, 4242, 0x50004, ~0U, 0x70010, ~0U, 0x40020, ~0U};
  ASSERT_EQ(::setxattr(at("sub").c_str(), "system.posix_acl_default", list, sizeof list, 0), 0);
  EXPECT_TRUE(restore(uuid));
  EXPECT_THAT(FileFacts::of(at("sub/a")).attributes, IsEmpty());
}

TEST_F(RestoreTest, TrustAddsThePathToTheTrustRegion) {
  const std::string trusted = write("trusted"), other = write("other");
  EXPECT_TRUE(restore(take(trusted), root(), "", true));
  EXPECT_TRUE(restore(take(other), root(), "", false));
  EXPECT_EQ(store().regions().byPath(trusted), RegionVerdict::kTrusted);
  EXPECT_EQ(store().regions().byPath(other), RegionVerdict::kNone);
  const Json::Value entries =
      store().regions().list(json::RegionDomain::kEvery, json::RegionItemType::kFile, json::Region::kTrust);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0]["item"], trusted);
  EXPECT_EQ(entries[0]["exist_state"], 1);
}

TEST_F(RestoreTest, TrustWithAnotherFolderTrustsThePathThere) {
  const std::string path = write("a");
  std::filesystem::create_directory(at("target"));
  EXPECT_TRUE(restore(take(path), root(), at("target"), true));
  EXPECT_EQ(store().regions().byPath(at("target/a")), RegionVerdict::kTrusted);
  EXPECT_EQ(store().regions().byPath(path), RegionVerdict::kNone);
}

TEST_F(RestoreTest, ARefusedRestoreTrustsNothing) {
  const std::string path = write("a");
  const std::string uuid = take(path);
  write("a", "new");
  EXPECT_FALSE(restore(uuid, root(), "", true));
  EXPECT_EQ(store().regions().byPath(path), RegionVerdict::kNone);
}

TEST_F(RestoreTest, AFileFoundThroughALinkedFolderGoesBackToItsRealOneAndIsTrustedByBothPaths) {
  std::filesystem::create_directory(at("real"));
  ASSERT_EQ(::symlink(at("real").c_str(), at("linked").c_str()), 0);
  write("real/a", "content");
  const std::string uuid = take(at("linked/a"));
  EXPECT_FALSE(std::filesystem::exists(at("real/a")));
  EXPECT_TRUE(restore(uuid, root(), "", true));
  EXPECT_EQ(testsupport::readFile(at("real/a")), "content");
  EXPECT_EQ(store().regions().byPath(at("linked/a")), RegionVerdict::kTrusted);
  EXPECT_EQ(store().regions().byPath(at("real/a")), RegionVerdict::kTrusted);
}

TEST_F(RestoreTest, AllRestoresEveryItemAndReportsEach) {
  for (const char* name : {"a", "b", "c"}) {
    take(write(name));
  }
  write("b", "in the way");
  const auto outcomes = store().quarantine().restore({"ignored"}, true, false, "", root());
  ASSERT_EQ(outcomes.size(), 3U);
  EXPECT_TRUE(outcomes[0].result);
  EXPECT_FALSE(outcomes[1].result);
  EXPECT_TRUE(outcomes[2].result);
  EXPECT_EQ(items().size(), 1U);
}

class DamageTest : public RestoreTest, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Places, DamageTest, testing::Range(0, 40));

TEST_P(DamageTest, ACorruptedItemIsRefusedClearlyAndWritesNothing) {
  const std::string uuid = take(write("a", "some content that is long enough to be in several places"));
  const std::string file = stateDir() + "/quarantine/" + uuid + ".item";
  std::string bytes = testsupport::readFile(file);
  const std::size_t place = bytes.size() * static_cast<std::size_t>(GetParam()) / 40;
  bytes[place] = static_cast<char>(bytes[place] ^ 0x55);
  std::ofstream(file, std::ios::binary) << bytes;
  expectKept(restore(uuid), uuid, "is damaged");
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(RestoreTest, AnItemCutShortAnywhereIsRefusedClearly) {
  const std::string uuid = take(write("a", std::string(3000, 'a') + "b"));
  const std::string file = stateDir() + "/quarantine/" + uuid + ".item";
  const std::string bytes = testsupport::readFile(file);
  for (std::size_t size = 0; size < bytes.size(); size += 37) {
    std::ofstream(file, std::ios::binary) << bytes.substr(0, size);
    expectKept(restore(uuid), uuid, "is damaged");
  }
  EXPECT_THAT(namesIn(at("")), IsEmpty());
  std::ofstream(file, std::ios::binary) << bytes;
  EXPECT_TRUE(restore(uuid));
}

/// The item is undamaged, but its record has another content.
TEST_F(RestoreTest, ContentThatIsNotWhatTheRecordSaysIsRefusedAndWritesNothing) {
  const std::string uuid = take(write("a", "content"));
  store_.reset();
  sql("UPDATE items SET meta=CAST(json_set(CAST(meta AS TEXT),'$.sha256',printf('%064d',0)) AS BLOB)");
  reopen();
  expectKept(restore(uuid), uuid, "is damaged: its content was changed");
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(RestoreTest, ContentThatIsLongerThanTheRecordSaysIsRefusedAndWritesNothing) {
  const std::string uuid = take(write("a", "content"));
  store_.reset();
  sql("UPDATE items SET meta=CAST(json_set(CAST(meta AS TEXT),'$.size',3) AS BLOB)");
  reopen();
  EXPECT_FALSE(restore(uuid));
  EXPECT_THAT(namesIn(at("")), IsEmpty());
  EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item"));
}

TEST_F(RestoreTest, AnItemWhoseFileIsStillBeingRemovedIsNotThereYet) {
  const std::string path = write("a");
  std::filesystem::create_directory(at("target"));
  for (const char* step : {"recorded", "named", "removed"}) {
    before(step, [&] {
      const std::string file = vaultFiles().at(0);
      const std::string uuid = file.substr(0, file.rfind('.'));
      EXPECT_EQ(lineOf(restore(uuid, root(), at("target"))), "there is no such item") << step;
      EXPECT_THAT(items(), IsEmpty()) << step;
    });
    const std::string uuid = take(path);
    EXPECT_THAT(namesIn(at("target")), IsEmpty()) << step;
    EXPECT_TRUE(restore(uuid)) << step;
  }
}

TEST_F(RestoreTest, AnItemIsListedUntilItsFileIsBack) {
  const std::string uuid = take(write("a"));
  before("content sent", [&] { EXPECT_EQ(uuidOf(at("a")), uuid); });
  EXPECT_TRUE(restore(uuid));
  EXPECT_EQ(uuidOf(at("a")), "");
}

TEST_F(RestoreTest, ARefusedRestoreIsOverAndTheNextStartDoesNotSettleIt) {
  const std::string path = write("a", "content");
  const std::string uuid = take(path);
  write("a", "content");
  expectKept(restore(uuid), uuid, "exists already");
  reopen();
  EXPECT_THAT(store().notices(), IsEmpty());
  EXPECT_EQ(uuidOf(path), uuid) << "the file that stood there is not the one that was restored";
}

TEST_F(RestoreTest, AnItemThatBecameALinkIsNotFollowed) {
  const std::string uuid = take(write("a"));
  const std::string file = stateDir() + "/quarantine/" + uuid + ".item";
  std::filesystem::rename(file, folder_.at("elsewhere"));
  std::filesystem::create_symlink(folder_.at("elsewhere"), file);
  EXPECT_THAT(lineOf(restore(uuid)), HasSubstr("cannot be opened"));
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST(RestorePlan, WithoutAnAbsoluteFolderOrANameIsNone) {
  store::RestorePlan plan{.folder = "/folder", .name = "name", .trusted = {"/a"}, .caller = 7};
  const auto read = store::RestorePlan::fromText(plan.toText());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->path(), "/folder/name");
  EXPECT_EQ(read->caller, 7U);
  plan.name.clear();
  EXPECT_FALSE(store::RestorePlan::fromText(plan.toText()));
  plan = {.folder = "folder", .name = "name", .trusted = {}, .caller = 0};
  EXPECT_FALSE(store::RestorePlan::fromText(plan.toText()));
}

TEST(RestorePlan, KeepsPathsOfAnyBytes) {
  const store::RestorePlan plan{
      .folder = "/a\xff\n\x80", .name = "\xfe 'x", .trusted = {"/t\xff", "/\x80"}, .caller = 0};
  const auto read = store::RestorePlan::fromText(plan.toText());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->folder, plan.folder);
  EXPECT_EQ(read->name, plan.name);
  EXPECT_EQ(read->trusted, plan.trusted);
}

TEST_F(RestoreTest, ADamagedRecordIsRefusedClearly) {
  const std::string uuid = take(write("a"));
  store_.reset();
  sql("UPDATE items SET meta='{}'");
  reopen();
  EXPECT_EQ(lineOf(restore(uuid)), "is damaged: its record cannot be read");
  EXPECT_THAT(items(), IsEmpty());
}

TEST_F(RestoreTest, ARestoringProcessThatDiesLosesNothing) {
  const std::string uuid = take(write("a"));
  const pid_t agent = ::getpid();
  store::stepHook = [agent](const char*) {
    if (::getpid() != agent) {
      ::raise(SIGKILL);
    }
  };
  const auto result = restore(uuid);
  store::stepHook = nullptr;
  EXPECT_EQ(lineOf(result), "the restoring process died");
  EXPECT_EQ(items().size(), 1U);
}

// A second user.

TEST_F(RestoreTest, AUserGetsAnOwnFileBackIntoAnOwnFolder) {
  giveFolderToOther("home");
  const std::string path = write("home/a", "their content");
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  const FileFacts before = FileFacts::of(path);
  EXPECT_EQ(lineOf(restore(take(path), other())), "");
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(RestoreTest, AUserDoesNotGetAnothersFile) {
  const std::string path = write("a");
  ASSERT_EQ(::chmod(at("").c_str(), 0777), 0);
  const std::string uuid = take(path);
  expectKept(restore(uuid, other()), uuid, "the file was not the caller's");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(RestoreTest, WhatAUserTrustsIsAddedInTheUsersName) {
  giveFolderToOther("home");
  const std::string uuid = takeOthers("home/a");
  EXPECT_TRUE(restore(uuid, other(), "", true));
  EXPECT_EQ(store::Database(stateDir() + "/agent.db", store::Durability::kFull)
                .number("SELECT added_by FROM regions"),
            std::int64_t{kOther});
}

TEST_F(RestoreTest, AllMeansForAUserTheItemsOfThatUser) {
  ASSERT_EQ(::chmod(at("").c_str(), 0777), 0);
  take(write("roots"));
  takeOthers("theirs");
  const auto outcomes = store().quarantine().restore({}, true, false, "", other());
  ASSERT_EQ(outcomes.size(), 1U);
  EXPECT_TRUE(outcomes[0].result) << lineOf(outcomes[0].result);
  EXPECT_TRUE(std::filesystem::exists(at("theirs")));
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(RestoreTest, AFolderThatTheUserCannotWriteIsRefusedEvenForTheUsersFile) {
  const std::string uuid = takeOthers("a");
  expectKept(restore(uuid, other()), uuid,
             "cannot write in '" + folder_.at("files") + "': Permission denied");
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(RestoreTest, ATargetInARootOwnedFolderIsRefused) {
  giveFolderToOther("home");
  const std::string uuid = takeOthers("home/a");
  std::filesystem::create_directory(at("roots"));
  expectKept(restore(uuid, other(), at("roots")), uuid, "Permission denied");
  EXPECT_THAT(namesIn(at("roots")), IsEmpty());
}

TEST_F(RestoreTest, AFolderThatTheUserCannotEnterIsRefused) {
  giveFolderToOther("closed/home");
  ASSERT_EQ(::chmod(at("closed").c_str(), 0700), 0);
  const std::string uuid = takeOthers("closed/home/a");
  expectKept(restore(uuid, other()), uuid, "Permission denied");
}

TEST_F(RestoreTest, AGroupOfTheCallersGivesTheRightToWrite) {
  const std::string uuid = takeOthers("shared/a");
  ASSERT_EQ(::chown(at("shared").c_str(), 0, 4242), 0);
  ASSERT_EQ(::chmod(at("shared").c_str(), 0770), 0);
  expectKept(restore(uuid, other()), uuid, "Permission denied");
  CallerId member = other();
  member.groups.push_back(4242);
  EXPECT_TRUE(restore(uuid, member));
  EXPECT_EQ(FileFacts::of(at("shared/a")).gid, kOther);
}

TEST_F(RestoreTest, AGroupThatIsNotTheCallersCannotBeGivenBack) {
  giveFolderToOther("home");
  const std::string path = write("home/a");
  ASSERT_EQ(::chown(path.c_str(), kOther, 4242), 0);
  const std::string uuid = take(path);
  expectKept(restore(uuid, other()), uuid, "its group 4242 is none of the caller's");
  EXPECT_THAT(namesIn(at("home")), IsEmpty());
  CallerId member = other();
  member.groups.push_back(4242);
  EXPECT_TRUE(restore(uuid, member));
  EXPECT_EQ(FileFacts::of(path).gid, 4242U);
}

TEST_F(RestoreTest, TheGroupThatACallerActsInIsTheCallersOwn) {
  giveFolderToOther("home");
  const std::string path = write("home/a");
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  const std::string uuid = take(path);
  std::filesystem::create_directory(at("roots"));
  ASSERT_EQ(::chmod(at("roots").c_str(), 0775), 0);
  const CallerId alone{.uid = kOther, .gid = kOther, .groups = {}, .pid = 2};
  expectKept(restore(uuid, alone, at("roots")), uuid, "Permission denied");
  EXPECT_TRUE(restore(uuid, alone));
  EXPECT_EQ(FileFacts::of(path).gid, kOther);
}

TEST_F(RestoreTest, TheGroupsOfTheAgentAreNotTheCallers) {
  const std::string uuid = takeOthers("shared/a");
  ASSERT_EQ(::chown(at("shared").c_str(), 0, 4242), 0);
  ASSERT_EQ(::chmod(at("shared").c_str(), 0770), 0);
  EXPECT_EQ(inChild([&] {
              const gid_t group = 4242;
              ASSERT_EQ(::setgroups(1, &group), 0);
              expectKept(restore(uuid, other()), uuid, "Permission denied");
            }),
            0);
}

/// A change of the user keeps the capabilities of such a process.
TEST_F(RestoreTest, TheCapabilitiesOfTheAgentAreNotTheCallers) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer has a thread in the restoring process whose rights differ";
#endif
  const std::string uuid = takeOthers("closed/a");
  ASSERT_EQ(::chmod(at("closed").c_str(), 0755), 0);
  EXPECT_EQ(inChild([&] {
              ASSERT_EQ(::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP), 0);
              expectKept(restore(uuid, other()), uuid, "Permission denied");
            }),
            0);
}

TEST_F(RestoreTest, ForAUserWhoseRightsTheAgentCannotTakeNothingIsRestored) {
  giveFolderToOther("home");
  const std::string uuid = takeOthers("home/a");
  for (const unsigned capability : {CAP_SETUID, CAP_SETGID}) {
    EXPECT_EQ(inChild([&] {
                testsupport::giveUp(capability);
                expectKept(restore(uuid, other()), uuid,
                           "cannot act for user 65534: Operation not permitted");
              }),
              0);
  }
  EXPECT_THAT(namesIn(at("home")), IsEmpty());
}

TEST_F(RestoreTest, SetuidSetgidAndCapabilitiesComeBackForRootOnly) {
  giveFolderToOther("home");
  const std::string path = writeRich("home/a");
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  ASSERT_EQ(::chmod(path.c_str(), 06755), 0);
  const unsigned char capability[] = {1, 0, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(::setxattr(path.c_str(), "security.capability", capability, sizeof capability, 0), 0);
  const FileFacts before = FileFacts::of(path);
  const auto restored = restore(take(path), other());
  EXPECT_TRUE(restored);
  EXPECT_EQ(lineOf(restored),
            "setuid and setgid were left out; 1 extended attribute(s) could not be given back");
  EXPECT_EQ(FileFacts::of(path).mode, 0755U);
  EXPECT_EQ(FileFacts::of(path).attributes.count("security.capability"), 0U);
  EXPECT_EQ(FileFacts::of(path).attributes.count("user.origin"), 1U);

  std::filesystem::remove(path);
  writeRich("home/a");
  const FileFacts again = FileFacts::of(path);
  EXPECT_EQ(lineOf(restore(take(path))), "");
  EXPECT_EQ(FileFacts::of(path), again);
  EXPECT_EQ(before.attributes, again.attributes);
}

TEST_F(RestoreTest, AnAgentThatIsNotRootServesItsOwnUserOnly) {
  testsupport::TempDir place;
  ASSERT_EQ(::chown(place.path().c_str(), kOther, kOther), 0);
  ASSERT_EQ(::chown(place.write("strangers", "content").c_str(), 4711, 4711), 0);
  const int status = inChild([&] {
    ASSERT_EQ(::setgroups(0, nullptr), 0);
    ASSERT_EQ(::setresgid(kOther, kOther, kOther), 0);
    ASSERT_EQ(::setresuid(kOther, kOther, kOther), 0);
    const auto mine = Store::open(place.at("state"));
    const std::string path = place.write("a", "content");
    const FileFacts facts = FileFacts::of(path);
    ASSERT_TRUE(mine->quarantine().add(requestFor(path)));
    const std::string uuid = mine->quarantine().list(std::nullopt)[0]["uuid"].asString();
    const CallerId stranger{.uid = 4711, .gid = 4711, .groups = {}, .pid = 1};
    EXPECT_FALSE(mine->quarantine().restore({uuid}, false, false, "", stranger)[0].result);
    EXPECT_TRUE(mine->quarantine().restore({uuid}, false, false, "", other())[0].result);
    EXPECT_EQ(FileFacts::of(path), facts);
    // Another user's file in that user's folder: this agent can quarantine but not restore it.
    ASSERT_TRUE(mine->quarantine().add(requestFor(place.at("strangers"))));
    const std::string theirs = mine->quarantine().list(4711)[0]["uuid"].asString();
    EXPECT_EQ(lineOf(mine->quarantine().restore({theirs}, false, false, "", stranger)[0].result),
              "the agent does not run as root and cannot act for another user");
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace agent
