#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "StoreFixture.h"
#include "json/Values.h"
#include "platform/Posix.h"
#include "store/RegionIndex.h"
#include "store/Sqlite.h"
#include "support/FileCalls.h"

namespace agent {
namespace {

using testing::HasSubstr;

using json::Region;
using json::RegionAction;
using json::RegionDomain;
using enum json::RegionItemType;
using enum json::Region;
using enum json::RegionDomain;
using enum json::RegionAction;
using ItemType = json::RegionItemType;
constexpr const char* kSomeMd5 = "44d88612fea8a8f36de82e1278abb02f";
constexpr const char* kSomeSha1 = "3395856ce81f2b7382dee72602f798b642f14140";
constexpr const char* kSomeSha256 = "275a021bbfb6489e54d471899f7db9d1663fc695ec2fe2a2c4538aabf651fd0f";

class RegionTest : public StoreTest {
 protected:
  store::Regions& regions() { return store().regions(); }
  static Json::Value request(RegionAction action, ItemType type, const std::vector<std::string>& items,
                             RegionDomain domain = kPersonal) {
    Json::Value value;
    value["action"] = json::toNumber(action);
    value["type"] = json::toNumber(type);
    value["domain"] = json::toNumber(domain);
    value["is_all"] = false;
    value["items"] = Json::Value(Json::arrayValue);
    for (const std::string& item : items) {
      value["items"].append(json::encodePath(item));
    }
    return value;
  }
  void accept(Region region, const Json::Value& change) {
    const auto done = regions().change(region, change, root());
    EXPECT_TRUE(done) << done.error();
  }
  std::string refusal(Region region, const Json::Value& change) {
    SCOPED_TRACE(change.toStyledString());
    return reasonOf(regions().change(region, change, root()));
  }
  void add(ItemType type, const std::string& item, Region region = kTrust, RegionDomain domain = kPersonal) {
    accept(region, request(kAdd, type, {item}, domain));
  }
  void del(ItemType type, const std::string& item, Region region = kTrust, RegionDomain domain = kPersonal) {
    accept(region, request(kDelete, type, {item}, domain));
  }
  std::vector<std::string> listed(ItemType type, Region region = kTrust, RegionDomain domain = kEvery) {
    std::vector<std::string> items;
    for (const Json::Value& entry : regions().list(domain, type, region)) {
      items.push_back(json::decodePath(entry["item"].asString()));
    }
    return items;
  }
};

using Items = std::vector<std::string>;

TEST_F(RegionTest, AFileEntryTrustsThatPathOnly) {
  add(kFile, "/a/b/c.txt");
  EXPECT_EQ(regions().byPath("/a/b/c.txt"), RegionVerdict::kTrusted);
  for (const char* path : {"/a/b/c.txt2", "/a/b", "/a/b/c.tx", "/x/a/b/c.txt", "/a/b/c.txt/d", "", "/"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kNone) << path;
  }
}

TEST_F(RegionTest, AFolderEntryTrustsTheFolderAndAllBelowIt) {
  add(kFolder, "/a/b");
  for (const char* path : {"/a/b", "/a/b/c", "/a/b/c/d/e.txt"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kTrusted) << path;
  }
  for (const char* path : {"/a", "/a/bc", "/a/bc/d", "/x/a/b"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kNone) << path;
  }
}

TEST_F(RegionTest, AnExtensionEntryTrustsFilesOfThatEndingWhateverTheCase) {
  add(kExtension, ".TXT");
  add(kExtension, "tar.gz");
  for (const char* path : {"/a/b.txt", "/a/b.Txt", "/a/x.y.txt", "/b.TAR.gz", "/b.txt"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kTrusted) << path;
  }
  for (const char* path : {"/a/txt", "/a/.txt", "/a/b.txt/c", "/a/b.txtx", "/a/b.gz", "/a/b."}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kNone) << path;
  }
}

TEST_F(RegionTest, EveryLetterOfAnExtensionIsTheSameInBothCasesAndNoOtherByteIs) {
  add(kExtension, "abcdefghijklmnopqrstuvwxyz");
  add(kExtension, "@[\xc3\x84");
  EXPECT_EQ(regions().byPath("/a/b.ABCDEFGHIJKLMNOPQRSTUVWXYZ"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byPath("/a/b.@[\xc3\x84"), RegionVerdict::kTrusted);
  for (const char* path : {"/a/b.`[\xc3\x84", "/a/b.@{\xc3\x84", "/a/b.@[\xc3\xa4", "/a/b.@[\xe3\x84"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kNone) << path;
  }
  add(kExtension, "ABCDEFGHIJKLMNOPQRSTUVWXYZ2");
  EXPECT_EQ(regions().byPath("/a/b.abcdefghijklmnopqrstuvwxyz2"), RegionVerdict::kTrusted);
}

TEST_F(RegionTest, ANameEntryTrustsFilesOfThatNameAnywhere) {
  add(kName, "setup.bin");
  EXPECT_EQ(regions().byPath("/any/where/setup.bin"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byPath("/any/setup.bin/where"), RegionVerdict::kNone);
  EXPECT_EQ(regions().byPath("/any/Setup.bin"), RegionVerdict::kNone);
}

TEST_F(RegionTest, Md5Sha1AndSha256EntriesTrustContent) {
  Verdict md5, sha1, sha256;
  md5.md5 = kSomeMd5;
  sha1.sha1 = kSomeSha1;
  sha256.sha256 = kSomeSha256;
  add(kMd5, "44D88612FEA8A8F36DE82E1278ABB02F");
  EXPECT_EQ(regions().byHash(md5), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byHash(sha1), RegionVerdict::kNone);
  add(kSha1, kSomeSha1);
  EXPECT_EQ(regions().byHash(sha1), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byHash(sha256), RegionVerdict::kNone);
  add(kSha256, kSomeSha256);
  EXPECT_EQ(regions().byHash(sha256), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byHash(Verdict()), RegionVerdict::kNone);
}

TEST_F(RegionTest, HashesAreNeededAsLongAsAHashEntryExists) {
  EXPECT_FALSE(regions().hashesNeeded());
  add(kName, "x");
  EXPECT_FALSE(regions().hashesNeeded());
  for (const auto& [type, hash] : {std::pair{kMd5, kSomeMd5}, {kSha1, kSomeSha1}, {kSha256, kSomeSha256}}) {
    add(type, hash, kReject);
    EXPECT_TRUE(regions().hashesNeeded());
    reopen();
    EXPECT_TRUE(regions().hashesNeeded());
    del(type, hash, kReject);
    EXPECT_FALSE(regions().hashesNeeded());
  }
}

TEST_F(RegionTest, TheRejectRegionRejectsAndIsStrongerThanTrust) {
  add(kFile, "/a/b", kReject);
  add(kName, "evil", kReject);
  add(kMd5, kSomeMd5, kReject);
  EXPECT_EQ(regions().byPath("/a/b"), RegionVerdict::kRejected);
  EXPECT_EQ(regions().byPath("/x/evil"), RegionVerdict::kRejected);
  add(kFolder, "/x");
  add(kMd5, kSomeMd5);
  EXPECT_EQ(regions().byPath("/x/evil"), RegionVerdict::kRejected);
  EXPECT_EQ(regions().byPath("/x/good"), RegionVerdict::kTrusted);
  Verdict md5;
  md5.md5 = kSomeMd5;
  EXPECT_EQ(regions().byHash(md5), RegionVerdict::kRejected);
}

TEST_F(RegionTest, EntriesHoldOverARestart) {
  add(kFolder, "/a/b");
  add(kName, "evil", kReject);
  reopen();
  EXPECT_EQ(regions().byPath("/a/b/c"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byPath("/c/evil"), RegionVerdict::kRejected);
  EXPECT_EQ(listed(kFolder), Items{"/a/b"});
}

TEST_F(RegionTest, TheTimeAndTheDomainOfAnEntryHoldOverARestart) {
  for (const auto& [path, seconds] : {std::pair{"/over", -1}, std::pair{"/soon", 3600}}) {
    Json::Value change = request(kAdd, kFile, {path});
    change["valid_until"] = Json::Int64(platform::nowSec() + seconds);
    accept(kTrust, change);
  }
  add(kFile, "/personal");
  add(kFile, "/global", kTrust, kGlobal);
  reopen();
  EXPECT_EQ(regions().byPath("/over"), RegionVerdict::kNone);
  EXPECT_EQ(regions().byPath("/soon"), RegionVerdict::kTrusted);
  del(kFile, "/personal");
  del(kFile, "/global", kTrust, kGlobal);
  EXPECT_EQ(regions().byPath("/personal"), RegionVerdict::kNone);
  EXPECT_EQ(regions().byPath("/global"), RegionVerdict::kNone);
}

TEST_F(RegionTest, AChangeThatIsNotOnTheDiskIsNone) {
  add(kFile, "/kept");
  const auto before = regions().generation();
  {
    testsupport::FileCalls calls;
    calls.fail("sync", "agent.db-wal", EIO);
    EXPECT_THAT(refusal(kTrust, request(kAdd, kName, {"added"})), HasSubstr("disk I/O error"));
    EXPECT_THAT(refusal(kTrust, request(kDelete, kFile, {"/kept"})), HasSubstr("disk I/O error"));
  }
  EXPECT_EQ(regions().byPath("/some/added"), RegionVerdict::kNone);
  EXPECT_EQ(regions().byPath("/kept"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().generation(), before);
}

TEST_F(RegionTest, AnEntryThatIsAddedAgainKeepsItsFirstTimeAndIsDescribedAnew) {
  const std::int64_t start = platform::nowSec();
  const std::string path = folder_.write("file", "abc");
  add(kFile, path);
  store::Database(stateDir() + "/agent.db", store::Durability::kFull)
      .run("UPDATE regions SET add_time=5,modify_time=6");
  folder_.write("file", "abcd");
  add(kFile, path);
  const Json::Value entry = regions().list(kEvery, kFile, kTrust)[0];
  EXPECT_EQ(entry["add_time"], 5);
  EXPECT_GE(entry["modify_time"].asInt64(), start);
  EXPECT_EQ(entry["file_size"], 4);
  EXPECT_EQ(entry["md5"], "e2fc714c4727ee9395f324cd2e7f331f");
}

TEST_F(RegionTest, AddingTwiceMakesNoDuplicate) {
  add(kFile, "/a/b");
  const std::string uuid = regions().list(kEvery, kFile, kTrust)[0]["uuid"].asString();
  add(kFile, "/a/b");
  accept(kTrust, request(kAdd, kFile, {"/a/b", "/a//b", "/a/b/"}));
  EXPECT_EQ(listed(kFile), Items{"/a/b"});
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["uuid"], uuid);
}

TEST_F(RegionTest, DeletingTheAbsentIsDone) {
  del(kFile, "/never/there");
  add(kFile, "/a");
  del(kFile, "/a");
  del(kFile, "/a");
  EXPECT_EQ(listed(kFile), Items{});
  EXPECT_EQ(regions().byPath("/a"), RegionVerdict::kNone);
}

TEST_F(RegionTest, RelativePathsAreRefusedWithAReason) {
  for (const ItemType type : {kFile, kFolder}) {
    EXPECT_EQ(refusal(kTrust, request(kAdd, type, {"tmp/x"})), "'tmp/x' is not an absolute path");
    refusal(kTrust, request(kAdd, type, {"./x"}));
    refusal(kTrust, request(kAdd, type, {""}));
    refusal(kTrust, request(kDelete, type, {"x"}));
  }
}

TEST_F(RegionTest, TrailingSlashesDoubledSeparatorsAndDotsAreTakenOut) {
  add(kFolder, "/a//b/");
  add(kFolder, "/c/./d/../e///");
  EXPECT_EQ(listed(kFolder), (Items{"/a/b", "/c/e"}));
  EXPECT_EQ(regions().byPath("/a/b/x"), RegionVerdict::kTrusted);
  del(kFolder, "/a/b//");
  EXPECT_EQ(listed(kFolder), Items{"/c/e"});
}

TEST_F(RegionTest, ALookUpOfAPathThatIsNotNormalFindsTheSame) {
  add(kFolder, "/a/b");
  add(kFile, "/c/d");
  for (const char* path :
       {"/a//b/c", "/a/./b/c", "/a/x/../b/c", "//c/d", "/c/d/", "/c/e/../d", "/a/b/.", "/a/b/c/.."}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kTrusted) << path;
  }
  for (const char* path : {"/a/.b/c", "/a/..b/c", "/a/b/../c"}) {
    EXPECT_EQ(regions().byPath(path), RegionVerdict::kNone) << path;
  }
}

TEST_F(RegionTest, TheRootFolderIsRefused) {
  for (const char* path : {"/", "//", "/a/..", "/."}) {
    EXPECT_EQ(refusal(kReject, request(kAdd, kFolder, {path})), "'/' would take in everything");
  }
}

struct BadItem {
  const char* name;
  ItemType type;
  const char* item;
  const char* reason;
};
void PrintTo(const BadItem& bad, std::ostream* out) {
  *out << bad.name;
}
class BadItemTest : public RegionTest, public testing::WithParamInterface<BadItem> {};
INSTANTIATE_TEST_SUITE_P(
    Items, BadItemTest,
    testing::Values(BadItem{"EmptyExtension", kExtension, ".", "is not a file extension"},
                    BadItem{"ExtensionWithSlash", kExtension, "a/b", "is not a file extension"},
                    BadItem{"ExtensionThatIsAPattern", kExtension, "*", "is not a file extension"},
                    BadItem{"NameWithSlash", kName, "a/b", "is not a file name"},
                    BadItem{"NameThatIsDots", kName, "..", "is not a file name"},
                    BadItem{"NameThatIsADot", kName, ".", "is not a file name"},
                    BadItem{"ExtensionThatBeginsWithADot", kExtension, "..txt", "is not a file extension"},
                    BadItem{"ExtensionThatEndsWithADot", kExtension, "txt.", "is not a file extension"},
                    BadItem{"EmptyName", kName, "", "is not a file name"},
                    BadItem{"ShortMd5", kMd5, "abc", "is not a MD5 of 32 hexadecimal digits"},
                    BadItem{"Md5WithOtherLetters", kMd5, "zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz", "is not a MD5"},
                    BadItem{"Sha1OfAnMd5sLength", kSha1, kSomeMd5, "is not a SHA1 of 40"},
                    BadItem{"Sha256OfASha1sLength", kSha256, kSomeSha1, "is not a SHA256 of 64"}),
    [](const auto& bad) { return bad.param.name; });

TEST_P(BadItemTest, IsRefusedWithTheReason) {
  EXPECT_THAT(refusal(kTrust, request(kAdd, GetParam().type, {GetParam().item})),
              HasSubstr(GetParam().reason));
}

struct Length {
  const char* name;
  ItemType type;
  const char* begin;
  std::size_t largest;
};
void PrintTo(const Length& length, std::ostream* out) {
  *out << length.name;
}
class ItemLengthTest : public RegionTest, public testing::WithParamInterface<Length> {};
INSTANTIATE_TEST_SUITE_P(Items, ItemLengthTest,
                         testing::Values(Length{"Path", kFile, "/", 4096}, Length{"Name", kName, "", 255},
                                         Length{"Extension", kExtension, "", 255}),
                         [](const auto& length) { return std::string(length.param.name); });

TEST_P(ItemLengthTest, IsTakenUpToTheLargestAndNotAbove) {
  std::string item = GetParam().begin;
  item.resize(GetParam().largest, 'x');
  add(GetParam().type, item);
  EXPECT_EQ(listed(GetParam().type), Items{item});
  refusal(kTrust, request(kAdd, GetParam().type, {item + "x"}));
}

TEST_F(RegionTest, AnExtensionMayBeWrittenAsAPatternOfIt) {
  add(kExtension, "*.TXT");
  EXPECT_EQ(listed(kExtension), Items{"txt"});
}

TEST_F(RegionTest, AnItemWithAZeroByteIsRefused) {
  for (const ItemType type : {kFile, kName, kExtension}) {
    EXPECT_EQ(refusal(kTrust, request(kAdd, type, {std::string("/a\0b", 4)})), "an item holds a zero byte");
  }
}

TEST_F(RegionTest, AnItemThatIsNoTextIsRefused) {
  Json::Value change = request(kAdd, kName, {});
  change["items"].append(1);
  EXPECT_EQ(refusal(kTrust, change), "\"items\" must be a list of texts");
}

TEST_F(RegionTest, AChangeOfNothingIsNone) {
  const auto before = regions().generation();
  accept(kTrust, request(kAdd, kFile, {}));
  EXPECT_EQ(regions().generation(), before);
}

TEST(RegionIndex, AnEntryHoldsToTheSecondBeforeItsTime) {
  store::RegionIndex index;
  index.put(kTrust, kFile, kPersonal, "/a", 100);
  EXPECT_EQ(index.byPath("/a", 99), RegionVerdict::kTrusted);
  EXPECT_EQ(index.byPath("/a", 100), RegionVerdict::kNone);
}

TEST_F(RegionTest, AnEntryWhoseTimeIsNowIsOver) {
  Json::Value change = request(kAdd, kFile, {"/now"});
  change["valid_until"] = Json::Int64(platform::nowSec());
  accept(kTrust, change);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["valid_statue"],
            json::toNumber(json::RegionValidity::kExpired));
}

TEST_F(RegionTest, AStoredEntryOfAnUnknownKindIsADamagedStore) {
  const char* const columns[] = {"region", "type", "domain"};
  for (const std::string column : columns) {
    for (const std::string value : {"-1", column == "domain" ? "4" : "7"}) {
      add(kFile, "/a");
      store_.reset();
      const auto run = [this](const std::string& sql) {
        store::Database(stateDir() + "/agent.db", store::Durability::kFull).run(sql.c_str());
      };
      run("UPDATE regions SET " + column + "=" + value);
      EXPECT_THROW(Store::open(stateDir()), std::runtime_error) << column << " " << value;
      run("DELETE FROM regions");
      reopen();
    }
  }
}

TEST_F(RegionTest, FilesOfMoreThanSixtyFourMebibytesInAllAreNotHashed) {
  const auto sparse = [this](const char* name, std::uint64_t size) {
    const std::string path = folder_.write(name, "");
    EXPECT_EQ(::truncate(path.c_str(), static_cast<off_t>(size)), 0);
    return path;
  };
  constexpr std::uint64_t kMebibyte = 1 << 20;
  accept(kTrust, request(kAdd, kFile,
                         {sparse("large", 64 * kMebibyte + 1), sparse("first", 40 * kMebibyte),
                          sparse("second", 40 * kMebibyte), sparse("small", 24 * kMebibyte)}));
  const Json::Value entries = regions().list(kEvery, kFile, kTrust);
  ASSERT_EQ(entries.size(), 4U);
  for (const auto& [index, hashed] : {std::pair{0U, false}, {1U, true}, {2U, false}, {3U, true}}) {
    EXPECT_EQ(!entries[index]["md5"].asString().empty(), hashed) << index;
    EXPECT_GT(entries[index]["file_size"].asInt64(), 0) << index;
  }
}

TEST_F(RegionTest, OneBadItemRefusesTheWholeChange) {
  refusal(kTrust, request(kAdd, kFile, {"/good", "bad", "/good2"}));
  EXPECT_EQ(listed(kFile), Items{});
  EXPECT_EQ(regions().byPath("/good"), RegionVerdict::kNone);
}

TEST_F(RegionTest, AChangeOfTheWrongFormIsRefused) {
  const Json::Value good = request(kAdd, kFile, {"/a"});
  for (const char* text : {"[]", "3", "null", "\"x\""}) {
    EXPECT_EQ(refusal(kTrust, testsupport::jsonOf(text)), "the change must be an object");
  }
  const std::vector<std::pair<const char*, const char*>> members = {
      {"action", "2"},    {"type", "1.0"},       {"action", "\"0\""},     {"action", "null"},
      {"action", "0.5"},  {"type", "7"},         {"type", "-1"},          {"type", "null"},
      {"domain", "2"},    {"domain", "4"},       {"domain", "null"},      {"is_all", "1"},
      {"items", "null"},  {"items", "\"/a\""},   {"items", "[1]"},        {"items", "{}"},
      {"is_all", "true"}, {"valid_until", "-1"}, {"valid_until", "\"x\""}};
  for (const auto& [member, value] : members) {
    Json::Value bad = good;
    bad[member] = testsupport::jsonOf("[" + std::string(value) + "]")[0];
    EXPECT_THAT(refusal(kTrust, bad), HasSubstr("\"" + std::string(member) + "\"")) << value;
  }
  EXPECT_EQ(listed(kFile), Items{});
}

TEST_F(RegionTest, DeletingAllTakesEveryEntryOfTheTypeDomainAndRegion) {
  Items many;
  for (char name = 'e'; name <= 'z'; ++name) {
    many.push_back(std::string("/") + name);
  }
  add(kFile, "/b");
  add(kFile, "/b", kTrust, kGlobal);
  add(kFile, "/a");
  accept(kTrust, request(kAdd, kFile, many));
  add(kFile, "/c", kReject);
  add(kFolder, "/d");
  Json::Value all = request(kDelete, kFile, {});
  all["is_all"] = true;
  accept(kTrust, all);
  EXPECT_EQ(listed(kFile), Items{"/b"});
  many.push_back("/a");
  for (const std::string& gone : many) {
    EXPECT_EQ(regions().byPath(gone), RegionVerdict::kNone) << gone;
  }
  EXPECT_EQ(regions().byPath("/b"), RegionVerdict::kTrusted);
  EXPECT_EQ(listed(kFile, kReject), Items{"/c"});
  EXPECT_EQ(listed(kFolder), Items{"/d"});
}

TEST_F(RegionTest, PersonalAndGlobalEntriesStandSideBySide) {
  add(kFile, "/a", kTrust, kPersonal);
  add(kFile, "/a", kTrust, kGlobal);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust).size(), 2U);
  EXPECT_EQ(regions().list(kPersonal, kFile, kTrust)[0]["domain"], json::toNumber(kPersonal));
  EXPECT_EQ(regions().list(kGlobal, kFile, kTrust)[0]["domain"], json::toNumber(kGlobal));
  del(kFile, "/a", kTrust, kPersonal);
  EXPECT_EQ(regions().byPath("/a"), RegionVerdict::kTrusted);
  del(kFile, "/a", kTrust, kGlobal);
  EXPECT_EQ(regions().byPath("/a"), RegionVerdict::kNone);
}

TEST_F(RegionTest, AnEntryIsDeletedInItsRegionTypeAndDomainOnly) {
  add(kFile, "/a", kTrust, kPersonal);
  add(kFile, "/a", kTrust, kGlobal);
  add(kFolder, "/a", kTrust, kPersonal);
  add(kFile, "/a", kReject, kPersonal);
  del(kFile, "/a", kTrust, kPersonal);
  for (int restarts = 0; restarts < 2; ++restarts) {
    EXPECT_EQ(listed(kFile, kTrust, kPersonal), Items{});
    EXPECT_EQ(listed(kFile, kTrust, kGlobal), Items{"/a"});
    EXPECT_EQ(listed(kFolder, kTrust, kPersonal), Items{"/a"});
    EXPECT_EQ(listed(kFile, kReject, kPersonal), Items{"/a"});
    reopen();
  }
}

TEST_F(RegionTest, EveryTypeIsListedByItself) {
  const std::vector<std::string> items = {"/f", "/d", "ext", kSomeMd5, "name", kSomeSha1, kSomeSha256};
  for (const Region region : json::kValuesOf<Region>) {
    for (const ItemType type : json::kValuesOf<ItemType>) {
      add(type, items[static_cast<std::size_t>(type)], region);
    }
    for (const ItemType type : json::kValuesOf<ItemType>) {
      EXPECT_EQ(listed(type, region), Items{items[static_cast<std::size_t>(type)]});
      EXPECT_EQ(regions().list(kEvery, type, region)[0]["item_type"], json::toNumber(type));
    }
  }
}

TEST_F(RegionTest, AnEntryIsListedWithAllFieldsOfItsRecord) {
  const std::int64_t start = platform::nowSec();
  const std::string path = folder_.write("file", "abc");
  add(kFile, path);
  const Json::Value entry = regions().list(kEvery, kFile, kTrust)[0];
  EXPECT_EQ(entry.size(), 10U);
  EXPECT_EQ(entry["valid_statue"], json::toNumber(json::RegionValidity::kForEver));
  EXPECT_EQ(entry["domain"], json::toNumber(kPersonal));
  EXPECT_EQ(entry["uuid"].asString().size(), 36U);
  EXPECT_EQ(entry["item_type"], json::toNumber(kFile));
  EXPECT_EQ(entry["exist_state"], 1);
  EXPECT_EQ(entry["item"], path);
  EXPECT_EQ(entry["file_size"], 3);
  EXPECT_EQ(entry["md5"], "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_GE(entry["add_time"].asInt64(), start);
  EXPECT_EQ(entry["modify_time"], entry["add_time"]);
}

TEST_F(RegionTest, WhatAnEntryTellsOfAFileIsOfItsLastChangeAndAListOpensNothing) {
  const std::string path = folder_.write("file", "abc");
  add(kFile, path);
  std::filesystem::remove(path);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["exist_state"], 1);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["file_size"], 3);
  add(kFile, path);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["exist_state"], 0);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["file_size"], 0);
}

TEST_F(RegionTest, AListWithoutFactsHasTheItemsAndNothingOfTheirFiles) {
  add(kFile, folder_.write("file", "abc"));
  add(kMd5, kSomeMd5);
  const Json::Value entry = regions().list(kEvery, kFile, kTrust, false)[0];
  EXPECT_EQ(entry["item"], folder_.at("file"));
  EXPECT_EQ(entry["exist_state"], 0);
  EXPECT_EQ(entry["file_size"], 0);
  EXPECT_EQ(entry["md5"], "");
  EXPECT_EQ(regions().list(kEvery, kMd5, kTrust, false)[0]["md5"], kSomeMd5);
}

TEST_F(RegionTest, AHashIsListedInItsFieldToo) {
  add(kMd5, kSomeMd5);
  EXPECT_EQ(regions().list(kEvery, kMd5, kTrust)[0]["md5"], kSomeMd5);
}

TEST_F(RegionTest, WhatIsNoRegularFileIsNotOpenedForItsSizeAndHash) {
  ASSERT_EQ(::mkfifo(folder_.at("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::symlink(folder_.write("secret", "abc").c_str(), folder_.at("link").c_str()), 0);
  add(kFile, folder_.at("pipe"));
  add(kFile, folder_.at("link"));
  for (const Json::Value& entry : regions().list(kEvery, kFile, kTrust)) {
    EXPECT_EQ(entry["md5"], "");
    EXPECT_EQ(entry["file_size"], 0);
    EXPECT_EQ(entry["exist_state"], 1);
  }
}

TEST_F(RegionTest, AFolderEntryIsListedWithoutSizeAndHashWhereverItsPathLeads) {
  add(kFolder, folder_.write("file", "abc"));
  const Json::Value entry = regions().list(kEvery, kFolder, kTrust)[0];
  EXPECT_EQ(entry["md5"], "");
  EXPECT_EQ(entry["file_size"], 0);
}

TEST_F(RegionTest, ExistenceIsReportedOfPathsOnlyAndOfALinkThatLeadsNowhereToo) {
  std::filesystem::create_symlink(folder_.at("nowhere"), folder_.at("link"));
  add(kFile, folder_.at("link"));
  EXPECT_EQ(regions().list(json::RegionDomain::kEvery, kFile, kTrust)[0]["exist_state"], 1);
  add(kName, "link");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.path());
  EXPECT_EQ(regions().list(json::RegionDomain::kEvery, kName, kTrust)[0]["exist_state"], 0);
  std::filesystem::current_path(before);
}

TEST_F(RegionTest, AFileThatCannotBeReadIsListedWithoutHash) {
  const std::string path = folder_.write("unreadable", "abc");
  {
    testsupport::FileCalls calls;
    calls.fail("read unreadable", "", EIO);
    add(kFile, path);
  }
  EXPECT_EQ(regions().list(json::RegionDomain::kEvery, kFile, kTrust)[0]["md5"], "");
}

TEST_F(RegionTest, AnEntryHoldsUntilItsTimeIsOver) {
  Json::Value change = request(kAdd, kFile, {"/soon"});
  change["valid_until"] = Json::Int64(platform::nowSec() + 3600);
  accept(kTrust, change);
  change = request(kAdd, kFile, {"/over"});
  change["valid_until"] = Json::Int64(platform::nowSec() - 1);
  accept(kTrust, change);
  EXPECT_EQ(regions().byPath("/soon"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().byPath("/over"), RegionVerdict::kNone);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[0]["valid_statue"],
            json::toNumber(json::RegionValidity::kValid));
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[1]["valid_statue"],
            json::toNumber(json::RegionValidity::kExpired));
  change["valid_until"] = 0;
  accept(kTrust, change);
  EXPECT_EQ(regions().byPath("/over"), RegionVerdict::kTrusted);
  EXPECT_EQ(regions().list(kEvery, kFile, kTrust)[1]["valid_statue"],
            json::toNumber(json::RegionValidity::kForEver));
}

TEST_F(RegionTest, PathsOfAnyBytesAreKeptAsTheyAre) {
  const std::string path = "/tmp/\xff\n\xe6\x96\x87\x80";
  add(kFile, path);
  EXPECT_EQ(listed(kFile), Items{path});
  reopen();
  EXPECT_EQ(regions().byPath(path), RegionVerdict::kTrusted);
  EXPECT_THAT(refusal(kTrust, request(kAdd, kFile, {"\x1b[2J\n"})), HasSubstr("'\\x1b[2J\\n'"));
}

TEST_F(RegionTest, TheGenerationChangesWithEveryChangeAndHoldsOverARestart) {
  const auto first = regions().generation();
  add(kFile, "/a");
  const auto second = regions().generation();
  EXPECT_NE(first, second);
  del(kFile, "/a");
  const auto third = regions().generation();
  EXPECT_NE(second, third);
  EXPECT_NE(first, third);
  refusal(kTrust, request(kAdd, kFile, {"x"}));
  EXPECT_EQ(regions().generation(), third);
  reopen();
  EXPECT_EQ(regions().generation(), third);
}

TEST_F(RegionTest, AHundredThousandEntriesAreAddedListedLookedUpAndReadBack) {
  Json::Value change = request(kAdd, kFolder, {});
  for (int i = 0; i < 100'000; ++i) {
    change["items"].append("/srv/data/" + std::to_string(i));
  }
  accept(kTrust, change);
  accept(kTrust, change);
  EXPECT_EQ(regions().list(kEvery, kFolder, kTrust).size(), 100'000U);
  reopen();
  for (int i = 0; i < 100'000; i += 7) {
    ASSERT_EQ(regions().byPath("/srv/data/" + std::to_string(i) + "/x/y/z"), RegionVerdict::kTrusted);
    ASSERT_EQ(regions().byPath("/srv/other/" + std::to_string(i) + "/x/y/z"), RegionVerdict::kNone);
  }
}

TEST_F(RegionTest, LookUpsAndChangesFromSeveralThreadsAgree) {
  add(kFolder, "/stays");
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!stop) {
        EXPECT_EQ(regions().byPath("/stays/x"), RegionVerdict::kTrusted);
        regions().byPath("/comes/x");
        regions().hashesNeeded();
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    add(kFolder, "/comes");
    del(kFolder, "/comes");
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(listed(kFolder), Items{"/stays"});
}

TEST_F(RegionTest, EntriesHaveALimitBeyondWhichNothingIsAddedAndADeletionMakesRoom) {
  std::int64_t next = 0;
  const auto added = [&](std::int64_t count) {
    Items items;
    for (; count > 0; --count) {
      items.push_back("name" + std::to_string(next++));
    }
    const CallerId caller{.uid = 0, .gid = 0, .groups = {}, .pid = 1};
    const auto done = regions().change(kTrust, request(kAdd, kName, items), caller);
    return done ? "" : done.error();
  };
  EXPECT_EQ(added(500'000), "one change has at most 100000 entries");
  next = 0;
  EXPECT_EQ(added(store::Regions::kMostEntries), "");
  EXPECT_EQ(added(1), "the trust and reject lists would have more than 100000 entries");
  next = 0;
  EXPECT_EQ(added(1), "") << "renews the first entry";
  del(kName, "name1");
  next = store::Regions::kMostEntries;
  EXPECT_EQ(added(1), "");
}

}  // namespace
}  // namespace agent
