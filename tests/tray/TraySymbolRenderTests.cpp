#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QIcon>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <cstdlib>
#include <functional>

#include "tray/DBusTrayTypes.h"
#include "tray/TrayItem.h"

namespace quellix {
namespace {

// The tray's symbols on a light and a dark panel, at a common panel size, both as a host
// recolours the named icon with its text colour and as the outlined picture for hosts that
// draw only pictures. Each must stand out from the panel; the renders stay in the build tree
// for a person to look at.
TEST(TraySymbolRenderTest, EachSymbolStandsOutOnLightAndDarkPanels) {
  constexpr int kSize = 24;
  const struct {
    const char* name;
    QColor panel;
    QColor text;
  } panels[] = {{"light", QColor(0xf0, 0xf0, 0xf0), QColor(0x20, 0x20, 0x20)},
                {"dark", QColor(0x26, 0x26, 0x2b), QColor(0xea, 0xea, 0xea)}};
  QDir().mkpath(QStringLiteral(QUELLIX_RENDER_DIR));
  for (const char* symbol : {"speaker.wave.2.fill", "speaker.slash.fill"}) {
    const QString iconName = TrayItem::themeIconName(QString::fromLatin1(symbol));
    QFile file(QStringLiteral(":/tray/") + iconName + QStringLiteral(".svg"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << symbol;
    const QByteArray svg = file.readAll();
    ASSERT_TRUE(svg.contains(".ColorScheme-Text { color:#bebebe; }")) << symbol;
    for (const auto& panel : panels) {
      QSvgRenderer recoloured(
          QByteArray(svg).replace("color:#bebebe", "color:" + panel.text.name().toLatin1()));
      const struct {
        const char* kind;
        std::function<void(QPainter&)> draw;
      } pictures[] = {
          {"named", [&](QPainter& p) { recoloured.render(&p, QRectF(0, 0, kSize, kSize)); }},
          {"picture", [&](QPainter& p) {
             p.drawImage(0, 0, outlinedTrayImage(QIcon(file.fileName()), kSize));
           }}};
      for (const auto& picture : pictures) {
        QImage image(kSize, kSize, QImage::Format_RGB32);
        image.fill(panel.panel);
        QPainter painter(&image);
        picture.draw(painter);
        painter.end();
        // Pixels whose lightness differs from the panel's by at least 40 %, as a share of all.
        int standing = 0;
        for (int y = 0; y < kSize; ++y) {
          for (int x = 0; x < kSize; ++x) {
            standing += std::abs(qGray(image.pixel(x, y)) - qGray(panel.panel.rgb())) >= 102;
          }
        }
        const QString label = QStringLiteral("%1-%2-%3").arg(iconName, panel.name, picture.kind);
        EXPECT_GE(standing, kSize * kSize / 8) << label.toStdString();
        image.scaled(kSize * 8, kSize * 8)
            .save(QStringLiteral(QUELLIX_RENDER_DIR "/tray-%1.png").arg(label));
      }
    }
  }
}

}  // namespace
}  // namespace quellix
