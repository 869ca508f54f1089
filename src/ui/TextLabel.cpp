#include "ui/TextLabel.h"

#include <QAbstractTextDocumentLayout>
#include <QEvent>
#include <QPainter>
#include <QTextBlock>
#include <QTextCursor>
#include <cmath>

namespace quellix::ui {
namespace {

// Hinted advances differ by a pixel between device pixel ratios; text never touches its edge.
constexpr int kSlack = 2;

}  // namespace

TextLabel::TextLabel(const QString& text, const QFont& font, LabelLevel level, QWidget* parent)
    : QWidget(parent), text_(text), level_(level) {
  setFont(font);
  setAccessibleName(text);
  document_.setDocumentMargin(0);
  setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
  rebuildDocument();
}

void TextLabel::setText(const QString& text) {
  if (text == text_) {
    return;
  }
  text_ = text;
  setAccessibleName(text);
  rebuildDocument();
  updateGeometry();
  update();
}

void TextLabel::setLevel(LabelLevel level) {
  level_ = level;
  update();
}

void TextLabel::setColor(std::optional<QColor> color) {
  color_ = std::move(color);
  update();
}

QColor TextLabel::color() const {
  return color_ ? *color_ : Style::labelColor(palette(), level_);
}

void TextLabel::setAlignment(Qt::Alignment alignment) {
  alignment_ = alignment;
  rebuildDocument();
  update();
}

void TextLabel::setParagraph(bool wraps, qreal extraLineSpacing) {
  paragraph_ = true;
  wraps_ = wraps;
  extraLineSpacing_ = extraLineSpacing;
  QSizePolicy policy(wraps ? QSizePolicy::Preferred : QSizePolicy::Fixed, QSizePolicy::Fixed);
  policy.setHeightForWidth(wraps);
  setSizePolicy(policy);
  rebuildDocument();
  updateGeometry();
}

void TextLabel::rebuildDocument() {
  document_.setDefaultFont(font());
  QTextOption option;
  option.setAlignment(alignment_ & Qt::AlignHorizontal_Mask);
  option.setWrapMode(wraps_ ? QTextOption::WordWrap : QTextOption::NoWrap);
  document_.setDefaultTextOption(option);
  document_.setPlainText(text_);
  QTextCursor cursor(&document_);
  cursor.select(QTextCursor::Document);
  QTextBlockFormat format;
  format.setLineHeight(extraLineSpacing_, QTextBlockFormat::LineDistanceHeight);
  cursor.mergeBlockFormat(format);
  document_.setTextWidth(-1);
}

bool TextLabel::isElided() const {
  return !paragraph_ && fontMetrics().horizontalAdvance(text_) > width();
}

QSize TextLabel::sizeHint() const {
  if (!paragraph_) {
    return {fontMetrics().horizontalAdvance(text_) + kSlack, fontMetrics().height()};
  }
  document_.setTextWidth(-1);
  const QSizeF ideal = document_.size();
  return {static_cast<int>(std::ceil(ideal.width())), static_cast<int>(std::ceil(ideal.height()))};
}

QSize TextLabel::minimumSizeHint() const {
  if (!paragraph_) {
    // A single line may shrink to its ellipsis.
    return {fontMetrics().horizontalAdvance(QStringLiteral("…")), fontMetrics().height()};
  }
  return wraps_ ? QSize(0, heightForWidth(width())) : sizeHint();
}

int TextLabel::heightForWidth(int width) const {
  if (!paragraph_) {
    return fontMetrics().height();
  }
  document_.setTextWidth(wraps_ ? width : -1);
  return static_cast<int>(std::ceil(document_.size().height()));
}

void TextLabel::changeEvent(QEvent* event) {
  if (event->type() == QEvent::FontChange) {
    rebuildDocument();
    updateGeometry();
  }
  QWidget::changeEvent(event);
}

void TextLabel::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setPen(color());
  if (!paragraph_) {
    // Decided on the screen's metrics, so a denser device with other rounding does not cut a
    // name that fits.
    const QString shown =
        isElided() ? fontMetrics().elidedText(text_, Qt::ElideRight, width()) : text_;
    painter.drawText(rect(), static_cast<int>(alignment_) | Qt::TextSingleLine, shown);
    return;
  }
  document_.setTextWidth(width());
  const qreal top = (alignment_ & Qt::AlignVCenter)
                        ? std::max(0.0, (height() - document_.size().height()) / 2)
                        : 0.0;
  painter.translate(0, top);
  QAbstractTextDocumentLayout::PaintContext context;
  context.palette = palette();
  context.palette.setColor(QPalette::Text, color());
  document_.documentLayout()->draw(&painter, context);
}

}  // namespace quellix::ui
