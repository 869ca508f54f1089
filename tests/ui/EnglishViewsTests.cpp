#include <gtest/gtest.h>

#include <QPushButton>
#include <QTest>
#include <QTranslator>

#include "desktop/runtime/Translations.h"
#include "ui/AboutView.h"
#include "ui/AppRowView.h"
#include "ui/MenuBarView.h"
#include "ui/OnboardingView.h"
#include "ui/PanelTestSupport.h"
#include "ui/PlainButton.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

// Everything a view shows in words: its labels, and its buttons' own texts.
QStringList shownTexts(const QWidget& view) {
  QStringList texts;
  // The views' own widgets carry no meta-object of their own: ask C++, not Qt, what they are.
  for (const QWidget* widget : view.findChildren<QWidget*>()) {
    if (const auto* label = dynamic_cast<const TextLabel*>(widget)) {
      texts << label->text();
    } else if (const auto* button = dynamic_cast<const QAbstractButton*>(widget);
               button != nullptr && !button->text().isEmpty()) {
      texts << button->text();
    }
  }
  return texts;
}

// A German word no English text of ours contains.
bool looksGerman(const QString& text) {
  for (const char* word :
       {"App mit", "Apps mit", "stummgeschaltet", "stummschalten", "Alle ", "Anmeldung", "Über",
        "Beenden", "Weiter", "Zurück", "Willkommen", "gemutet", "Ruhe", "kostenloses"}) {
    if (text.contains(QString::fromUtf8(word))) {
      return true;
    }
  }
  return false;
}

class EnglishViewsTest : public testing::ViewTest {
 protected:
  void SetUp() override {
    ViewTest::SetUp();
    ASSERT_EQ(installTranslations(*QCoreApplication::instance(), {"en-GB"}), "en");
  }
  void TearDown() override {
    for (QTranslator* translator : QCoreApplication::instance()->findChildren<QTranslator*>()) {
      delete translator;
    }
    ViewTest::TearDown();
  }

  void expectEnglish(const QWidget& view) {
    const QStringList texts = shownTexts(view);
    EXPECT_FALSE(texts.isEmpty());
    for (const QString& text : texts) {
      EXPECT_FALSE(looksGerman(text)) << text.toStdString();
    }
  }
};

TEST_F(EnglishViewsTest, AnEnglishDesktopSeesEveryViewInEnglish) {
  addPlayingApp(100, "org.example.Music", "Music");
  addPlayingApp(200, "org.example.Video", "Video");
  AppState& app = start();
  app.monitor().refresh();
  settle();
  app.muter().toggle(app.monitor().apps().get().front());
  settle();

  MenuBarView panel(app);
  panel.show();
  settle();
  ASSERT_EQ(panel.rows().size(), 2u);
  EXPECT_FALSE(looksGerman(panel.rows().front()->rowButton().toolTip()));
  expectEnglish(panel);
  testing::saveRenders(panel, QStringLiteral("en-panel"));

  AboutView about(app, QStringLiteral("1.0.0"));
  about.show();
  settle();
  expectEnglish(about);
  testing::saveRenders(about, QStringLiteral("en-about"));

  OnboardingView onboarding(app, [] {});
  onboarding.show();
  for (int page = 0; page < 4; ++page) {
    settle();
    expectEnglish(onboarding);
    testing::saveRenders(onboarding, QStringLiteral("en-onboarding-%1").arg(page));
    onboarding.forward();
    ui::testing::advanceAnimations(onboarding, OnboardingView::kTransitionMilliseconds);
  }
}

}  // namespace
}  // namespace quellix::ui
