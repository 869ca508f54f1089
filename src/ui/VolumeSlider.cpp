#include "ui/VolumeSlider.h"

#include <QApplication>
#include <QPainter>
#include <QPixmap>
#include <QProxyStyle>
#include <QSignalBlocker>
#include <algorithm>
#include <cmath>

#include "ui/Style.h"

namespace quellix::ui {
namespace {

constexpr qreal kSmallTrack = 4;
constexpr qreal kMiniTrack = 3;
constexpr int kSmallKnob = 14;
constexpr int kMiniKnob = 10;
constexpr double kTrackOpacity = 0.14;
constexpr double kKnobBorderOpacity = 0.22;
constexpr double kDisabledFillOpacity = 0.35;

// Lets the knob's travel match what is painted, and a click on the track jump there.
class SliderStyle : public QProxyStyle {
 public:
  int pixelMetric(PixelMetric metric, const QStyleOption* option,
                  const QWidget* widget) const override {
    if (const auto* slider = dynamic_cast<const VolumeSlider*>(widget)) {
      if (metric == PM_SliderLength) {
        return slider->knobDiameter();
      }
      if (metric == PM_SliderThickness || metric == PM_SliderControlThickness) {
        return slider->height();
      }
    }
    return QProxyStyle::pixelMetric(metric, option, widget);
  }
  int styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                QStyleHintReturn* returned) const override {
    if (hint == SH_Slider_AbsoluteSetButtons) {
      return Qt::LeftButton;
    }
    return QProxyStyle::styleHint(hint, option, widget, returned);
  }
};

QStyle* sliderStyle() {
  // Owned by the application, so it lives exactly as long as the widgets that use it.
  static QStyle* style = [] {
    auto* created = new SliderStyle;
    created->setParent(qApp);
    return created;
  }();
  return style;
}

}  // namespace

VolumeSlider::VolumeSlider(ControlSize size, QWidget* parent)
    : QSlider(Qt::Horizontal, parent), size_(size) {
  setStyle(sliderStyle());
  setRange(0, kSteps);
  setSingleStep(kSteps / 100);
  setPageStep(kSteps / 10);
  setFixedHeight(size == ControlSize::small ? kSmallHeight : kMiniHeight);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  setFocusPolicy(Qt::StrongFocus);
  QObject::connect(this, &QSlider::valueChanged, this, [this](int value) {
    if (action_) {
      action_(static_cast<double>(value) / kSteps);
    }
  });
}

int VolumeSlider::knobDiameter() const {
  return size_ == ControlSize::small ? kSmallKnob : kMiniKnob;
}

void VolumeSlider::setPosition(double position) {
  if (isSliderDown()) {
    return;
  }
  const QSignalBlocker blocker(this);
  setValue(static_cast<int>(std::lround(std::clamp(position, 0.0, 1.0) * kSteps)));
}

void VolumeSlider::onUserChange(std::function<void(double)> action) {
  action_ = std::move(action);
}

void VolumeSlider::setOpacity(double opacity) {
  if (opacity != opacity_) {
    opacity_ = opacity;
    update();
  }
}

void VolumeSlider::paintEvent(QPaintEvent*) {
  // Drawn whole into a layer first, so that the opacity applies to the slider as one picture
  // and the track does not shine through the knob.
  QPainter output(this);
  const qreal ratio = output.device()->devicePixelRatioF();
  QPixmap layer(size() * ratio);
  layer.setDevicePixelRatio(ratio);
  layer.fill(Qt::transparent);
  {
    QPainter painter(&layer);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal track = size_ == ControlSize::small ? kSmallTrack : kMiniTrack;
    const qreal centreY = height() / 2.0;
    const qreal radius = knobDiameter() / 2.0;
    const QRectF groove(radius, centreY - track / 2, width() - 2 * radius, track);
    const qreal fraction = maximum() > minimum()
                               ? static_cast<qreal>(value() - minimum()) / (maximum() - minimum())
                               : 0.0;
    const qreal knobX = groove.left() + fraction * groove.width();

    painter.setPen(Qt::NoPen);
    painter.setBrush(Style::textColor(palette(), kTrackOpacity));
    painter.drawRoundedRect(groove, track / 2, track / 2);
    painter.setBrush(isEnabled() ? Style::accentColor(palette())
                                 : Style::textColor(palette(), kDisabledFillOpacity));
    painter.drawRoundedRect(QRectF(groove.left(), groove.top(), knobX - groove.left(), track),
                            track / 2, track / 2);

    const QRectF knob(knobX - radius + 0.5, centreY - radius + 0.5, 2 * radius - 1, 2 * radius - 1);
    painter.setPen(QPen(Style::textColor(palette(), kKnobBorderOpacity), 0.8));
    painter.setBrush(isEnabled() ? QColor(Qt::white) : palette().color(QPalette::Button));
    painter.drawEllipse(knob);
    if (hasFocus()) {
      painter.setPen(QPen(Style::accentColor(palette()), 1.5));
      painter.setBrush(Qt::NoBrush);
      painter.drawEllipse(knob.adjusted(-1, -1, 1, 1));
    }
  }
  output.setOpacity(opacity_);
  output.drawPixmap(0, 0, layer);
}

}  // namespace quellix::ui
