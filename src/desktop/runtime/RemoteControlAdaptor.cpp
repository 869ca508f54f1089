#include "desktop/runtime/RemoteControlAdaptor.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMetaType>

namespace quellix {

QDBusArgument& operator<<(QDBusArgument& argument, const RemoteApp& app) {
  argument.beginStructure();
  argument << app.name << app.id << app.muted << app.volume;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, RemoteApp& app) {
  argument.beginStructure();
  argument >> app.name >> app.id >> app.muted >> app.volume;
  argument.endStructure();
  return argument;
}

RemoteControlAdaptor::RemoteControlAdaptor(QObject* parent) : QDBusAbstractAdaptor(parent) {
  qDBusRegisterMetaType<RemoteApp>();
  qDBusRegisterMetaType<RemoteAppList>();
}

template <typename Result>
Result RemoteControlAdaptor::answer(const QDBusMessage& message,
                                    const std::function<Result(RemoteControl&)>& request) {
  QString errorName;
  QString errorText;
  if (control_ == nullptr) {
    errorName = QStringLiteral("org.freedesktop.DBus.Error.Failed");
    errorText = QCoreApplication::translate("RemoteControl", "Quellix startet noch.");
  } else {
    try {
      return request(*control_);
    } catch (const RemoteControl::Failure& failure) {
      errorName = failure.errorName;
      errorText = failure.message;
    }
  }
  message.setDelayedReply(true);
  QDBusConnection::sessionBus().send(message.createErrorReply(errorName, errorText));
  return Result{};
}

RemoteAppList RemoteControlAdaptor::ListApps(const QDBusMessage& message) {
  return answer<RemoteAppList>(message, [](RemoteControl& control) { return control.apps(); });
}

void RemoteControlAdaptor::Mute(const QString& app, const QDBusMessage& message) {
  answer<RemoteApp>(message, [&](RemoteControl& control) { return control.mute(app); });
}

void RemoteControlAdaptor::Unmute(const QString& app, const QDBusMessage& message) {
  answer<RemoteApp>(message, [&](RemoteControl& control) { return control.unmute(app); });
}

bool RemoteControlAdaptor::Toggle(const QString& app, const QDBusMessage& message) {
  return answer<RemoteApp>(message, [&](RemoteControl& control) { return control.toggle(app); })
      .muted;
}

void RemoteControlAdaptor::HearOnly(const QString& app, const QDBusMessage& message) {
  answer<RemoteApp>(message, [&](RemoteControl& control) { return control.hearOnly(app); });
}

void RemoteControlAdaptor::SetVolume(const QString& app, double volume,
                                     const QDBusMessage& message) {
  answer<RemoteApp>(message,
                    [&](RemoteControl& control) { return control.setVolume(app, volume); });
}

uint RemoteControlAdaptor::GetMaster(bool& muted) {
  if (control_ == nullptr) {
    muted = false;
    return 0;
  }
  muted = control_->masterMuted();
  return control_->masterVolume();
}

void RemoteControlAdaptor::SetMasterVolume(double volume, const QDBusMessage& message) {
  answer<bool>(message, [&](RemoteControl& control) {
    control.setMasterVolume(volume);
    return true;
  });
}

void RemoteControlAdaptor::SetMasterMuted(bool muted, const QDBusMessage& message) {
  answer<bool>(message, [&](RemoteControl& control) {
    control.setMasterMuted(muted);
    return true;
  });
}

}  // namespace quellix
