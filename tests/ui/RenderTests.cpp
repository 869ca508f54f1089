#include <gtest/gtest.h>

#include <QFileInfo>
#include <QGridLayout>
#include <QPainter>
#include <QSvgRenderer>

#include "ui/AppRowView.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

// Pictures for a person to look at; the assertions only check that they were made.
void expectSaved(QWidget& widget, const QString& name) {
  const QString folder = testing::saveRenders(widget, name);
  for (const char* scale : {"1", "2"}) {
    const QFileInfo file(QStringLiteral("%1/%2@%3x.png").arg(folder, name, QLatin1String(scale)));
    EXPECT_TRUE(file.exists() && file.size() > 0) << file.filePath().toStdString();
  }
}

TEST(RenderTest, RowsInEveryState) {
  struct Case {
    const char* file;
    const char* name;
    bool playing;
    bool muted;
    float volume;
    std::string themeIcon;
  };
  const Case cases[] = {
      {"row-unmuted-1", "Firefox", true, false, 1.0f, "firefox"},
      {"row-unmuted-0.5", "Spotify", true, false, 0.5f, ""},
      {"row-unmuted-0.996", "Rhythmbox", true, false, 0.996f, ""},
      {"row-muted", "Safari", true, true, 1.0f, ""},
      {"row-not-playing", "VLC media player", false, false, 1.0f, ""},
      {"row-long-name", "Eine Anwendung mit einem außerordentlich langen Namen, der nie passt",
       true, false, 0.3f, ""},
  };
  for (const Case& c : cases) {
    AppRowView row([] {}, [](float) {});
    row.setFixedWidth(292);
    row.update(
        {.id = 1, .name = c.name, .icon = {.themeName = c.themeIcon}, .isPlaying = c.playing},
        c.muted, c.volume);
    row.show();
    expectSaved(row, QString::fromLatin1(c.file));
  }
}

TEST(RenderTest, SymbolSheetAndIcon) {
  QWidget sheet;
  auto* grid = new QGridLayout(&sheet);
  int index = 0;
  for (const char* name : testing::kSymbolNames) {
    for (const int size : {13, 24}) {
      auto* symbol = new SymbolView(QString::fromLatin1(name), size);
      symbol->setLevel(LabelLevel::primary);
      grid->addWidget(symbol, index / 4, (index % 4) * 2 + (size == 24 ? 1 : 0), Qt::AlignCenter);
    }
    ++index;
  }
  sheet.show();
  sheet.adjustSize();
  expectSaved(sheet, QStringLiteral("symbols"));

  QSvgRenderer icon(QStringLiteral(":/icons/com.norvalin.quellix.svg"));
  ASSERT_TRUE(icon.isValid());
  for (const int side : {32, 96, 256}) {
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    icon.render(&painter);
    painter.end();
    EXPECT_TRUE(image.save(
        QStringLiteral("%1/icon-%2.png").arg(QStringLiteral(QUELLIX_RENDER_DIR)).arg(side)));
  }
}

}  // namespace
}  // namespace quellix::ui
