#include "AccountStore.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "ChildProcess.hpp"
#include "ScratchDirectory.hpp"
#include "SecretStore.hpp"

namespace vantor::account::detail {
namespace {

namespace fs = std::filesystem;

class AccountStoreTest : public ::testing::Test {
 protected:
  static std::string read(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  static unsigned mode(const fs::path& path) {
    return static_cast<unsigned>(fs::status(path).permissions() & fs::perms::all);
  }
  std::vector<fs::path> filesBeside() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(file_.parent_path())) {
      files.push_back(entry.path().filename());
    }
    return files;
  }

  testing::ScratchDirectory scratch_{"vantor-store"};
  fs::path file_ = scratch_.path() / "config" / "com.example.notes" / "accounts.json";
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

  // A folder and file that others could read are tightened.
  fs::permissions(file_.parent_path(), fs::perms(0755));
  fs::permissions(file_, fs::perms(0644));
  ASSERT_TRUE(store.save({alice()}));
  EXPECT_EQ(mode(file_.parent_path()), 0700u);
  EXPECT_EQ(mode(file_), 0600u);
}

TEST_F(AccountStoreTest, ACorruptFileIsMovedAsideAndTakenAsEmpty) {
  for (const std::string corrupt : {
           "{\"version\":1,\"accounts\":[{\"uuid\":\"A\",\"cla",  // cut short
           R"({"version":2,"accounts":[]})", R"({"version":1,"accounts":[{"uuid":7}]})",
           // An expiry that would overflow the clock.
           R"({"version":1,"accounts":[{"uuid":"A","class":"c","tokens":{"expiresAt":9000000000000000000}}]})"}) {
    SCOPED_TRACE(corrupt);
    fs::remove_all(file_.parent_path());
    fs::create_directories(file_.parent_path());
    std::ofstream(file_) << corrupt;
    AccountStore store(file_);
    EXPECT_TRUE(store.load().empty());
    auto files = filesBeside();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].string().rfind("accounts.json.corrupt-", 0), 0u);
    EXPECT_EQ(read(file_.parent_path() / files[0]), corrupt) << "kept as it was";

    // Saving afterwards starts a fresh store beside the kept one.
    ASSERT_TRUE(store.save({alice()}));
    EXPECT_EQ(store.load().size(), 1u);
    EXPECT_EQ(filesBeside().size(), 2u);
  }
}

TEST_F(AccountStoreTest, RefusesFilesItCannotTrustAndLeavesThemAlone) {
  AccountStore store(file_);
  ASSERT_TRUE(store.save({alice()}));
  fs::permissions(file_, fs::perms(0622));
  EXPECT_TRUE(store.load().empty()) << "writable by others";
  fs::permissions(file_, fs::perms(0600));
  EXPECT_EQ(store.load().size(), 1u);

  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(file_.c_str(), 65534, 65534), 0);
    EXPECT_TRUE(store.load().empty()) << "owned by another user";
    ASSERT_EQ(::chown(file_.c_str(), 0, 0), 0);
  }

  std::ofstream(file_, std::ios::app) << std::string(300 * 1024, ' ');
  EXPECT_TRUE(store.load().empty()) << "larger than any store";
  EXPECT_EQ(filesBeside(), std::vector<fs::path>{"accounts.json"}) << "refused, not moved aside";
}

TEST_F(AccountStoreTest, ReplacesTheFileWholeWithoutTheRemovedTokens) {
  AccountStore store(file_);
  ASSERT_TRUE(store.save({alice()}));
  auto before = read(file_);
  ASSERT_NE(before.find("refresh-1"), std::string::npos);
  // A second name for the old file shows whether it was ever written to
  // again: a crash in the middle of a save must not leave half a store.
  auto kept = scratch_.path() / "kept.json";
  fs::create_hard_link(file_, kept);
  ASSERT_TRUE(store.save({}));
  EXPECT_EQ(read(kept), before);
  EXPECT_EQ(read(file_).find("refresh-1"), std::string::npos);
  EXPECT_EQ(read(file_).find("access-1"), std::string::npos);
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


// Tokens in the desktop's Secret Service: a real gnome-keyring-daemon on a
// private session bus (dbus-run-session) that the test starts, and the
// fall-back to the file when the bus has no usable keyring. The marker is set
// in the copy of this program that runs on the private bus.
constexpr const char* insideMarker = "VANTOR_TEST_ON_PRIVATE_BUS";

// Runs `test` of this program again on a private session bus with a scratch
// home, after `prelude` (shell) has run there; true when it passed.
bool passesOnPrivateBus(const std::string& test, const std::string& prelude) {
  testing::ScratchDirectory home("vantor-keyring");
  fs::create_directories(home.path() / "run");
  fs::permissions(home.path() / "run", fs::perms::owner_all);
  // The scratch home is set before the bus starts, so that a daemon the bus
  // starts on demand uses it too. ThreadSanitizer builds are told to ignore
  // GLib's own hand-offs there.
  auto script = std::string(insideMarker) + "=1 TSAN_OPTIONS=\"$TSAN_OPTIONS suppressions=" +
                VANTOR_GLIB_TSAN_SUPPRESSIONS + "\"; export " + insideMarker + " TSAN_OPTIONS; " + prelude +
                "; exec \"$2\" --gtest_filter=\"$3\" 2>&1";
  const auto dir = home.path().string();
  auto run = testing::runToCompletion(
      {"env", "HOME=" + dir, "XDG_DATA_HOME=" + dir + "/data", "XDG_RUNTIME_DIR=" + dir + "/run",
       "dbus-run-session", "--", "sh", "-c", script, "sh", dir, fs::read_symlink("/proc/self/exe").string(), test},
      std::chrono::seconds(60));
  EXPECT_TRUE(run) << "the private bus did not finish";
  if (run && (run->status != 0 || run->output.find("[  PASSED  ] 1 test") == std::string::npos)) {
    ADD_FAILURE() << run->output;
    return false;
  }
  return run.has_value();
}

class SecretServiceTest : public AccountStoreTest {
 protected:
  static bool inside() { return std::getenv(insideMarker) != nullptr; }
};

TEST_F(SecretServiceTest, KeepsTokensInTheKeyringAndTheRestInTheFile) {
  if (!inside()) {
    // The daemon creates and unlocks a "login" keyring with this password.
    EXPECT_TRUE(passesOnPrivateBus("SecretServiceTest.KeepsTokensInTheKeyringAndTheRestInTheFile",
                                   "echo -n test-only | gnome-keyring-daemon --unlock --components=secrets "
                                   ">/dev/null; "
                                   // The daemon returns before it owns its bus name; a request
                                   // made earlier would make the bus start a second one.
                                   "for i in $(seq 200); do dbus-send --session --print-reply "
                                   "--dest=org.freedesktop.DBus /org/freedesktop/DBus "
                                   "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets "
                                   "| grep -q true && break; sleep 0.05; done"));
    return;
  }
  std::shared_ptr<SecretStore> secrets = SecretStore::connect("com.example.notes");
  ASSERT_NE(secrets, nullptr);
  ASSERT_TRUE(AccountStore(file_, secrets).save({alice()}));
  auto text = read(file_);
  EXPECT_EQ(text.find("access-1"), std::string::npos) << text;
  EXPECT_EQ(text.find("refresh-1"), std::string::npos) << text;
  EXPECT_NE(text.find("alice"), std::string::npos) << text;

  AccountStore restarted(file_, SecretStore::connect("com.example.notes"));
  EXPECT_EQ(restarted.load(), std::vector<StoredAccount>{alice()});
  // Without the keyring the account is known but must sign in again.
  auto withoutKeyring = AccountStore(file_).load();
  ASSERT_EQ(withoutKeyring.size(), 1u);
  EXPECT_EQ(withoutKeyring[0].identifier, "alice");
  EXPECT_EQ(withoutKeyring[0].tokens, QMAccountTokens{});

  // Another application's item is another item.
  EXPECT_EQ(SecretStore::connect("com.example.other")->lookup(alice().uuid), std::nullopt);
  ASSERT_TRUE(restarted.save({}));
  EXPECT_EQ(secrets->lookup(alice().uuid), std::nullopt) << "the removed account's tokens are gone";
}

TEST_F(SecretServiceTest, FallsBackToThePrivateFileWithoutAUsableKeyring) {
  if (!inside()) {
    // A bus on which the keyring daemon starts on demand but has no keyring.
    EXPECT_TRUE(passesOnPrivateBus("SecretServiceTest.FallsBackToThePrivateFileWithoutAUsableKeyring", "true"));
    // And no bus at all.
    auto bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string saved = bus ? bus : "";
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_EQ(SecretStore::connect("com.example.notes"), nullptr);
    if (bus) {
      ::setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
    }
    return;
  }
  EXPECT_EQ(SecretStore::connect("com.example.notes"), nullptr);
}

}  // namespace
}  // namespace vantor::account::detail
