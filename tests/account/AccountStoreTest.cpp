#include "AccountStore.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "ScratchDirectory.hpp"

namespace vantor::account::detail {
namespace {

namespace fs = std::filesystem;

class AccountStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = scratch_.path();
    file_ = root_ / "config" / "com.example.notes" / "accounts.json";
  }

  static std::string read(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  static unsigned mode(const fs::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 0777;
  }
  std::vector<fs::path> filesBeside() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(file_.parent_path())) {
      files.push_back(entry.path().filename());
    }
    return files;
  }

  testing::ScratchDirectory scratch_{"vantor-store"};
  fs::path root_;
  fs::path file_;
};

StoredAccount alice() {
  StoredAccount account;
  account.uuid = "0A1B2C3D-0000-4000-8000-000000000001";
  account.classTypeIdentifier = "com.quelmo.accounts.QMQuelmoConnectAccount";
  account.serviceName = "Quelmo Connect";
  account.identifier = "alice";
  account.email = "alice@example.test";
  account.tokens.accessToken = "access-1";
  account.tokens.refreshToken = "refresh-1";
  account.tokens.tokenType = "Bearer";
  account.tokens.expiresAt = std::chrono::system_clock::time_point(std::chrono::seconds(1900000000));
  return account;
}

TEST_F(AccountStoreTest, KeepsAccountsPrivatelyAcrossInstances) {
  AccountStore store(file_);
  EXPECT_TRUE(store.load().empty()) << "no file yet";
  auto bob = alice();
  bob.uuid = "0A1B2C3D-0000-4000-8000-000000000002";
  bob.email.reset();
  bob.tokens = {};
  ASSERT_TRUE(store.save({alice(), bob}));

  EXPECT_EQ(AccountStore(file_).load(), (std::vector<StoredAccount>{alice(), bob}));
  EXPECT_EQ(mode(file_.parent_path()), 0700u);
  EXPECT_EQ(mode(file_), 0600u);
  EXPECT_EQ(filesBeside(), std::vector<fs::path>{"accounts.json"}) << "no temporary file left";
}

TEST_F(AccountStoreTest, TightensAnExistingFolderAndFile) {
  fs::create_directories(file_.parent_path());
  fs::permissions(file_.parent_path(), fs::perms(0755));
  std::ofstream(file_) << R"({"version":1,"accounts":[]})";
  fs::permissions(file_, fs::perms(0644));
  ASSERT_TRUE(AccountStore(file_).save({alice()}));
  EXPECT_EQ(mode(file_.parent_path()), 0700u);
  EXPECT_EQ(mode(file_), 0600u);
}

TEST_F(AccountStoreTest, RemovingAnAccountRemovesItsTokensFromTheFile) {
  AccountStore store(file_);
  ASSERT_TRUE(store.save({alice()}));
  ASSERT_NE(read(file_).find("refresh-1"), std::string::npos);
  ASSERT_TRUE(store.save({}));
  EXPECT_EQ(read(file_).find("refresh-1"), std::string::npos);
  EXPECT_EQ(read(file_).find("access-1"), std::string::npos);
}

class CorruptStoreTest : public AccountStoreTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(CorruptStoreTest, IsMovedAsideAndTakenAsEmpty) {
  fs::create_directories(file_.parent_path());
  std::ofstream(file_) << GetParam();
  AccountStore store(file_);
  EXPECT_TRUE(store.load().empty());
  auto files = filesBeside();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].string().rfind("accounts.json.corrupt-", 0), 0u);
  EXPECT_EQ(read(file_.parent_path() / files[0]), GetParam()) << "kept as it was";

  // Saving afterwards starts a fresh store beside the kept one.
  ASSERT_TRUE(store.save({alice()}));
  EXPECT_EQ(store.load().size(), 1u);
  EXPECT_EQ(filesBeside().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Files, CorruptStoreTest,
    ::testing::Values("{\"version\":1,\"accounts\":[{\"uuid\":\"A\",\"cla",  // cut short
                      "not json at all", R"([1,2,3])", R"({"version":2,"accounts":[]})",
                      R"({"version":1,"accounts":[{"uuid":7}]})",
                      R"({"version":1,"accounts":[{"uuid":"","class":"x","tokens":{}}]})"));

TEST_F(AccountStoreTest, ReplacesTheFileWholeInsteadOfRewritingIt) {
  AccountStore store(file_);
  ASSERT_TRUE(store.save({alice()}));
  auto before = read(file_);
  // A second name for the old file shows whether it was ever written to
  // again: a crash in the middle of a save must not leave half a store.
  auto kept = root_ / "kept.json";
  fs::create_hard_link(file_, kept);
  ASSERT_TRUE(store.save({}));
  EXPECT_EQ(read(kept), before);
  EXPECT_NE(read(file_), before);
}

TEST(UserConfigurationDirectoryTest, FollowsXdgWithTheHomeFolderAsFallback) {
  std::map<std::string, const char*> variables;
  auto environment = [&variables](const char* name) -> const char* {
    auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second;
  };
  variables["HOME"] = "/home/ann";
#if defined(__APPLE__)
  EXPECT_EQ(userConfigurationDirectory(environment), "/home/ann/Library/Application Support");
#else
  EXPECT_EQ(userConfigurationDirectory(environment), "/home/ann/.config");
  variables["XDG_CONFIG_HOME"] = "/tmp/xdg";
  EXPECT_EQ(userConfigurationDirectory(environment), "/tmp/xdg");
  variables["XDG_CONFIG_HOME"] = "relative/xdg";
  EXPECT_EQ(userConfigurationDirectory(environment), "/home/ann/.config");
#endif
}

}  // namespace
}  // namespace vantor::account::detail
