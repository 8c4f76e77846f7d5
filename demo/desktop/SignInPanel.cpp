#include "SignInPanel.hpp"

#include <QHBoxLayout>
#include <QPointer>
#include <optional>
#include <vantor/account/QMQuelmoConnectController.hpp>
#include <vantor/account/QMWorkspace.hpp>
#include <vantor/platform/EventLoop.hpp>

#include "LocalSignIn.hpp"

namespace vantor::desktop {

using account::QMQuelmoConnectController;

SignInPanel::SignInPanel(std::string login, std::string redirectPrefix, QWidget* parent)
    : QWidget(parent),
      login_(std::move(login)),
      redirectPrefix_(std::move(redirectPrefix)),
      name_(new QLabel(this)),
      button_(new QPushButton(this)) {
  name_->setObjectName("account");
  button_->setObjectName("signIn");
  auto* row = new QHBoxLayout(this);
  row->setContentsMargins(0, 0, 0, 0);
  row->addWidget(name_);
  row->addWidget(button_);
  QObject::connect(button_, &QPushButton::clicked, this, [this] {
    if (QMQuelmoConnectController::shared().isLoggedIn()) {
      signOut();
    } else {
      signIn();
    }
  });

  // login() opens the provider's page through the workspace, on this thread:
  // here headless Chromium signs in on it, on a thread of its own, and the
  // redirect comes back to this thread through the library's loop, which the
  // Qt integration runs here. (A call from that thread would wait for this
  // one, which may be joining it.)
  account::QMWorkspace::setOpener([this](const std::string& url) {
    if (browser_.joinable()) {
      browser_.join();
    }
    browser_ = std::thread([this, url, self = QPointer<SignInPanel>(this)]() mutable {
      auto redirect = account::testing::signInWithHeadlessBrowser(url, redirectPrefix_, login_);
      platform::EventLoop::main().post([self = std::move(self), redirect = std::move(redirect)] {
        if (!self) {
          return;
        }
        if (!redirect) {
          self->name_->setText("the browser did not come back");
          self->button_->setEnabled(true);
          return;
        }
        try {
          QMQuelmoConnectController::shared().handleOAuthResponse(*redirect);
        } catch (const account::QMQuelmoConnectControllerException& e) {
          self->name_->setText(QString::fromStdString(account::localizedDescription(e.error())));
        }
      });
    });
    return true;
  });
  showSignedIn();
}

SignInPanel::~SignInPanel() {
  account::QMWorkspace::setOpener(nullptr);
  if (browser_.joinable()) {
    browser_.join();
  }
}

void SignInPanel::signIn() {
  button_->setEnabled(false);
  name_->setText("signing in…");
  QPointer<SignInPanel> self(this);
  QMQuelmoConnectController::shared().login().pipe(
      [self](const util::QMPromiseResult<std::shared_ptr<account::QMAccount>>& result) {
        if (!self) {
          return;
        }
        self->showSignedIn();
        if (!result.isFulfilled()) {
          try {
            (void)result.value();
          } catch (const account::QMQuelmoConnectControllerException& e) {
            self->name_->setText(QString::fromStdString(account::localizedDescription(e.error())));
          } catch (const std::exception& e) {
            self->name_->setText(e.what());
          }
        }
      });
}

void SignInPanel::signOut() {
  QMQuelmoConnectController::shared().logout();
  showSignedIn();
}

void SignInPanel::showSignedIn() {
  button_->setEnabled(true);
  auto& controller = QMQuelmoConnectController::shared();
  const auto account = controller.account();
  if (controller.isLoggedIn() && account) {
    name_->setText("signed in as " + QString::fromStdString(account->identifier().value_or("?")));
    button_->setText("Sign out");
  } else {
    name_->setText("not signed in");
    button_->setText("Sign in");
  }
}

}  // namespace vantor::desktop
