// Tokens in the desktop's Secret Service: a real gnome-keyring-daemon on a
// private session bus (dbus-run-session) that the test starts, and the
// fall-back to the file when the bus has no usable keyring.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "AccountStore.hpp"
#include "ChildProcess.hpp"
#include "ScratchDirectory.hpp"
#include "SecretStore.hpp"

namespace vantor::account::detail {
namespace {

namespace fs = std::filesystem;

// Set in the copy of this program that runs on the private bus.
constexpr const char* insideMarker = "VANTOR_TEST_ON_PRIVATE_BUS";

StoredAccount alice() {
  StoredAccount account;
  account.uuid = "0A1B2C3D-0000-4000-8000-0000000000A1";
  account.classTypeIdentifier = "com.quelmo.accounts.QMQuelmoConnectAccount";
  account.identifier = "alice";
  account.tokens.accessToken = "access-1";
  account.tokens.refreshToken = "refresh-1";
  account.tokens.expiresAt = std::chrono::system_clock::time_point(std::chrono::seconds(1900000000));
  return account;
}

std::string read(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

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

class SecretServiceTest : public ::testing::Test {
 protected:
  static bool inside() { return std::getenv(insideMarker) != nullptr; }

  testing::ScratchDirectory scratch_{"vantor-secret-store"};
  fs::path file_ = scratch_.path() / "com.example.notes" / "accounts.json";
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
