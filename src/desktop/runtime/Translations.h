#pragma once

#include <QString>
#include <QStringList>

class QCoreApplication;

namespace quellix {

// Where the compiled translations are kept inside the program.
inline constexpr const char* kTranslationsFolder = ":/i18n";

// Installs the translation for the first of the user's languages that has one. German is the
// language the texts are written in: a user who prefers it, or whose languages have no
// translation, sees them unchanged. Returns the language installed, empty for German.
// Call once, after the application object exists.
QString installTranslations(QCoreApplication& application);
// The same for the given languages, most wanted first, as BCP 47 or POSIX names ("en-GB",
// "en_GB.UTF-8").
QString installTranslations(QCoreApplication& application, const QStringList& languages);

}  // namespace quellix
