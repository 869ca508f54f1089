#pragma once

#include <QFont>
#include <QString>
#include <QTextDocument>
#include <QWidget>
#include <optional>

#include "ui/Style.h"

namespace quellix::ui {

// Text in one of the label colours, taken from the palette each time it is painted. A single
// line is cut with an ellipsis when it does not fit; a paragraph keeps its "\n" breaks, may
// wrap, and may have extra space between its lines.
class TextLabel : public QWidget {
 public:
  TextLabel(const QString& text, const QFont& font, LabelLevel level, QWidget* parent = nullptr);

  const QString& text() const { return text_; }
  void setText(const QString& text);
  LabelLevel level() const { return level_; }
  void setLevel(LabelLevel level);
  void setColor(std::optional<QColor> color);
  QColor color() const;

  void setAlignment(Qt::Alignment alignment);
  // Paragraph mode: keeps line breaks, wraps at the available width, `extraLineSpacing`
  // pixels between lines.
  void setParagraph(bool wraps, qreal extraLineSpacing);
  bool isParagraph() const { return paragraph_; }

  // Whether the single line is cut at the current width.
  bool isElided() const;

  QSize sizeHint() const override;
  QSize minimumSizeHint() const override;
  bool hasHeightForWidth() const override { return paragraph_ && wraps_; }
  int heightForWidth(int width) const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  void rebuildDocument();

  QString text_;
  LabelLevel level_;
  std::optional<QColor> color_;
  Qt::Alignment alignment_ = Qt::AlignLeft | Qt::AlignVCenter;
  bool paragraph_ = false;
  bool wraps_ = false;
  qreal extraLineSpacing_ = 0;
  mutable QTextDocument document_;
};

}  // namespace quellix::ui
