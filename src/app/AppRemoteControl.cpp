#include "app/AppRemoteControl.h"

#include <QCoreApplication>
#include <QStringList>

namespace quellix {
namespace {

RemoteApp remote(const AppListing& app) {
  return {QString::fromStdString(app.name), QString::fromStdString(app.id), app.muted,
          static_cast<uint>(app.volume)};
}

}  // namespace

AppRemoteControl::AppRemoteControl(AppControl& control, RemoteControlAdaptor& adaptor)
    : control_(control), adaptor_(adaptor) {
  control_.onAppChanged([this](const AppListing& app) {
    const RemoteApp changed = remote(app);
    emit adaptor_.AppChanged(changed.name, changed.id, changed.muted, changed.volume);
  });
  control_.onMasterChanged([this](int volume, bool muted) {
    emit adaptor_.MasterChanged(static_cast<uint>(volume), muted);
  });
  adaptor_.setControl(this);
}

AppRemoteControl::~AppRemoteControl() {
  adaptor_.setControl(nullptr);
  control_.onAppChanged({});
  control_.onMasterChanged({});
}

RemoteControl::Failure AppRemoteControl::failure(const AppControl::Error& error) {
  const QString subject = QString::fromStdString(error.subject());
  switch (error.kind()) {
    case AppControl::Error::Kind::unknownApp:
      return {kUnknownAppError, QCoreApplication::translate(
                                    "RemoteControl", "Keine Anwendung „%1“ spielt gerade Ton.")
                                    .arg(subject)};
    case AppControl::Error::Kind::ambiguousApp: {
      QStringList candidates;
      for (const auto& candidate : error.candidates()) {
        candidates << QString::fromStdString(candidate);
      }
      return {kAmbiguousAppError,
              QCoreApplication::translate("RemoteControl", "„%1“ passt auf mehrere Anwendungen: %2")
                  .arg(subject, candidates.join(QStringLiteral(", ")))};
    }
    case AppControl::Error::Kind::volumeOutOfRange:
      return {kBadVolumeError, volumeOutOfRange(subject)};
  }
  return {kUnknownAppError, subject};
}

QString AppRemoteControl::volumeOutOfRange(const QString& given) {
  return QCoreApplication::translate(
             "RemoteControl", "Die Lautstärke muss eine Zahl von 0 bis 100 sein, nicht „%1“.")
      .arg(given);
}

template <typename Action>
auto AppRemoteControl::translatingErrors(Action&& action) {
  try {
    return action();
  } catch (const AppControl::Error& error) {
    throw failure(error);
  }
}

RemoteAppList AppRemoteControl::apps() {
  RemoteAppList apps;
  for (const auto& app : control_.apps()) {
    apps << remote(app);
  }
  return apps;
}

RemoteApp AppRemoteControl::mute(const QString& app) {
  return translatingErrors([&] { return remote(control_.mute(app.toStdString())); });
}

RemoteApp AppRemoteControl::unmute(const QString& app) {
  return translatingErrors([&] { return remote(control_.unmute(app.toStdString())); });
}

RemoteApp AppRemoteControl::toggle(const QString& app) {
  return translatingErrors([&] { return remote(control_.toggle(app.toStdString())); });
}

RemoteApp AppRemoteControl::hearOnly(const QString& app) {
  return translatingErrors([&] { return remote(control_.hearOnly(app.toStdString())); });
}

RemoteApp AppRemoteControl::setVolume(const QString& app, double volume) {
  return translatingErrors([&] { return remote(control_.setVolume(app.toStdString(), volume)); });
}

void AppRemoteControl::setMasterVolume(double volume) {
  translatingErrors([&] { control_.setMasterVolume(volume); });
}

void AppRemoteControl::setMasterMuted(bool muted) {
  control_.setMasterMuted(muted);
}

uint AppRemoteControl::masterVolume() {
  return static_cast<uint>(control_.masterVolume());
}

bool AppRemoteControl::masterMuted() {
  return control_.masterMuted();
}

}  // namespace quellix
