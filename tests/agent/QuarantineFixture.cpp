#include "QuarantineFixture.h"

#include <sys/xattr.h>

#include <algorithm>

namespace agent {
namespace {

std::map<std::string, std::string> attributesOf(const std::string& path) {
  std::map<std::string, std::string> attributes;
  std::string names(4096, '\0'), value(4096, '\0');
  const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
  for (std::size_t i = 0; size > 0 && i < static_cast<std::size_t>(size);) {
    const std::string name = names.c_str() + i;
    const ssize_t length = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    attributes[name] = value.substr(0, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    i += name.size() + 1;
  }
  return attributes;
}

}  // namespace

FileFacts FileFacts::of(const std::string& path) {
  FileFacts facts;
  struct stat st {};
  facts.there = ::lstat(path.c_str(), &st) == 0;
  if (facts.there) {
    facts.mode = st.st_mode & 07777;
    facts.uid = st.st_uid;
    facts.gid = st.st_gid;
    facts.accessNs = toNs(st.st_atim);
    facts.modifyNs = toNs(st.st_mtim);
    facts.attributes = attributesOf(path);
    facts.content = testsupport::readFile(path);
    // Reading changed the access time.
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  return facts;
}

void PrintTo(const FileFacts& facts, std::ostream* out) {
  *out << (facts.there ? "" : "absent ") << facts.content.size() << " bytes, mode " << std::oct << facts.mode
       << std::dec << ", " << facts.uid << ":" << facts.gid << ", access " << facts.accessNs << ", modify "
       << facts.modifyNs << ", attributes";
  for (const auto& [name, value] : facts.attributes) {
    *out << " " << name << "(" << value.size() << ")";
  }
}

void QuarantineTest::SetUp() {
  ASSERT_EQ(::geteuid(), 0U) << "these tests act as two users: run them as root";
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(folder_.at("files").c_str(), 0755), 0);
  StoreTest::SetUp();
}

std::string QuarantineTest::write(const std::string& name, const std::string& content) const {
  return folder_.write("files/" + name, content);
}

std::string QuarantineTest::writeRich(const std::string& name) const {
  std::string path = write(name, std::string(100'000, 'x') + name + std::string("\0\x80\xff", 3));
  EXPECT_EQ(::chown(path.c_str(), 1234, 5678), 0);
  EXPECT_EQ(::chmod(path.c_str(), 06751), 0);
  EXPECT_EQ(::setxattr(path.c_str(), "user.origin", "somewhere\0else", 14, 0), 0);
  const unsigned char capability[] = {1, 0, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(::setxattr(path.c_str(), "security.capability", capability, sizeof capability, 0), 0);
  const timespec times[2] = {{1'000'000'001, 123'456'789}, {987'654'321, 1}};
  EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  return path;
}

QuarantineRequest QuarantineTest::requestFor(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  QuarantineRequest request;
  request.path = path;
  request.identity = FileIdentity::of(st);
  request.detection = {.name = "Test.Detection",
                       .engineCode = json::kEngineRda,
                       .riskType = json::RiskType::kTestFile,
                       .riskTypeName = "测试"};
  return request;
}

platform::Expected<Remark> QuarantineTest::restore(const std::string& uuid, const CallerId& caller,
                                                   const std::string& target, bool trust) {
  const auto outcomes = store().quarantine().restore({uuid}, false, trust, target, caller);
  EXPECT_EQ(outcomes.size(), 1U);
  EXPECT_EQ(outcomes.at(0).uuid, uuid);
  EXPECT_EQ(lineOf(outcomes.at(0).result).find('\n'), std::string::npos);
  return outcomes.at(0).result;
}

std::string QuarantineTest::uuidOf(const std::string& path) {
  for (const Json::Value& item : items()) {
    if (json::decodePath(item["filepath_src"].asString()) == path) {
      return item["uuid"].asString();
    }
  }
  return {};
}

std::string QuarantineTest::take(const std::string& path) {
  const auto result = add(path);
  EXPECT_TRUE(result) << lineOf(result);
  EXPECT_FALSE(std::filesystem::exists(path));
  return uuidOf(path);
}

std::vector<std::string> QuarantineTest::namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void QuarantineTest::before(const std::string& step, std::function<void()> what) {
  store::stepHook = [step, what = std::move(what), done = false](const char* now) mutable {
    if (!done && step == now) {
      done = true;
      what();
    }
  };
}

void QuarantineTest::exitAt(const std::string& step) {
  before(step, [] { ::_exit(77); });
}

void QuarantineTest::sql(const char* text) {
  store::Database(stateDir() + "/agent.db", store::Durability::kFull).run(text);
}

int QuarantineTest::inChild(const std::function<void()>& what) {
  const pid_t child = ::fork();
  if (child == 0) {
    what();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace agent
