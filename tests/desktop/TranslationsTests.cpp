#include "desktop/runtime/Translations.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTranslator>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace quellix {
namespace {

constexpr const char* kContext = "SelfMover";
constexpr const char* kGermanText = "Später";
constexpr const char* kEnglishText = "Later";

// Whichever language is installed, the texts are its own; without one they stay German.
class TranslationsTest
    : public ::testing::TestWithParam<std::pair<QStringList, QString /* installed */>> {
 protected:
  static void SetUpTestSuite() {
    static int argc = 1;
    static char name[] = "translations-tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) {
      static QCoreApplication application(argc, argv);
    }
  }

  // Each case starts from the German texts.
  void TearDown() override {
    for (QTranslator* translator : QCoreApplication::instance()->findChildren<QTranslator*>()) {
      delete translator;
    }
  }
};

TEST_P(TranslationsTest, PicksTheFirstLanguageWithATranslationAndStopsAtGerman) {
  const auto& [languages, installed] = GetParam();
  EXPECT_EQ(installTranslations(*QCoreApplication::instance(), languages), installed);
  EXPECT_EQ(QCoreApplication::translate(kContext, kGermanText),
            QString::fromUtf8(installed.isEmpty() ? kGermanText : kEnglishText));
}

using Row = std::pair<QStringList, QString>;
INSTANTIATE_TEST_SUITE_P(Languages, TranslationsTest,
                         ::testing::Values(Row{{"en-US"}, "en"}, Row{{"en-GB", "en"}, "en"},
                                           Row{{"en_US.UTF-8"}, "en"}, Row{{"de-DE"}, {}},
                                           Row{{"de-AT", "en-US"}, {}}, Row{{"fr-FR"}, {}},
                                           Row{{"fr-FR", "en-GB"}, "en"}, Row{{"C"}, {}},
                                           Row{{}, {}}));

[[noreturn]] void reportInstalledLanguage() {
  int argc = 1;
  char name[] = "translations-tests";
  char* argv[] = {name, nullptr};
  QCoreApplication application(argc, argv);
  const QString installed = installTranslations(application);
  std::fprintf(stderr, "installed=%s;\n", qPrintable(installed));
  std::exit(0);
}

// The user's languages come from the environment a desktop session sets. Each case runs in a
// fresh process, because the system locale is read once.
class SystemLanguageTest
    : public ::testing::TestWithParam<std::tuple<const char* /* LANG */, const char* /* LANGUAGE */,
                                                 const char* /* installed */>> {};

TEST_P(SystemLanguageTest, FollowsTheSessionsLocale) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto& [lang, language, installed] = GetParam();
  ::setenv("LANG", lang, 1);
  ::unsetenv("LC_ALL");
  ::unsetenv("LC_MESSAGES");
  if (*language == '\0') {
    ::unsetenv("LANGUAGE");
  } else {
    ::setenv("LANGUAGE", language, 1);
  }
  EXPECT_EXIT(reportInstalledLanguage(), ::testing::ExitedWithCode(0),
              std::string("installed=") + installed + ";");
}

INSTANTIATE_TEST_SUITE_P(Sessions, SystemLanguageTest,
                         ::testing::Values(std::make_tuple("en_US.UTF-8", "", "en"),
                                           std::make_tuple("en_GB.UTF-8", "en_GB:en", "en"),
                                           std::make_tuple("de_DE.UTF-8", "", ""),
                                           std::make_tuple("en_US.UTF-8", "de_DE:en_US", ""),
                                           std::make_tuple("fr_FR.UTF-8", "", ""),
                                           std::make_tuple("C.UTF-8", "", "")));

}  // namespace
}  // namespace quellix
