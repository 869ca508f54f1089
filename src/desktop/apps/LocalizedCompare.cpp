#include "desktop/apps/LocalizedCompare.h"

#include <QCollator>
#include <QLocale>
#include <QString>

namespace quellix {

int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b) {
  thread_local QCollator collator = [] {
    QCollator made{QLocale()};
    made.setCaseSensitivity(Qt::CaseInsensitive);
    return made;
  }();
  return collator.compare(QString::fromUtf8(a.data(), static_cast<qsizetype>(a.size())),
                          QString::fromUtf8(b.data(), static_cast<qsizetype>(b.size())));
}

}  // namespace quellix
