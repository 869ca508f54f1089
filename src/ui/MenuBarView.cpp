#include "ui/MenuBarView.h"

#include <QActionGroup>
#include <QApplication>
#include <QCheckBox>
#include <QCoreApplication>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QMenu>
#include <QShortcut>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <algorithm>

#include "ui/AppRowView.h"
#include "ui/Hairline.h"
#include "ui/PlainButton.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/ViewRules.h"
#include "ui/VolumeSlider.h"

namespace quellix::ui {
namespace {

constexpr int kSideMargin = 14;
constexpr int kHeaderTop = 12;
constexpr int kHeaderBottom = 8;
constexpr int kHeaderSpacing = 2;
constexpr int kTitleSize = 13;
constexpr int kSubtitleSize = 11;
constexpr int kVolumeBottom = 8;
constexpr int kVolumeSpacing = 8;
constexpr int kMasterSymbolSize = 12;
constexpr int kMasterFrameWidth = 18;
constexpr int kMediaBottom = 10;
constexpr int kMediaSpacing = 26;
constexpr int kMediaSymbolSize = 15;
constexpr QSize kMediaFrame{30, 24};
constexpr int kContentSide = 4;
constexpr int kContentVertical = 6;
constexpr int kRowSpacing = 1;
constexpr int kEmptyTextSize = 12;
constexpr int kEmptyTextPadding = 22;
constexpr int kUpdateTop = 8;
constexpr int kUpdateSize = 11;
constexpr int kUpdateSymbolSpacing = 5;
constexpr int kFooterVertical = 10;
constexpr int kFooterSpacing = 8;
constexpr int kFooterSize = 11;

struct MediaButtonSpec {
  const char* symbol;
  const char* help;
  MediaKey key;
};

const MediaButtonSpec kMediaButtons[] = {
    {"backward.fill", QT_TRANSLATE_NOOP("MenuBarView", "Vorheriger Titel"), MediaKey::previous},
    {"playpause.fill", QT_TRANSLATE_NOOP("MenuBarView", "Wiedergabe/Pause"), MediaKey::playPause},
    {"forward.fill", QT_TRANSLATE_NOOP("MenuBarView", "Nächster Titel"), MediaKey::next},
};

QString translated(const char* text) {
  return QCoreApplication::translate("MenuBarView", text);
}

// A section with the panel's side margins.
QWidget* section(QLayout* content, int left, int top, int right, int bottom) {
  auto* widget = new QWidget;
  content->setContentsMargins(left, top, right, bottom);
  widget->setLayout(content);
  return widget;
}

QWidget* divider() {
  auto* row = new QHBoxLayout;
  row->addWidget(new Hairline(Qt::Horizontal));
  return section(row, kSideMargin, 0, kSideMargin, 0);
}

PlainButton* textButton(const QString& text, QFont::Weight weight, LabelLevel level,
                        TextLabel** label) {
  auto* button = new PlainButton;
  *label = new TextLabel(text, Style::font(kFooterSize, weight), level);
  button->addToLabel(*label);
  button->setAccessibleName(text);
  return button;
}

}  // namespace

MenuBarView::MenuBarView(AppState& state, QWidget* parent) : QWidget(parent), state_(state) {
  openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
  quit = [] { QCoreApplication::quit(); };
  setFixedWidth(kWidth);
  listAnimation_.setDuration(kListAnimationMilliseconds);
  listAnimation_.setEasingCurve(QEasingCurve::OutCubic);
  QObject::connect(&listAnimation_, &QVariantAnimation::valueChanged, this,
                   [this](const QVariant& height) {
                     content_->setFixedHeight(height.toInt());
                     fitHeight();
                   });
  QObject::connect(&listAnimation_, &QVariantAnimation::finished, this, [this] {
    content_->setMinimumHeight(0);
    content_->setMaximumHeight(QWIDGETSIZE_MAX);
    fitHeight();
  });
  build();
  render();
}

MenuBarView::~MenuBarView() = default;

void MenuBarView::build() {
  auto* stack = new QVBoxLayout(this);
  stack->setContentsMargins(0, 0, 0, 0);
  stack->setSpacing(0);

  // 1: header.
  auto* header = new QVBoxLayout;
  header->setSpacing(kHeaderSpacing);
  title_ = new TextLabel(QStringLiteral("Quellix"), Style::font(kTitleSize, QFont::DemiBold),
                         LabelLevel::primary);
  subtitle_ = new TextLabel({}, Style::font(kSubtitleSize), LabelLevel::secondary);
  header->addWidget(title_);
  header->addWidget(subtitle_);
  stack->addWidget(section(header, kSideMargin, kHeaderTop, kSideMargin, kHeaderBottom));

  // 2: master volume.
  auto* volume = new QHBoxLayout;
  volume->setSpacing(kVolumeSpacing);
  masterMute_ = new PlainButton;
  masterMute_->setFixedWidth(kMasterFrameWidth);
  masterMuteSymbol_ = new SymbolView(ViewRules::volumeIcon(false, 1.0), kMasterSymbolSize);
  masterMuteSymbol_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  masterMute_->addToLabel(masterMuteSymbol_);
  masterMute_->onClick(
      [this] { state_.systemVolume().setMuted(!state_.systemVolume().isMuted().get()); });
  masterSlider_ = new VolumeSlider(VolumeSlider::ControlSize::small);
  masterSlider_->setAccessibleName(
      translated(QT_TRANSLATE_NOOP("MenuBarView", "Gesamtlautstärke")));
  masterSlider_->onUserChange(
      [this](double position) { state_.systemVolume().setVolume(position); });
  volume->addWidget(masterMute_, 0, Qt::AlignVCenter);
  volume->addWidget(masterSlider_, 1, Qt::AlignVCenter);
  volumeSection_ = section(volume, kSideMargin, 0, kSideMargin, kVolumeBottom);
  stack->addWidget(volumeSection_);

  // 3: media keys, centred in the full width.
  auto* media = new QHBoxLayout;
  media->setSpacing(kMediaSpacing);
  media->addStretch();
  for (const MediaButtonSpec& spec : kMediaButtons) {
    auto* button = new PlainButton;
    button->setFixedSize(kMediaFrame);
    auto* symbol = new SymbolView(QString::fromLatin1(spec.symbol), kMediaSymbolSize);
    symbol->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    button->addToLabel(symbol);
    const QString help = translated(spec.help);
    button->setTooltipText(help);
    button->setAccessibleName(help);
    button->onClick([this, key = spec.key] { state_.mediaPlayers().send(key); });
    media->addWidget(button);
    mediaButtons_.push_back(button);
  }
  media->addStretch();
  mediaControls_ = section(media, kSideMargin, 0, kSideMargin, kMediaBottom);
  stack->addWidget(mediaControls_);

  // 4-6: the list between two hairlines.
  stack->addWidget(divider());
  auto* content = new QVBoxLayout;
  content->setSpacing(0);
  emptyText_ =
      new TextLabel(translated(QT_TRANSLATE_NOOP(
                        "MenuBarView", "Sobald eine App Ton ausgibt,\nerscheint sie hier.")),
                    Style::font(kEmptyTextSize), LabelLevel::secondary);
  emptyText_->setAlignment(Qt::AlignHCenter | Qt::AlignVCenter);
  emptyText_->setParagraph(false, 0);
  emptyText_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  auto* empty = new QVBoxLayout;
  empty->addWidget(emptyText_);
  emptyState_ = section(empty, 0, kEmptyTextPadding, 0, kEmptyTextPadding);
  content->addWidget(emptyState_);
  rowLayout_ = new QVBoxLayout;
  rowLayout_->setSpacing(kRowSpacing);
  rowList_ = section(rowLayout_, 0, 0, 0, 0);
  content->addWidget(rowList_);
  content_ = section(content, kContentSide, kContentVertical, kContentSide, kContentVertical);
  stack->addWidget(content_);
  stack->addWidget(divider());

  // 7: update notice.
  auto* update = new QHBoxLayout;
  updateNotice_ = new PlainButton;
  updateNotice_->contents().setSpacing(kUpdateSymbolSpacing);
  auto* arrow = new SymbolView(QStringLiteral("arrow.down.circle.fill"), kUpdateSize);
  arrow->setColor(Style::linkColor(palette()));
  updateText_ = new TextLabel({}, Style::font(kUpdateSize, QFont::DemiBold), LabelLevel::primary);
  updateText_->setColor(Style::linkColor(palette()));
  updateNotice_->addToLabel(arrow);
  updateNotice_->addToLabel(updateText_, 1);
  updateNotice_->onClick(
      [this] { openUrl(QUrl(QString::fromStdString(UpdateChecker::downloadPage()))); });
  update->addWidget(updateNotice_);
  updateSection_ = section(update, kSideMargin, kUpdateTop, kSideMargin, 0);
  stack->addWidget(updateSection_);

  // 8: footer.
  auto* footer = new QVBoxLayout;
  footer->setSpacing(kFooterSpacing);
  launch_ = new QCheckBox(translated(QT_TRANSLATE_NOOP("MenuBarView", "Bei Anmeldung starten")));
  launch_->setFont(Style::font(kFooterSize));
  QPalette launchPalette = launch_->palette();
  launchPalette.setColor(QPalette::WindowText,
                         Style::labelColor(launchPalette, LabelLevel::secondary));
  launch_->setPalette(launchPalette);
  // Toggled, not clicked: an assistive technology's toggle emits only that.
  QObject::connect(launch_, &QCheckBox::toggled, this, [this](bool checked) {
    state_.setLaunchAtLogin(checked);
    // The box shows what the system reports now, also when that did not change.
    const QSignalBlocker blocker(launch_);
    launch_->setChecked(state_.launchAtLogin().get());
  });
  footer->addWidget(launch_);
  auto* actions = new QHBoxLayout;
  massAction_ = textButton({}, QFont::Medium, LabelLevel::secondary, &massActionText_);
  massAction_->onClick([this] {
    if (state_.muter().activeMuteCount() >= 1) {
      state_.muter().unmuteAll();
    } else {
      state_.muter().muteAll();
    }
  });
  TextLabel* aboutText = nullptr;
  about_ = textButton(translated(QT_TRANSLATE_NOOP("MenuBarView", "Über Quellix")), QFont::Normal,
                      LabelLevel::tertiary, &aboutText);
  about_->onClick([this] { state_.showAbout(); });
  TextLabel* quitText = nullptr;
  quit_ = textButton(translated(QT_TRANSLATE_NOOP("MenuBarView", "Beenden")), QFont::Normal,
                     LabelLevel::tertiary, &quitText);
  quit_->onClick([this] { quit(); });
  auto* quitShortcut = new QShortcut(QKeySequence::Quit, this);
  QObject::connect(quitShortcut, &QShortcut::activated, this, [this] { quit(); });
  actions->addWidget(massAction_);
  actions->addStretch();
  actions->addWidget(about_);
  actions->addWidget(quit_);
  footer->addLayout(actions);
  stack->addWidget(section(footer, kSideMargin, kFooterVertical, kSideMargin, kFooterVertical));
}

void MenuBarView::scheduleRender() {
  if (renderPending_) {
    return;
  }
  renderPending_ = true;
  state_.queue().post([self = QPointer<MenuBarView>(this)] {
    if (self) {
      self->render();
    }
  });
}

void MenuBarView::render() {
  renderPending_ = false;
  ++renderCount_;
  withObservationTracking(
      [this] {
        const std::vector<AudioApp>& apps = state_.monitor().apps().get();
        const int activeMuteCount = state_.muter().activeMuteCount();

        subtitle_->setText(ViewRules::subtitle(apps.size(), activeMuteCount));

        SystemVolumeController& system = state_.systemVolume();
        const bool adjustable = system.isAdjustable().get();
        volumeSection_->setVisible(adjustable);
        if (adjustable) {
          const bool muted = system.isMuted().get();
          const double volume = system.volume().get();
          masterMuteSymbol_->setSymbol(ViewRules::volumeIcon(muted, volume));
          const QString tooltip = ViewRules::masterMuteTooltip(muted);
          masterMute_->setTooltipText(tooltip);
          masterMute_->setAccessibleName(tooltip);
          masterSlider_->setPosition(volume);
        }

        renderRows(apps);

        const std::optional<std::string>& version = state_.updates().availableVersion().get();
        updateSection_->setVisible(version.has_value());
        if (version) {
          const QString text = ViewRules::updateNotice(QString::fromStdString(*version));
          updateText_->setText(text);
          updateNotice_->setAccessibleName(text);
        }

        {
          const QSignalBlocker blocker(launch_);
          launch_->setChecked(state_.launchAtLogin().get());
        }

        const ViewRules::MassAction mass = ViewRules::massAction(activeMuteCount, !apps.empty());
        massAction_->setVisible(mass != ViewRules::MassAction::none);
        massActionText_->setText(ViewRules::massActionText(mass));
        massAction_->setAccessibleName(massActionText_->text());
      },
      [self = QPointer<MenuBarView>(this)] {
        if (self) {
          self->scheduleRender();
        }
      });
  fitHeight();
}

void MenuBarView::renderRows(const std::vector<AudioApp>& apps) {
  const bool listChanged = apps != shownApps_;
  const int previousHeight = content_->height();
  const std::set<std::string>& mutedKeys = state_.muter().mutedKeys().get();
  const std::map<std::string, float>& volumes = state_.muter().volumes().get();

  std::map<pid_t, AppRowView*> kept;
  for (QLayoutItem* item = rowLayout_->takeAt(0); item != nullptr; item = rowLayout_->takeAt(0)) {
    delete item;
  }
  for (const AudioApp& app : apps) {
    AppRowView* row = nullptr;
    if (auto found = rowsByID_.find(app.id); found != rowsByID_.end()) {
      row = found->second;
      rowsByID_.erase(found);
    } else {
      // The actions act on the application the row shows at the moment of the click.
      row = new AppRowView(
          [this, id = app.id] {
            if (const AppRowView* shown = rowFor(id)) {
              state_.muter().toggle(shown->app());
            }
          },
          [this, id = app.id](float volume) {
            if (const AppRowView* shown = rowFor(id)) {
              state_.muter().setVolume(volume, shown->app());
            }
          },
          rowList_);
      row->setContextMenu([this, id = app.id](QMenu& menu) { fillRowMenu(menu, id); });
      row->setFixedWidth(kWidth - 2 * kContentSide);
    }
    const std::string key = app.key();
    const auto volume = volumes.find(key);
    row->update(app, mutedKeys.count(key) > 0, volume == volumes.end() ? 1.0f : volume->second);
    rowLayout_->addWidget(row);
    row->show();
    kept.emplace(app.id, row);
  }
  for (auto& [id, gone] : rowsByID_) {
    delete gone;
  }
  rowsByID_ = std::move(kept);

  emptyState_->setVisible(apps.empty());
  rowList_->setVisible(!apps.empty());

  if (listChanged) {
    const bool first = shownApps_.empty() && renderCount_ == 1;
    shownApps_ = apps;
    if (!first) {
      ++listChangeCount_;
      animateListChange(previousHeight);
    }
  }
}

void MenuBarView::fillRowMenu(QMenu& menu, pid_t id) {
  const AppRowView* shown = rowFor(id);
  if (shown == nullptr) {
    return;
  }
  MuteController& muter = state_.muter();
  const std::string key = shown->app().key();
  const QString name = QString::fromStdString(shown->app().name);
  menu.setTitle(translated(QT_TRANSLATE_NOOP("MenuBarView", "Optionen für %1")).arg(name));
  menu.setAccessibleName(menu.title());

  const auto& choices = muter.outputChoices().get();
  const auto choice = choices.find(key);
  const std::string current = choice != choices.end() ? choice->second : std::string();
  auto* outputs = new QActionGroup(&menu);
  auto addOutput = [&](const QString& text, const std::string& uid) {
    QAction* action = menu.addAction(QString(text).replace(QLatin1Char('&'), QLatin1String("&&")));
    action->setCheckable(true);
    action->setChecked(uid == current);
    outputs->addAction(action);
    connect(action, &QAction::triggered, this, [this, id, uid] {
      if (const AppRowView* row = rowFor(id)) {
        state_.muter().setOutputDevice(uid, row->app());
      }
    });
  };
  addOutput(translated(QT_TRANSLATE_NOOP("MenuBarView", "Standardausgabe")), {});
  bool currentListed = current.empty();
  const std::vector<OutputDevice>& devices = muter.outputDevices().get();
  for (const OutputDevice& device : devices) {
    // Two devices of one name (two headsets of a kind) are told apart by their UIDs.
    const bool shared = std::count_if(devices.begin(), devices.end(), [&](const auto& other) {
                          return other.name == device.name;
                        }) > 1;
    addOutput(QString::fromStdString(shared ? device.name + " (" + device.uid + ")" : device.name),
              device.uid);
    currentListed = currentListed || device.uid == current;
  }
  // A chosen device that is away stays chosen: it is shown so that it can be changed.
  if (!currentListed) {
    addOutput(translated(QT_TRANSLATE_NOOP("MenuBarView", "%1 (nicht verbunden)"))
                  .arg(QString::fromStdString(current)),
              current);
  }

  menu.addSeparator();
  QAction* alone = menu.addAction(translated(QT_TRANSLATE_NOOP("MenuBarView", "Nur diese hören")));
  alone->setCheckable(true);
  alone->setChecked(muter.hearOnlyKey().get() == key);
  connect(alone, &QAction::triggered, this, [this, id] {
    if (const AppRowView* row = rowFor(id)) {
      state_.muter().hearOnly(row->app());
    }
  });
}

void MenuBarView::animateListChange(int previousHeight) {
  if (!isVisible()) {
    return;
  }
  listAnimation_.stop();
  content_->setMinimumHeight(0);
  content_->setMaximumHeight(QWIDGETSIZE_MAX);
  activateLayouts();
  const int target = content_->sizeHint().height();
  if (target == previousHeight) {
    return;
  }
  listAnimation_.setStartValue(previousHeight);
  listAnimation_.setEndValue(target);
  content_->setFixedHeight(previousHeight);
  listAnimation_.start();
}

void MenuBarView::activateLayouts() {
  // A section learns that its rows changed only from an event posted for later: settle the
  // layouts from the rows up, or the heights read now are those from before the change.
  rowLayout_->activate();
  content_->layout()->activate();
  layout()->activate();
}

void MenuBarView::fitHeight() {
  activateLayouts();
  setFixedHeight(layout()->sizeHint().height());
}

bool MenuBarView::event(QEvent* event) {
  const bool handled = QWidget::event(event);
  // Whatever changed a section's size, the panel is exactly as tall as its sections: spare
  // height would be spread between them and move every row off where it was.
  if (event->type() == QEvent::LayoutRequest) {
    fitHeight();
  }
  return handled;
}

const AppRowView* MenuBarView::rowFor(pid_t id) const {
  const auto found = rowsByID_.find(id);
  return found == rowsByID_.end() ? nullptr : found->second;
}

std::vector<AppRowView*> MenuBarView::rows() const {
  std::vector<AppRowView*> ordered;
  for (int index = 0; index < rowLayout_->count(); ++index) {
    if (auto* row = dynamic_cast<AppRowView*>(rowLayout_->itemAt(index)->widget())) {
      ordered.push_back(row);
    }
  }
  return ordered;
}

}  // namespace quellix::ui
