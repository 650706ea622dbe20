#include <sys/mount.h>
#include <sys/xattr.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "QuarantineFixture.h"
#include "engine/Digest.h"
#include "json/Values.h"
#include "platform/Posix.h"
#include "store/ItemFile.h"
#include "support/FileCalls.h"
#include "support/Mounts.h"

namespace agent {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

std::string md5Of(const std::string& content) {
  Digest digest(Digest::Kind::kMd5);
  digest.add(content.data(), content.size());
  return digest.hex();
}

class AddTest : public QuarantineTest {
 protected:
  /// The file is refused for that reason, and the store is empty.
  void expectRefused(const platform::Expected<Remark>& result, const std::string& why) {
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr(why));
    EXPECT_EQ(lineOf(result).find('\n'), std::string::npos);
    EXPECT_THAT(items(), IsEmpty());
    EXPECT_THAT(vaultFiles(), IsEmpty());
  }
};

TEST_F(AddTest, AFileGoesInAndIsListedWithAllFieldsOfItsRecord) {
  const std::string path = writeRich("a.bin");
  const std::string content = testsupport::readFile(path);
  const std::int64_t start = platform::nowSec();
  EXPECT_EQ(lineOf(add(path)), "");
  EXPECT_FALSE(std::filesystem::exists(path));
  ASSERT_EQ(items().size(), 1U);
  const Json::Value item = items()[0];
  EXPECT_EQ(item["filemd5_repaired"], "");
  EXPECT_EQ(item["uid"], 1234);
  EXPECT_EQ(item["gid"], 5678);
  EXPECT_EQ(item["mode"], 06751);
  EXPECT_EQ(item["filetype_src"], "bin");
  EXPECT_EQ(item["filemd5_src"], md5Of(content));
  EXPECT_EQ(item["filepath_src"], path);
  EXPECT_EQ(item["size"], Json::Int64(content.size()));
  EXPECT_EQ(item["virus_name"], "Test.Detection");
  EXPECT_EQ(item["engine_type"], json::kEngineRda);
  EXPECT_EQ(item["risk_type"], json::toNumber(json::RiskType::kTestFile));
  EXPECT_EQ(item["risk_type_name"], "测试");
  EXPECT_EQ(item["uuid"].asString().size(), 36U);
  EXPECT_GE(item["isolate_time"].asInt64(), start);
  EXPECT_LE(item["isolate_time"].asInt64(), platform::nowSec());
  EXPECT_EQ(item.size(), 14U);
}

TEST_F(AddTest, ItemsAreListedOldestFirstAndOverARestart) {
  for (const char* name : {"c", "a", "b"}) {
    take(write(name));
  }
  reopen();
  ASSERT_EQ(items().size(), 3U);
  EXPECT_EQ(items()[0]["filepath_src"], at("c"));
  EXPECT_EQ(items()[2]["filepath_src"], at("b"));
}

TEST_F(AddTest, TheListForAnOwnerHoldsThatOwnersItems) {
  const std::string path = write("theirs");
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  take(path);
  take(write("roots"));
  EXPECT_EQ(store().quarantine().list(kOther).size(), 1U);
  EXPECT_EQ(store().quarantine().list(kOther)[0]["filepath_src"], path);
  EXPECT_EQ(store().quarantine().list(4711).size(), 0U);
}

TEST_F(AddTest, TheStoreHoldsNoPlainContentAndOnlyItsUserCanReadIt) {
  const std::string secret = "X5-a-text-that-would-be-found-X5";
  take(write("plain", secret));
  EXPECT_EQ(std::filesystem::status(stateDir() + "/quarantine").permissions(), std::filesystem::perms(0700));
  ASSERT_EQ(vaultFiles().size(), 1U);
  const std::string file = stateDir() + "/quarantine/" + vaultFiles()[0];
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  const std::string stored = testsupport::readFile(file);
  EXPECT_EQ(stored.find(secret), std::string::npos);
  EXPECT_EQ(stored.find("plain"), std::string::npos);
  EXPECT_TRUE(stored.starts_with("TAVQITM1"));
}

TEST_F(AddTest, ContentIsStoredCompressed) {
  take(write("zeros", std::string(5 << 20, '\0')));
  EXPECT_LT(std::filesystem::file_size(stateDir() + "/quarantine/" + vaultFiles()[0]), 100'000U);
}

TEST_F(AddTest, TheTypeComesFromTheBeginningOfALongFile) {
  std::string content =
      "\x7f"
      "ELF" +
      std::string((1 << 16) - 4, 'x') + "MZ";
  take(write("long", content));
  EXPECT_EQ(items()[0]["filetype_src"], "ELF");
}

TEST_F(AddTest, AttributesOfAnyNumberAndLengthComeBack) {
  const std::string path = write("many");
  for (int i = 0; i < 12; ++i) {
    const std::string name = "user." + std::string(95, 'n') + std::to_string(i);
    ASSERT_EQ(::setxattr(path.c_str(), name.c_str(), "v", 1, 0), 0);
  }
  ASSERT_EQ(::setxattr(path.c_str(), "user.\xff\n\x80", std::string(1000, 'v').data(), 1000, 0), 0);
  const FileFacts before = FileFacts::of(path);
  ASSERT_EQ(before.attributes.size(), 13U);
  EXPECT_TRUE(restore(take(path)));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(AddTest, AFileSystemWithoutAttributesIsNoReasonToRefuse) {
  const std::string path = write("plain", "content");
  testsupport::FileCalls calls;
  calls.fail("list attributes", "", ENOTSUP);
  EXPECT_TRUE(restore(take(path)));
}

TEST_F(AddTest, AttributesThatCannotBeReadAreAReasonToRefuse) {
  const std::string path = write("plain", "content");
  testsupport::FileCalls calls;
  calls.fail("list attributes", "", EIO);
  expectRefused(add(path), "cannot read its attributes: Input/output error");
}

TEST_F(AddTest, AnItemInAnUnknownStateIsADamagedStore) {
  take(write("file"));
  store_.reset();
  for (const char* state : {"-1", "3"}) {
    sql(("UPDATE items SET state=" + std::string(state)).c_str());
    EXPECT_THROW(reopen(), std::runtime_error) << state;
  }
}

TEST_F(AddTest, AnItemWhoseRowCannotBeCompletedIsCompletedAtTheNextStart) {
  const std::string path = write("file", "content");
  sql("CREATE TRIGGER refuse BEFORE UPDATE ON items BEGIN SELECT RAISE(ABORT,'refused'); END");
  const auto result = add(path);
  EXPECT_TRUE(result);
  EXPECT_THAT(lineOf(result), HasSubstr("its record is completed at the next start"));
  EXPECT_FALSE(std::filesystem::exists(path));
  sql("DROP TRIGGER refuse");
  reopen();
  EXPECT_TRUE(restore(uuidOf(path)));
  EXPECT_EQ(testsupport::readFile(path), "content");
}

TEST_F(AddTest, AnEmptyFileGoesInAndComesBack) {
  const std::string path = write("empty", "");
  const FileFacts before = FileFacts::of(path);
  EXPECT_TRUE(restore(take(path)));
  EXPECT_EQ(FileFacts::of(path), before);
}

TEST_F(AddTest, AFileOfSeveralMegabytesGoesInAndComesBack) {
  const std::string content = testsupport::noise(7'000'001);
  const std::string path = write("large", content);
  EXPECT_TRUE(restore(take(path)));
  EXPECT_EQ(testsupport::readFile(path), content);
}

TEST_F(AddTest, ANameOfAnyBytesGoesInIsListedAndComesBack) {
  const std::string name = "a\xff\n\x1b[2J\xe6\x96\x87 'x";
  const std::string path = write(name, "content");
  const std::string uuid = take(path);
  EXPECT_EQ(uuid, items()[0]["uuid"].asString());
  EXPECT_EQ(json::decodePath(items()[0]["filepath_src"].asString()), path);
  EXPECT_TRUE(restore(uuidOf(path)));
  EXPECT_EQ(testsupport::readFile(path), "content");
}

TEST_F(AddTest, ADescriptorIsEnoughAndStaysTheCallers) {
  const std::string path = write("by-descriptor", "content");
  QuarantineRequest request = requestFor(path);
  const platform::Descriptor fd(::open(path.c_str(), O_RDONLY));
  char byte = 0;
  ASSERT_EQ(::read(fd.get(), &byte, 1), 1);
  request.fd = fd.get();
  EXPECT_TRUE(store().quarantine().add(request));
  EXPECT_EQ(::lseek(fd.get(), 0, SEEK_CUR), 1);
  EXPECT_TRUE(restore(uuidOf(path)));
  EXPECT_EQ(testsupport::readFile(path), "content");
}

TEST_F(AddTest, AFileWithAnotherNameGoesInAndTheOtherNameIsSaidToRemain) {
  const std::string path = write("one");
  std::filesystem::create_hard_link(path, at("two"));
  const auto result = add(path);
  EXPECT_TRUE(result);
  EXPECT_EQ(lineOf(result), "the same file still stands under 1 other name(s)");
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(std::filesystem::exists(at("two")));
}

TEST_F(AddTest, TheOtherNameGoesInTooWhenTheHashProvesTheContent) {
  const std::string path = write("one", "content");
  std::filesystem::create_hard_link(path, at("two"));
  QuarantineRequest second = requestFor(at("two"));
  add(path);
  EXPECT_EQ(lineOf(store().quarantine().add(second)), "it was changed after it was scanned");
  second.md5 = md5Of("content");
  EXPECT_TRUE(store().quarantine().add(second));
  EXPECT_EQ(items().size(), 2U);
}

TEST_F(AddTest, AnotherFileThanScannedIsNotHandledThoughItsHashIsTheSame) {
  const std::string path = write("one", "content");
  for (const auto& member : {&FileIdentity::device, &FileIdentity::inode, &FileIdentity::size}) {
    QuarantineRequest request = requestFor(path);
    request.md5 = md5Of("content");
    request.identity.*member += 1;
    expectRefused(store().quarantine().add(request), "changed after it was scanned");
  }
  QuarantineRequest request = requestFor(path);
  request.md5 = md5Of("content");
  request.identity.modifyTimeNs += 1;
  expectRefused(store().quarantine().add(request), "changed after it was scanned");
}

/// A deletion does not read the file again: nothing would prove the content.
TEST_F(AddTest, AFileOfWhichOnlyTheChangeTimeDiffersIsNotDeletedWhateverHashIsGiven) {
  const std::string path = write("one", "scanned");
  QuarantineRequest request = requestFor(path);
  request.md5 = md5Of("scanned");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  std::ofstream(path) << "another";
  const timespec times[2] = {st.st_atim, st.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  EXPECT_EQ(lineOf(store().quarantine().remove(request)), "it was changed after it was scanned");
  EXPECT_EQ(testsupport::readFile(path), "another");
}

TEST_F(AddTest, AFileThatIsGoneIsNotHandled) {
  const std::string path = write("gone");
  const QuarantineRequest request = requestFor(path);
  std::filesystem::remove(path);
  expectRefused(store().quarantine().add(request), "no longer there");
}

TEST_F(AddTest, AFileThatIsGoneButStillOpenIsNotHandled) {
  const std::string path = write("gone");
  QuarantineRequest request = requestFor(path);
  const platform::Descriptor fd(::open(path.c_str(), O_RDONLY));
  request.fd = fd.get();
  std::filesystem::remove(path);
  struct stat st {};
  ASSERT_EQ(::fstat(fd.get(), &st), 0);
  request.identity = FileIdentity::of(st);
  expectRefused(store().quarantine().add(request), "no longer there");
}

TEST_F(AddTest, AFileThatIsGoneButStillOpenIsNotCopiedFirst) {
  const std::string path = write("gone");
  const platform::Descriptor fd(::open(path.c_str(), O_RDONLY));
  std::filesystem::rename(write("another"), path);
  QuarantineRequest request;
  request.path = path;
  request.fd = fd.get();
  struct stat st {};
  ASSERT_EQ(::fstat(fd.get(), &st), 0);
  request.identity = FileIdentity::of(st);
  bool opened = false;
  before("opened", [&] { opened = true; });
  expectRefused(store().quarantine().add(request), "no longer there");
  EXPECT_FALSE(opened);
}

TEST_F(AddTest, ADescriptorOfNoRegularFileIsNotHandled) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  for (const std::string& path : {at("pipe"), at("")}) {
    const platform::Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    QuarantineRequest request = requestFor(path);
    request.fd = fd.get();
    expectRefused(store().quarantine().add(request), "it is not a regular file");
  }
  QuarantineRequest request = requestFor(at("pipe"));
  request.fd = 9999;
  expectRefused(store().quarantine().add(request), "its descriptor is no good");
}

TEST_F(AddTest, AFileWhosePathIsLongerThanTheKernelGivesIsNotHandled) {
  std::filesystem::create_directory(at("deep"));
  platform::Descriptor folder(::open(at("deep").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < 17; ++i) {
    const std::string name(250, 'd');
    ASSERT_EQ(::mkdirat(folder.get(), name.c_str(), 0700), 0);
    folder.reset(::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  const platform::Descriptor fd(::openat(folder.get(), "file", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  struct stat st {};
  ASSERT_EQ(::fstat(fd.get(), &st), 0);
  QuarantineRequest request;
  request.fd = fd.get();
  request.identity = FileIdentity::of(st);
  expectRefused(store().quarantine().add(request), "where it is cannot be told");
}

TEST_F(AddTest, WhatIsOpenWhileAFileIsHandledIsNotInherited) {
  const std::string path = write("file");
  int seen = 0;
  before("copied", [&] {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      const std::string target = std::filesystem::read_symlink(entry.path(), gone);
      if (target.starts_with(folder_.path())) {
        ++seen;
        EXPECT_NE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
      }
    }
  });
  take(path);
  EXPECT_GE(seen, 7) << "the file and its folder beside what the store has open";
}

TEST_F(AddTest, ASignalDuringAReadOrWriteCostsNothing) {
  for (const auto& [begin, end] : {std::pair{"read interrupted", ""}, std::pair{"write", ".part"}}) {
    const std::string path = write("interrupted", "content");
    testsupport::FileCalls calls;
    calls.fail(begin, end, EINTR, 1);
    EXPECT_TRUE(restore(take(path)));
    EXPECT_EQ(testsupport::readFile(path), "content");
  }
}

TEST_F(AddTest, AFileThatCannotBeReadIsNotHandled) {
  const std::string path = write("unreadable");
  testsupport::FileCalls calls;
  calls.fail("read unreadable", "", EIO);
  expectRefused(add(path), "cannot read it: Input/output error");
  EXPECT_THAT(namesIn(at("")), testing::ElementsAre("unreadable"));
}

TEST(Clock, IsNeverAheadOfWhatTheKernelStampsFilesWith) {
  const testsupport::TempDir folder;
  for (int i = 0; i < 200; ++i) {
    const std::int64_t now = platform::nowNs();
    struct stat st {};
    ASSERT_EQ(::stat(folder.write("file" + std::to_string(i), "").c_str(), &st), 0);
    ASSERT_LE(now, FileIdentity::of(st).modifyTimeNs);
  }
}

TEST_F(AddTest, AFileThatWasChangedAfterItsScanIsNotHandled) {
  const std::string path = write("changed", "scanned");
  const QuarantineRequest request = requestFor(path);
  std::ofstream(path, std::ios::app) << "!";
  expectRefused(store().quarantine().add(request), "changed after it was scanned");
  EXPECT_EQ(testsupport::readFile(path), "scanned!");
}

TEST_F(AddTest, AFileThatIsChangedWhileItIsCopiedIsNotHandled) {
  const std::string path = write("changed", "scanned");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  before("opened", [&] {
    std::ofstream(path) << "another";
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  });
  expectRefused(add(path), "it was changed while it was copied");
  EXPECT_EQ(testsupport::readFile(path), "another");
}

TEST_F(AddTest, AFileWhoseModeIsChangedWhileItIsCopiedIsNotHandled) {
  const std::string path = write("changed");
  before("opened", [&] { ::chmod(path.c_str(), 0611); });
  expectRefused(add(path), "it was changed while it was copied");
  EXPECT_EQ(FileFacts::of(path).mode, 0611U);
}

TEST_F(AddTest, ACopyThatIsBrokenOffBetweenTwoBlocksLeavesNothing) {
  const std::string content(1 << 20, 'x');
  const std::string path = write("large", content);
  const FileFacts before = FileFacts::of(path);
  for (const int blocks : {0, 1, 5, 16}) {
    QuarantineRequest request = requestFor(path);
    int asked = 0;
    request.keepGoing = [&] { return asked++ < blocks; };
    expectRefused(store().quarantine().add(request), "its quarantine was broken off");
    EXPECT_EQ(blocks + 1, asked);
    EXPECT_EQ(FileFacts::of(path), before);
  }
  QuarantineRequest request = requestFor(path);
  request.keepGoing = [] { return true; };
  EXPECT_TRUE(store().quarantine().add(request));
  EXPECT_EQ(items().size(), 1U);
}

TEST_F(AddTest, AFileWhoseHashIsAnotherThanScannedIsNotHandled) {
  const std::string path = write("changed", "scanned");
  QuarantineRequest request = requestFor(path);
  request.md5 = md5Of("something else");
  expectRefused(store().quarantine().add(request), "changed after it was scanned");
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(AddTest, WhatIsNoRegularFileIsNotHandledNorTouched) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::mkdir(at("folder").c_str(), 0700), 0);
  ASSERT_EQ(::symlink(write("target").c_str(), at("link").c_str()), 0);
  for (const char* name : {"pipe", "folder", "link"}) {
    struct stat st {};
    ASSERT_EQ(::lstat(at(name).c_str(), &st), 0);
    QuarantineRequest request;
    request.path = at(name);
    request.identity = FileIdentity::of(st);
    expectRefused(store().quarantine().add(request), "not a regular file");
  }
  EXPECT_EQ(testsupport::readFile(at("target")), "a file that was detected");
}

TEST_F(AddTest, AFileThatCannotBeRemovedStaysAndIsNotHandled) {
  const std::string path = write("kept");
  const int status = inChild([&] {
    // The agent runs as a user without rights in the folder.
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    ASSERT_EQ(::setresuid(kOther, kOther, kOther), 0);
    testsupport::TempDir own;
    const auto mine = Store::open(own.at("state"));
    const auto result = mine->quarantine().add(requestFor(path));
    EXPECT_FALSE(result);
    EXPECT_THAT(lineOf(result), HasSubstr("cannot remove it: Permission denied"));
    EXPECT_THAT(mine->quarantine().list(std::nullopt), IsEmpty());
    EXPECT_THAT(namesIn(own.at("state/quarantine")), IsEmpty());
  });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(AddTest, AFileOnAReadOnlyFileSystemIsNotHandled) {
  if (const std::string why = testsupport::whyNoOwnMounts(); !why.empty()) {
    GTEST_SKIP() << "needs mounts of its own: " << why;
  }
  const std::string path = write("readonly");
  const int status = inChild([&] {
    ASSERT_EQ(testsupport::enterOwnMounts(), "");
    ASSERT_EQ(::mount(at("").c_str(), at("").c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount("none", at("").c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    expectRefused(add(path), "read-only file system");
  });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(AddTest, AFileThatDoesNotFitOnTheDiskIsNotHandledAndStays) {
  if (const std::string why = testsupport::whyNoOwnMounts(); !why.empty()) {
    GTEST_SKIP() << "needs mounts of its own: " << why;
  }
  const std::string content = testsupport::noise(3 << 20);
  const std::string path = write("large", content);
  const std::string small = write("small");
  store_.reset();
  const int status = inChild([&] {
    ASSERT_EQ(testsupport::enterOwnMounts(), "");
    ASSERT_EQ(::mount("none", stateDir().c_str(), "tmpfs", 0, "size=2m,mode=0700"), 0);
    reopen();
    expectRefused(add(path), "No space left on device");
    EXPECT_TRUE(add(small));
    EXPECT_TRUE(restore(uuidOf(small)));
    store_.reset();
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(testsupport::readFile(path), content);
  EXPECT_TRUE(std::filesystem::exists(small));
}

TEST_F(AddTest, SeveralThreadsTakeTheirFilesAndOneOfTwoTheSameFile) {
  std::vector<std::string> paths;
  for (int i = 0; i < 12; ++i) {
    paths.push_back(write("many" + std::to_string(i), "content " + std::to_string(i)));
  }
  std::vector<QuarantineRequest> requests;
  for (const std::string& path : paths) {
    requests.push_back(requestFor(path));
  }
  std::atomic<int> taken{0};
  const auto work = [&] {
    for (const QuarantineRequest& request : requests) {
      taken += store().quarantine().add(request).has_value() ? 1 : 0;
    }
  };
  std::thread first(work), second(work);
  first.join();
  second.join();
  EXPECT_EQ(taken, 12);
  EXPECT_EQ(items().size(), 12U);
  EXPECT_EQ(vaultFiles().size(), 12U);
  for (const auto& outcome : store().quarantine().restore({}, true, false, "", root())) {
    EXPECT_TRUE(outcome.result) << lineOf(outcome.result);
  }
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(testsupport::readFile(paths[static_cast<std::size_t>(i)]), "content " + std::to_string(i));
  }
}

class LimitTest : public AddTest {
 protected:
  void set(const std::string& change) {
    ASSERT_TRUE(store().settings().change(json::ConfigType::kQuarantine, change));
  }
  /// Makes the items look as large and as old as that.
  void pretend(const char* values) {
    store_.reset();
    sql(values);
    reopen();
  }
  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const Json::Value& item : items()) {
      found.push_back(std::filesystem::path(item["filepath_src"].asString()).filename());
    }
    return found;
  }
};

TEST_F(LimitTest, SizeLimitKeepsWhatWouldPassItOut) {
  set(R"({"Common":{"SizeLimit":1}})");
  take(write("a"));
  pretend("UPDATE items SET stored_bytes=1073741824-100");
  const std::string path = write("b");
  bool copied = false;
  before("copied", [&] { copied = true; });
  const auto result = add(path);
  EXPECT_FALSE(copied) << "the limit holds for the copy under way";
  EXPECT_FALSE(result);
  EXPECT_THAT(lineOf(result), HasSubstr("quarantine is full"));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(items().size(), 1U);
  EXPECT_EQ(vaultFiles().size(), 1U);
  set(R"({"Common":{"SizeLimit":2}})");
  EXPECT_TRUE(add(path));
}

TEST_F(LimitTest, OfTwoFilesThatAreCopiedAtOnceTheOneThatPassesTheLimitIsKeptOut) {
  set(R"({"Common":{"SizeLimit":1}})");
  take(write("a"));
  pretend("UPDATE items SET stored_bytes=1073741824-1000");
  const std::string path = write("b"), other = write("c");
  before("copied", [&] { take(other); });
  const auto result = add(path);
  EXPECT_FALSE(result);
  EXPECT_THAT(lineOf(result), HasSubstr("quarantine is full"));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_TRUE(restore(uuidOf(other)));
  EXPECT_TRUE(add(path)) << "a refused file takes no space";
}

TEST_F(LimitTest, ALimitThatIsLoweredDuringACopyHoldsForTheCopy) {
  set(R"({"Common":{"SizeLimit":2}})");
  take(write("a"));
  pretend("UPDATE items SET stored_bytes=1500000000");
  const std::string path = write("b");
  before("copied", [&] { set(R"({"Common":{"SizeLimit":1}})"); });
  EXPECT_THAT(lineOf(add(path)), HasSubstr("quarantine is full"));
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(LimitTest, TheQuarantineMayBeFilledToItsLimitAndNotAByteFurther) {
  set(R"({"Common":{"SizeLimit":1}})");
  // A second name keeps the inode: the same file makes an item of the same size again.
  const std::string path = write("a"), second = at("second");
  std::filesystem::create_hard_link(path, second);
  take(path);
  const auto size =
      static_cast<long>(std::filesystem::file_size(stateDir() + "/quarantine/" + vaultFiles()[0]));
  std::filesystem::create_hard_link(second, path);
  for (const long freeBytes : {size - 1, size}) {
    pretend(("UPDATE items SET stored_bytes=1073741824-" + std::to_string(freeBytes)).c_str());
    const auto result = add(path);
    EXPECT_EQ(result.has_value(), freeBytes == size) << lineOf(result);
  }
}

TEST_F(LimitTest, AFileThatStaysTakesNoSpace) {
  set(R"({"Common":{"SizeLimit":1}})");
  take(write("a"));
  pretend("UPDATE items SET stored_bytes=1073741824-1000");
  const std::string path = write("b");
  before("named", [&] {
    std::filesystem::remove(path);
    write("b");
  });
  EXPECT_THAT(lineOf(add(path)), HasSubstr("another file took its place"));
  EXPECT_TRUE(add(path));
}

TEST_F(LimitTest, SizeLimitZeroIsNoLimit) {
  set(R"({"Common":{"SizeLimit":0}})");
  take(write("a"));
  pretend("UPDATE items SET stored_bytes=1125899906842624");
  EXPECT_TRUE(add(write("b")));
}

TEST_F(LimitTest, ARestoreFreesSpace) {
  set(R"({"Common":{"SizeLimit":1}})");
  const std::string uuid = take(write("a"));
  pretend("UPDATE items SET stored_bytes=1073741824-100");
  EXPECT_FALSE(add(write("b")));
  EXPECT_TRUE(restore(uuid));
  EXPECT_TRUE(add(at("b")));
}

TEST_F(LimitTest, CleaningByAgeDeletesOlderItemsWhenNineTenthsAreUsed) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":0,"CleanTime":30,"CleanUnit":2}})");
  const std::string old = take(write("old"));
  take(write("young"));
  pretend(
      "UPDATE items SET stored_bytes=483183819;"
      "UPDATE items SET isolate_time=isolate_time-31*86400 WHERE id=1;"
      "UPDATE items SET isolate_time=isolate_time-29*86400 WHERE id=2;");
  take(write("new"));
  EXPECT_EQ(names(), (std::vector<std::string>{"young", "new"}));
  EXPECT_EQ(vaultFiles().size(), 2U);
  EXPECT_THAT(testsupport::readFile(stateDir() + "/audit.log"),
              HasSubstr("agent action=\"clean quarantine\" object=\"" + old +
                        "\" outcome=\"deleted: the quarantine is nearly full\"\n"));
}

TEST_F(LimitTest, NothingIsCleanedBelowNineTenths) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":0,"CleanTime":30,"CleanUnit":2}})");
  take(write("old"));
  pretend("UPDATE items SET stored_bytes=966367637,isolate_time=0");
  take(write("new"));
  EXPECT_EQ(items().size(), 2U);
}

TEST_F(LimitTest, NothingIsCleanedWhenCleaningIsOff) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":false,"CleanType":0,"CleanTime":30,"CleanUnit":2}})");
  take(write("old"));
  pretend("UPDATE items SET stored_bytes=1000000000,isolate_time=0");
  take(write("new"));
  EXPECT_EQ(items().size(), 2U);
}

TEST_F(LimitTest, CleaningToARateDeletesTheOldestUntilThatMuchIsFree) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":1,"CleanRate":50}})");
  for (const char* name : {"first", "second", "third", "fourth"}) {
    take(write(name));
  }
  pretend("UPDATE items SET stored_bytes=250000000,isolate_time=1000+id");
  take(write("new"));
  EXPECT_EQ(names(), (std::vector<std::string>{"third", "fourth", "new"}));
}

TEST_F(LimitTest, TheRateIsExact) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":1,"CleanRate":50}})");
  using Names = std::vector<std::string>;
  for (const auto& [bytes, kept] :
       {std::pair{"536000000", Names{"second", "new"}}, std::pair{"537000000", Names{"new"}}}) {
    take(write("first"));
    take(write("second"));
    pretend(("UPDATE items SET isolate_time=1000+id,stored_bytes=" + std::string(bytes)).c_str());
    take(write("new"));
    EXPECT_EQ(names(), kept) << bytes;
    store().quarantine().restore({}, true, false, "", root());
    ASSERT_THAT(names(), testing::IsEmpty());
  }
}

TEST_F(LimitTest, TheOldestComeFirstInTheListAndInCleaningWhateverTheOrderOfTheirRows) {
  set(R"({"Common":{"SizeLimit":1}})");
  for (const char* name : {"first", "second", "third", "fourth"}) {
    take(write(name));
  }
  pretend("UPDATE items SET stored_bytes=250000000,isolate_time=1000-id");
  EXPECT_EQ(names(), (std::vector<std::string>{"fourth", "third", "second", "first"}));
  set(R"({"AutoClean":{"Flag":true,"CleanType":1,"CleanRate":50}})");
  take(write("new"));
  EXPECT_EQ(names(), (std::vector<std::string>{"second", "first", "new"}));
}

TEST_F(LimitTest, CleaningLeavesWhatIsJustBeingTaken) {
  set(R"({"Common":{"SizeLimit":1}})");
  take(write("old"));
  pretend("UPDATE items SET stored_bytes=1000000000");
  const std::string path = write("under way", "content");
  before("named", [&] {
    set(R"({"AutoClean":{"Flag":true,"CleanType":1,"CleanRate":100}})");
    take(write("new"));
  });
  EXPECT_TRUE(add(path));
  EXPECT_EQ(names(), (std::vector<std::string>{"under way", "new"}));
  EXPECT_TRUE(restore(uuidOf(path)));
  EXPECT_EQ(testsupport::readFile(path), "content");
}

TEST_F(LimitTest, TheRateIsWhatIsToBeFree) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":1,"CleanRate":75}})");
  for (const char* name : {"first", "second", "third", "fourth"}) {
    take(write(name));
  }
  pretend("UPDATE items SET stored_bytes=250000000,isolate_time=1000+id");
  take(write("new"));
  EXPECT_EQ(names(), (std::vector<std::string>{"fourth", "new"}));
}

struct UnitCase {
  const char* name;
  json::CleanUnit unit;
  std::int64_t days;
};
void PrintTo(const UnitCase& unit, std::ostream* out) {
  *out << unit.name;
}
class CleanUnitTest : public LimitTest, public testing::WithParamInterface<UnitCase> {};
INSTANTIATE_TEST_SUITE_P(Units, CleanUnitTest,
                         testing::Values(UnitCase{"Years", json::CleanUnit::kYear, 365},
                                         UnitCase{"Months", json::CleanUnit::kMonth, 30},
                                         UnitCase{"Days", json::CleanUnit::kDay, 1},
                                         UnitCase{"Weeks", json::CleanUnit::kWeek, 7}),
                         [](const auto& unit) { return unit.param.name; });

TEST_P(CleanUnitTest, AgeIsCountedInTheUnitThatIsSet) {
  set(R"({"Common":{"SizeLimit":1},"AutoClean":{"Flag":true,"CleanType":0,"CleanTime":2,"CleanUnit":)" +
      std::to_string(json::toNumber(GetParam().unit)) + "}}");
  take(write("older"));
  take(write("younger"));
  const std::string border = std::to_string(2 * GetParam().days * 86400);
  pretend(("UPDATE items SET stored_bytes=500000000;"
           "UPDATE items SET isolate_time=isolate_time-" +
           border +
           "-3600 WHERE id=1;"
           "UPDATE items SET isolate_time=isolate_time-" +
           border + "+3600 WHERE id=2;")
              .c_str());
  take(write("new"));
  EXPECT_EQ(names(), (std::vector<std::string>{"younger", "new"}));
}

struct TypeCase {
  const char* content;
  const char* name;
  const char* type;
};
void PrintTo(const TypeCase& type, std::ostream* out) {
  *out << type.name << " " << type.type;
}
class FileTypeTest : public testing::TestWithParam<TypeCase> {};
INSTANTIATE_TEST_SUITE_P(
    Types, FileTypeTest,
    testing::Values(TypeCase{"\x7f"
                             "ELF\x02",
                             "a", "ELF"},
                    TypeCase{"MZ\x90", "a.txt", "PE"}, TypeCase{"#!/bin/sh", "a", "script"},
                    TypeCase{"PK\x03\x04", "a", "zip"}, TypeCase{"%PDF-1", "a", "PDF"},
                    TypeCase{"Rar!\x1a", "a", "rar"}, TypeCase{"7z\xbc\xaf\x27", "a", "7z"},
                    TypeCase{"\x1f\x8b\x08", "a", "gz"}, TypeCase{"\xd0\xcf\x11\xe0\xa1", "a", "OLE"},
                    TypeCase{"BZh9", "a", "bz2"},
                    TypeCase{"\xfd"
                             "7zXZ",
                             "a", "xz"},
                    TypeCase{"!<arch>\n", "a", "ar"}, TypeCase{"", "a.doc", "doc"},
                    TypeCase{"", "a.12345678", "12345678"}, TypeCase{"", "a.123456789", ""},
                    TypeCase{"text", ".profile", ""}, TypeCase{"text", "noending", ""}));

TEST(Hex, OfAnOddLengthOrWithOtherLettersIsNone) {
  EXPECT_EQ(fromHex("00ff7a"), std::string("\0\xff\x7a", 3));
  for (const char* text : {"abc", "0g", "g0", "AB", " 1"}) {
    EXPECT_FALSE(fromHex(text)) << text;
  }
}

TEST_P(FileTypeTest, ComesFromTheFirstBytesElseFromTheEnding) {
  EXPECT_EQ(store::fileTypeOf(GetParam().content, GetParam().name), GetParam().type);
}

}  // namespace
}  // namespace agent
