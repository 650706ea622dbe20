// The file of a quarantined item: reading succeeds only for a file as it was written.

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include "StoreFixture.h"
#include "engine/Digest.h"
#include "platform/Posix.h"
#include "store/ItemFile.h"
#include "store/Sqlite.h"
#include "support/FileCalls.h"
#include "support/Reason.h"

namespace agent {
namespace {

using testing::HasSubstr;

constexpr std::size_t kHeaderBytes = 72, kFooterBytes = 56;

class ItemFileTest : public testing::Test {
 protected:
  static store::ItemMeta metaOf(const std::string& content) {
    Digest digest(Digest::Kind::kSha256);
    digest.add(content.data(), content.size());
    store::ItemMeta meta;
    meta.uuid = "some-uuid";
    meta.realPath = "/some/path";
    meta.size = content.size();
    meta.sha256 = digest.hex();
    return meta;
  }
  /// The bytes of an item with that content; its meta data may differ.
  std::string itemOf(const std::string& content, const store::ItemMeta& meta) const {
    const platform::Descriptor fd(::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    store::ItemWriter writer(fd.get(), UINT64_MAX);
    writer.add(content.data(), content.size());
    writer.finish(meta);
    return testsupport::readFile(path_);
  }
  std::string itemOf(const std::string& content) const { return itemOf(content, metaOf(content)); }
  std::string damageOf(const std::string& bytes) const {
    std::ofstream(path_, std::ios::binary) << bytes;
    const platform::Descriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    const auto whole = store::checkItem(fd.get());
    return whole ? "" : whole.error();
  }
  static std::string littleEndian(std::uint64_t number) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) {
      bytes += static_cast<char>(number >> (8 * i));
    }
    return bytes;
  }

  testsupport::TempDir folder_;
  const std::string path_ = folder_.at("item");
};

TEST_F(ItemFileTest, AnItemAsItWasWrittenIsWhole) {
  for (const std::string& content :
       {std::string(), std::string("x"), std::string(200'000, 'x'), testsupport::noise(300'000)}) {
    EXPECT_EQ(damageOf(itemOf(content)), "");
  }
}

TEST_F(ItemFileTest, TheSameContentIsStoredOtherwiseEachTime) {
  const std::string first = itemOf("content"), second = itemOf("content");
  EXPECT_EQ(first.substr(0, 8), second.substr(0, 8));
  for (const auto& [at, size] : {std::pair{8U, 32U}, {40U, 16U}, {56U, 16U}, {72U, 10U}}) {
    EXPECT_NE(first.substr(at, size), second.substr(at, size)) << at;
  }
}

TEST_F(ItemFileTest, AChangeOfAnyByteIsSeen) {
  const std::string item = itemOf("content");
  for (std::size_t i = 0; i < item.size(); ++i) {
    std::string changed = item;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_THAT(damageOf(changed), HasSubstr("is damaged")) << i << " of " << item.size();
  }
}

TEST_F(ItemFileTest, LengthsThatAreNotTheFilesAreRefused) {
  const std::string item = itemOf("content");
  const std::string footer = item.substr(item.size() - kFooterBytes);
  const auto withLengths = [&](std::uint64_t content, std::uint64_t meta) {
    return item.substr(0, item.size() - kFooterBytes) + littleEndian(content) + littleEndian(meta) +
           footer.substr(16);
  };
  const std::uint64_t between = item.size() - kHeaderBytes - kFooterBytes;
  for (const std::string& bytes :
       {item.substr(0, item.size() - kFooterBytes) + "more" + footer, withLengths(between + 1, 0),
        withLengths(0, between + 1), withLengths(UINT64_MAX, between + 1),
        withLengths(std::uint64_t{0} - 10, between + 10)}) {
    EXPECT_EQ(damageOf(bytes), "is damaged: its file is not as long as it says");
  }
}

TEST_F(ItemFileTest, ARecordOfMoreThanSixteenMebibytesIsNotRead) {
  const std::string item = itemOf("content");
  const std::uint64_t record = (16U << 20) + 1;
  const std::string footer = item.substr(item.size() - kFooterBytes);
  EXPECT_EQ(damageOf(item.substr(0, kHeaderBytes) + std::string(record, '\0') + littleEndian(0) +
                     littleEndian(record) + footer.substr(16)),
            "is damaged: its file is not as long as it says");
}

TEST_F(ItemFileTest, ContentThatIsNotAsLongAsItsRecordSaysIsRefused) {
  for (const std::uint64_t size : {0U, 6U, 8U, 1000U}) {
    store::ItemMeta meta = metaOf("content");
    meta.size = size;
    EXPECT_EQ(damageOf(itemOf("content", meta)), "is damaged: its content is not as long as the file was");
  }
}

TEST_F(ItemFileTest, ContentWithoutItsChecksumIsRefusedThoughTheWholeFileIsThere) {
  const std::string item = itemOf("content");
  const std::size_t footer = item.size() - kFooterBytes;
  const auto content = static_cast<std::size_t>(static_cast<unsigned char>(item[footer]));  // its low byte
  constexpr std::size_t kChecksumBytes = 4;  // the last of the compressed content
  EXPECT_EQ(damageOf(item.substr(0, kHeaderBytes + content - kChecksumBytes) +
                     item.substr(kHeaderBytes + content, footer - kHeaderBytes - content) +
                     littleEndian(content - kChecksumBytes) + item.substr(footer + 8)),
            "is damaged: its content ends too early");
}

TEST_F(ItemFileTest, ContentWhoseChecksumIsWrongCannotBeDecompressed) {
  const std::string item = itemOf("content");
  const auto content = static_cast<std::size_t>(static_cast<unsigned char>(item[item.size() - kFooterBytes]));
  for (std::size_t fromEnd = 1; fromEnd <= 4; ++fromEnd) {
    std::string changed = item;
    char& byte = changed[kHeaderBytes + content - fromEnd];
    byte = static_cast<char>(byte ^ 1);
    EXPECT_EQ(damageOf(changed), "is damaged: its content cannot be decompressed") << fromEnd;
  }
}

TEST_F(ItemFileTest, ContentThatGoesOnBehindItsLengthIsRefusedBeforeItsEnd) {
  const std::string content(200'000, 'x');
  store::ItemMeta meta = metaOf(content);
  meta.size = 10;
  itemOf(content, meta);
  const platform::Descriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  store::ItemReader reader(fd.get());
  char buffer[100];
  try {
    reader.read(buffer, sizeof buffer);
    ADD_FAILURE() << "it was read";
  } catch (const store::StoreError& error) {
    EXPECT_STREQ(error.what(), "is damaged: its content is not as long as the file was");
  }
}

TEST_F(ItemFileTest, ContentOfAnotherDigestThanItsRecordSaysIsRefused) {
  EXPECT_EQ(damageOf(itemOf("content", metaOf("CONTENT"))), "is damaged: its content was changed");
}

TEST_F(ItemFileTest, AFileThatIsCutWhileItIsReadIsRefused) {
  itemOf(std::string(1000, 'x'));
  const platform::Descriptor fd(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
  store::ItemReader reader(fd.get());
  ASSERT_EQ(::ftruncate(fd.get(), kHeaderBytes), 0);
  char buffer[100];
  try {
    reader.read(buffer, sizeof buffer);
    ADD_FAILURE() << "it was read";
  } catch (const store::StoreError& error) {
    EXPECT_STREQ(error.what(), "is damaged: its file cannot be read");
  }
}

TEST_F(ItemFileTest, AFileThatTheDiskDoesNotReadIsRefusedWithTheReason) {
  itemOf("content");
  const platform::Descriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  testsupport::FileCalls calls;
  calls.fail("read ", "item", EIO);
  EXPECT_EQ(testsupport::reasonOf(store::checkItem(fd.get())), "is damaged: Input/output error");
}

TEST_F(ItemFileTest, NoMoreIsWrittenThanIsAllowed) {
  const platform::Descriptor fd(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  store::ItemWriter writer(fd.get(), 100);
  const std::string content = "a text of thirty bytes, or so";
  EXPECT_THROW(
      {
        writer.add(content.data(), content.size());
        writer.finish(metaOf(content));
      },
      store::StoreError);
  struct stat st {};
  ASSERT_EQ(::fstat(fd.get(), &st), 0);
  EXPECT_LE(st.st_size, 100);
}

TEST_F(ItemFileTest, AnItemMayBeAsLongAsIsAllowedAndNotAByteLonger) {
  const std::string content = "a text of thirty bytes, or so";
  const std::uint64_t size = itemOf(content).size();
  const auto writeWithin = [&](std::uint64_t allowed) {
    const platform::Descriptor fd(::open(path_.c_str(), O_RDWR | O_TRUNC | O_CLOEXEC));
    store::ItemWriter writer(fd.get(), allowed);
    writer.add(content.data(), content.size());
    writer.finish(metaOf(content));
    return writer.written();
  };
  EXPECT_EQ(writeWithin(size), size);
  EXPECT_THROW(writeWithin(size - 1), store::StoreError);
}

TEST_F(ItemFileTest, MetaDataMayBeAsLongAsTheReaderAllowsAndNotAByteLonger) {
  store::ItemMeta meta = metaOf("content");
  meta.fileType = std::string((16 << 20) - meta.toText().size(), 'x');
  EXPECT_EQ(damageOf(itemOf("content", meta)), "");
  meta.fileType += 'x';
  EXPECT_THROW(itemOf("content", meta), store::StoreError);
}

TEST_F(ItemFileTest, MetaDataThatIsNoRecordIsDamageThoughItsHashIsRight) {
  store::ItemMeta meta = metaOf("content");
  meta.uuid.clear();
  EXPECT_EQ(damageOf(itemOf("content", meta)), "is damaged: what it says of the file was changed");
}

// The record.

struct BadRecord {
  const char* name;
  const char* member;
  const char* value;
};
void PrintTo(const BadRecord& bad, std::ostream* out) {
  *out << bad.name;
}
class BadRecordTest : public ItemFileTest, public testing::WithParamInterface<BadRecord> {};
INSTANTIATE_TEST_SUITE_P(Members, BadRecordTest,
                         testing::Values(BadRecord{"OfAnotherVersion", "version", "2"},
                                         BadRecord{"WithoutUuid", "uuid", "\"\""},
                                         BadRecord{"WithARelativePath", "real_path", "\"some/path\""},
                                         BadRecord{"WithAShortDigest", "sha256", "\"abc\""},
                                         BadRecord{"WhoseAttributesAreNoList", "xattrs", "{}"},
                                         BadRecord{"WhoseAttributesAreNoObjects", "xattrs", "[1]"},
                                         BadRecord{"WithAnAttributeThatIsNotHexadecimal", "xattrs",
                                                   R"([{"name":"user.a","value":"0"}])"}),
                         [](const auto& bad) { return std::string(bad.param.name); });

TEST_P(BadRecordTest, IsNone) {
  Json::Value record = testsupport::jsonOf(metaOf("content").toText());
  const auto read = [&record] { return store::ItemMeta::fromText(testsupport::jsonText(record)); };
  EXPECT_TRUE(read()) << "as it was written";
  record[GetParam().member] = testsupport::jsonOf(GetParam().value);
  EXPECT_FALSE(read());
}

}  // namespace
}  // namespace agent
