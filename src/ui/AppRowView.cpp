#include "ui/AppRowView.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QContextMenuEvent>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QPainter>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "ui/AppIconView.h"
#include "ui/PlainButton.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/ViewRules.h"
#include "ui/VolumeSlider.h"

namespace quellix::ui {
namespace {

constexpr int kNameSize = 13;
constexpr int kPlayingSize = 10;
constexpr int kStateSize = 13;

bool opensContextMenu(const QKeyEvent& event) {
  return event.key() == Qt::Key_Menu ||
         (event.key() == Qt::Key_F10 && event.modifiers() == Qt::ShiftModifier);
}

// The row's button: a button that says it has a menu and opens it for an assistive technology.
class RowButton final : public PlainButton {
 public:
  explicit RowButton(AppRowView* row) : PlainButton(row), row_(row) {}
  AppRowView& row() const { return *row_; }

 private:
  AppRowView* row_;
};

class RowButtonAccessible final : public QAccessibleWidget {
 public:
  explicit RowButtonAccessible(RowButton* button)
      : QAccessibleWidget(button, QAccessible::Button), button_(button) {}

  // A row mutes and unmutes: a screen reader hears a check box that is checked while muted.
  QAccessible::Role role() const override {
    return button_->isCheckable() ? QAccessible::CheckBox : QAccessible::Button;
  }

  QAccessible::State state() const override {
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = button_->isCheckable();
    state.checked = button_->isChecked();
    state.hasPopup = button_->row().hasContextMenu();
    return state;
  }

  QStringList actionNames() const override {
    QStringList names{button_->isCheckable() ? toggleAction() : pressAction()};
    if (button_->row().hasContextMenu()) {
      names << showMenuAction();
    }
    return names + QAccessibleWidget::actionNames();
  }

  QStringList keyBindingsForAction(const QString& action) const override {
    if (action == showMenuAction()) {
      return {QStringLiteral("Shift+F10")};
    }
    return QAccessibleWidget::keyBindingsForAction(action);
  }

  void doAction(const QString& action) override {
    if (action == pressAction() || action == toggleAction()) {
      button_->click();
    } else if (action == showMenuAction()) {
      button_->row().showContextMenu(button_->row().keyboardMenuPosition());
    } else {
      QAccessibleWidget::doAction(action);
    }
  }

 private:
  RowButton* button_;
};

QAccessibleInterface* rowButtonAccessible(const QString&, QObject* object) {
  auto* button = dynamic_cast<RowButton*>(object);
  return button != nullptr ? new RowButtonAccessible(button) : nullptr;
}

}  // namespace

AppRowView::AppRowView(std::function<void()> toggle, std::function<void(float)> setVolume,
                       QWidget* parent)
    : QWidget(parent), toggle_(std::move(toggle)), setVolume_(std::move(setVolume)) {
  setAttribute(Qt::WA_Hover);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

  auto* stack = new QVBoxLayout(this);
  stack->setContentsMargins(kHorizontalMargin, kVerticalMargin, kHorizontalMargin, kVerticalMargin);
  stack->setSpacing(kStackSpacing);

  static const bool accessibleInstalled = [] {
    QAccessible::installFactory(&rowButtonAccessible);
    return true;
  }();
  (void)accessibleInstalled;

  button_ = new RowButton(this);
  button_->installEventFilter(this);
  button_->contents().setSpacing(kLabelSpacing);
  icon_ = new AppIconView(kIconSide);
  button_->addToLabel(icon_);
  name_ = new TextLabel({}, Style::font(kNameSize, QFont::Medium), LabelLevel::primary);
  name_->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
  button_->addToLabel(name_, 0, Qt::AlignVCenter);
  // A box layout puts no spacing on one side of a spacer; the gap carries it.
  button_->contents().addSpacerItem(new QSpacerItem(
      kMinimumGap + kLabelSpacing, 0, QSizePolicy::MinimumExpanding, QSizePolicy::Minimum));
  playing_ = new SymbolView(QStringLiteral("waveform"), kPlayingSize);
  playing_->setVariableColor(true);
  button_->addToLabel(playing_, 0, Qt::AlignVCenter);
  state_ = new SymbolView(ViewRules::stateSymbol(false), kStateSize);
  state_->setFixedWidth(kStateFrameWidth);
  button_->addToLabel(state_, 0, Qt::AlignVCenter);
  // A switch to assistive technologies, checked while the application is muted.
  // Every flip is one toggle; the next update() shows what came of it.
  button_->onToggle([this](bool) { toggle_(); });
  stack->addWidget(button_);

  auto* sliderRow = new QHBoxLayout;
  sliderRow->setContentsMargins(kSliderIndent, 0, 0, 0);
  slider_ = new VolumeSlider(VolumeSlider::ControlSize::mini);
  slider_->onUserChange([this](double position) { setVolume_(static_cast<float>(position)); });
  slider_->installEventFilter(this);
  sliderRow->addWidget(slider_);
  stack->addLayout(sliderRow);

  update(app_, false, 1.0f);
}

void AppRowView::update(const AudioApp& app, bool isMuted, float volume) {
  app_ = app;
  isMuted_ = isMuted;
  const QString name = QString::fromStdString(app.name);

  icon_->setIcon(app.icon);
  icon_->setOpacity(ViewRules::iconOpacity(isMuted));
  name_->setText(name);
  name_->setLevel(isMuted ? LabelLevel::secondary : LabelLevel::primary);
  playing_->setVisible(ViewRules::showsPlayingIndicator(app.isPlaying, isMuted));
  state_->setSymbol(ViewRules::stateSymbol(isMuted));
  state_->setColor(isMuted ? std::optional<QColor>(QColor::fromRgba(Style::kOrange))
                           : std::nullopt);

  const QString tooltip = ViewRules::rowTooltip(name, isMuted);
  button_->setTooltipText(tooltip);
  button_->setAccessibleName(name);
  {
    const QSignalBlocker blocker(button_);
    button_->setChecked(isMuted);
  }

  slider_->setPosition(static_cast<double>(volume));
  slider_->setEnabled(!isMuted);
  slider_->setOpacity(ViewRules::sliderOpacity(isMuted, volume));
  slider_->setAccessibleName(
      QCoreApplication::translate("AppRowView", "Lautstärke von %1").arg(name));
}

void AppRowView::setContextMenu(std::function<void(QMenu&)> fill) {
  fillMenu_ = std::move(fill);
}

QMenu* AppRowView::openMenu() const {
  return menu_;
}

QPoint AppRowView::keyboardMenuPosition() const {
  return mapToGlobal(QPoint(kHorizontalMargin + kSliderIndent, button_->geometry().bottom()));
}

void AppRowView::showContextMenu(const QPoint& globalPosition) {
  if (!fillMenu_ || menu_) {
    return;
  }
  auto* menu = new QMenu(this);
  menu->setAttribute(Qt::WA_DeleteOnClose);
  fillMenu_(*menu);
  if (menu->isEmpty()) {
    delete menu;
    return;
  }
  menu_ = menu;
  menu->popup(globalPosition);
}

void AppRowView::contextMenuEvent(QContextMenuEvent* event) {
  showContextMenu(event->reason() == QContextMenuEvent::Mouse ? event->globalPos()
                                                              : keyboardMenuPosition());
  event->accept();
}

bool AppRowView::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::KeyPress && opensContextMenu(*static_cast<QKeyEvent*>(event))) {
    showContextMenu(keyboardMenuPosition());
    return true;
  }
  return QWidget::eventFilter(watched, event);
}

void AppRowView::setHovering(bool hovering) {
  if (hovering != hovering_) {
    hovering_ = hovering;
    QWidget::update();
  }
}

void AppRowView::enterEvent(QEnterEvent* event) {
  QWidget::enterEvent(event);
  setHovering(true);
}

void AppRowView::leaveEvent(QEvent* event) {
  QWidget::leaveEvent(event);
  setHovering(false);
}

void AppRowView::paintEvent(QPaintEvent*) {
  if (!hovering_) {
    return;
  }
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(Style::textColor(palette(), kHoverOpacity));
  painter.drawRoundedRect(QRectF(rect()), kCornerRadius, kCornerRadius);
}

}  // namespace quellix::ui
