#include "ui/MessageBoxMoveAlerts.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

namespace quellix {
namespace {

struct SeenAlert {
  QString text;
  QString informativeText;
  QStringList buttons;
  QString defaultButton;
};

// Reads the alert once it is up and answers it with the button titled `answer`.
void answerNextAlert(SeenAlert& seen, const QString& answer) {
  QTimer::singleShot(0, [&seen, answer] {
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    ASSERT_NE(box, nullptr);
    seen.text = box->text();
    seen.informativeText = box->informativeText();
    for (QAbstractButton* button : box->buttons()) {
      seen.buttons << button->text();
    }
    seen.defaultButton = box->defaultButton() ? box->defaultButton()->text() : QString();
    for (QAbstractButton* button : box->buttons()) {
      if (button->text() == answer || answer.isEmpty()) {
        button->click();
        return;
      }
    }
    box->reject();
  });
}

TEST(MessageBoxMoveAlerts, OfferAsksWithMoveAsTheDefault) {
  MessageBoxMoveAlerts alerts;
  for (const auto& [answer, moves] :
       {std::pair{"Verschieben und starten", true}, std::pair{"Später", false}}) {
    SeenAlert seen;
    answerNextAlert(seen, QString::fromUtf8(answer));
    EXPECT_EQ(alerts.offer(), moves) << answer;
    EXPECT_EQ(seen.text, "Quellix in den Ordner ~/Applications verschieben?");
    EXPECT_EQ(seen.informativeText,
              "Quellix läuft gerade aus dem Ordner, in den es geladen oder kopiert wurde. "
              "Empfohlen: einmal nach ~/Applications in deinem Home-Ordner verschieben, dann "
              "startet es künftig von dort und erscheint bei deinen Programmen.");
    EXPECT_EQ(seen.buttons, QStringList({"Verschieben und starten", "Später"}));
    EXPECT_EQ(seen.defaultButton, "Verschieben und starten");
  }
}

TEST(MessageBoxMoveAlerts, FailureHasOneButton) {
  MessageBoxMoveAlerts alerts;
  SeenAlert seen;
  answerNextAlert(seen, {});
  alerts.showFailure();
  EXPECT_EQ(seen.text, "Verschieben fehlgeschlagen");
  EXPECT_EQ(seen.informativeText,
            "Bitte verschiebe den Ordner Quellix selbst nach ~/Applications.");
  EXPECT_EQ(seen.buttons.size(), 1);
}

}  // namespace
}  // namespace quellix
