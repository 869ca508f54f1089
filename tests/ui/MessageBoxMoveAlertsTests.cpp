#include "ui/MessageBoxMoveAlerts.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <functional>

namespace quellix {
namespace {

// Once the alert is up, notes its buttons and clicks the one `choose` picks from them.
void answerNextAlert(QStringList& buttons, std::function<QAbstractButton*(QMessageBox&)> choose) {
  QTimer::singleShot(0, [&buttons, choose] {
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    ASSERT_NE(box, nullptr);
    for (QAbstractButton* button : box->buttons()) {
      buttons << button->text();
    }
    choose(*box)->click();
  });
}

TEST(MessageBoxMoveAlerts, TheOfferMovesOnlyOnItsDefaultButton) {
  MessageBoxMoveAlerts alerts;
  for (const bool takeDefault : {true, false}) {
    QStringList buttons;
    answerNextAlert(buttons, [takeDefault](QMessageBox& box) -> QAbstractButton* {
      return takeDefault ? box.defaultButton() : box.escapeButton();
    });
    EXPECT_EQ(alerts.offer(), takeDefault);
    EXPECT_EQ(buttons.size(), 2);
  }
}

TEST(MessageBoxMoveAlerts, TheFailureHasOneButton) {
  MessageBoxMoveAlerts alerts;
  QStringList buttons;
  answerNextAlert(buttons, [](QMessageBox& box) { return box.buttons().front(); });
  alerts.showFailure();
  EXPECT_EQ(buttons.size(), 1);
}

}  // namespace
}  // namespace quellix
