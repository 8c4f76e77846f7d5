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

SignInPanel::SignInPanel(std::string login, QWidget* parent)
    : QWidget(parent),
      login_(std::move(login)),
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

  // login() opens the provider's page through the workspace, on this
  // thread: headless Chromium fills it in, on a thread of its own, and the
  // provider's redirect goes to the controller's loopback listener by
  // itself. Only a browser that failed is reported back, through the
  // library's loop, which the Qt integration runs here.
  account::QMWorkspace::setOpener([this](const std::string& url) {
    if (browser_.joinable()) {
      browser_.join();
    }
    browser_ = std::thread([this, url, self = QPointer<SignInPanel>(this)]() mutable {
      if (account::testing::fillInSignInPages(url, login_, account::testing::RedirectHandOff::loopback)) {
        return;
      }
      platform::EventLoop::main().post([self = std::move(self)] {
        if (self) {
          self->name_->setText("the browser did not finish");
          self->button_->setEnabled(true);
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
