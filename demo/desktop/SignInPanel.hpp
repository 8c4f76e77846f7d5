#pragma once

#include <QLabel>
#include <QPushButton>
#include <QWidget>
#include <string>
#include <thread>

namespace vantor::desktop {

/// "Sign in" and the signed-in name. The button runs the account
/// controller's sign-in; headless Chromium fills in the local OpenID
/// provider's pages, and the redirect comes back to the controller's
/// loopback listener by itself.
class SignInPanel : public QWidget {
 public:
  /// `login` is the name to sign in with on the provider's pages.
  explicit SignInPanel(std::string login, QWidget* parent = nullptr);
  ~SignInPanel() override;

 private:
  void signIn();
  void signOut();
  void showSignedIn();

  std::string login_;
  QLabel* name_;
  QPushButton* button_;
  std::thread browser_;
};

}  // namespace vantor::desktop
