#pragma once

#include <QLabel>
#include <QPushButton>
#include <QWidget>
#include <string>
#include <thread>

namespace vantor::desktop {

/// "Sign in" and the signed-in name. The button runs the account
/// controller's sign-in; the local OpenID provider's pages are filled in by
/// headless Chromium, which hands the redirect back to the window.
class SignInPanel : public QWidget {
 public:
  /// `login` is the name to sign in with on the provider's pages; the
  /// redirect the browser brings back starts with `redirectPrefix`.
  SignInPanel(std::string login, std::string redirectPrefix, QWidget* parent = nullptr);
  ~SignInPanel() override;

 private:
  void signIn();
  void signOut();
  void showSignedIn();

  std::string login_;
  std::string redirectPrefix_;
  QLabel* name_;
  QPushButton* button_;
  std::thread browser_;
};

}  // namespace vantor::desktop
