#include "desktop/runtime/Translations.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLocale>
#include <QTranslator>
#include <memory>

namespace quellix {
namespace {

constexpr const char* kSourceLanguage = "de";
constexpr const char* kFilePrefix = "quellix_";

// "en_GB.UTF-8" and "en-GB" both become "en_GB"; a modifier ("@euro") is dropped.
QString localeName(const QString& language) {
  QString name = language.section(QLatin1Char('.'), 0, 0).section(QLatin1Char('@'), 0, 0);
  name.replace(QLatin1Char('-'), QLatin1Char('_'));
  return name;
}

}  // namespace

QString installTranslations(QCoreApplication& application) {
  return installTranslations(application, QLocale::system().uiLanguages());
}

QString installTranslations(QCoreApplication& application, const QStringList& languages) {
  for (const QString& language : languages) {
    const QString name = localeName(language);
    const QString base = name.section(QLatin1Char('_'), 0, 0);
    if (base == QLatin1String(kSourceLanguage)) {
      // The texts already are German; a later language in the list must not replace them.
      return {};
    }
    for (const QString& candidate : {name, base}) {
      // Checked first because the loader would otherwise try shorter and shorter names on its
      // own, down to a file for no language at all.
      const QString file = QLatin1String(kTranslationsFolder) + QLatin1Char('/') +
                           QLatin1String(kFilePrefix) + candidate + QLatin1String(".qm");
      if (!QFileInfo::exists(file)) {
        continue;
      }
      auto translator = std::make_unique<QTranslator>(&application);
      if (translator->load(file)) {
        QCoreApplication::installTranslator(translator.release());
        return candidate;
      }
    }
  }
  return {};
}

}  // namespace quellix
