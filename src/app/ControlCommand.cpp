#include "app/ControlCommand.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <cmath>
#include <cstdio>

#include "app/AppRemoteControl.h"
#include "desktop/runtime/SingleInstance.h"

namespace quellix::ControlCommand {
namespace {

constexpr int kFailed = 1;
constexpr int kCallTimeoutMs = 5000;

int fail(const QString& line) {
  std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
  return kFailed;
}

}  // namespace

int run(Action action, const std::string& app, const std::string& volume) {
  const QString name = QString::fromStdString(app);
  QVariantList arguments{name};
  QString method;
  switch (action) {
    case Action::mute:
      method = QStringLiteral("Mute");
      break;
    case Action::unmute:
      method = QStringLiteral("Unmute");
      break;
    case Action::toggle:
      method = QStringLiteral("Toggle");
      break;
    case Action::volume: {
      // The number is checked here as well, so that a typo is reported even with no instance.
      bool isNumber = false;
      const double percent = QString::fromStdString(volume).toDouble(&isNumber);
      if (!isNumber || !(percent >= 0.0 && percent <= AppControl::kMaxPercent)) {
        return fail(AppRemoteControl::volumeOutOfRange(QString::fromStdString(volume)));
      }
      method = QStringLiteral("SetVolume");
      arguments << percent;
      break;
    }
  }

  const QString notRunning = QCoreApplication::translate("ControlCommand", "Quellix läuft nicht.");
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected() || !bus.interface()->isServiceRegistered(SingleInstance::kServiceName)) {
    return fail(notRunning);
  }
  QDBusMessage call =
      QDBusMessage::createMethodCall(SingleInstance::kServiceName, SingleInstance::kObjectPath,
                                     QStringLiteral("com.norvalin.Quellix.Control"), method);
  call.setArguments(arguments);
  const QDBusMessage answer = bus.call(call, QDBus::Block, kCallTimeoutMs);
  if (answer.type() == QDBusMessage::ErrorMessage) {
    const bool gone =
        answer.errorName() == QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown") ||
        answer.errorName() == QStringLiteral("org.freedesktop.DBus.Error.NoReply");
    return fail(gone ? notRunning : answer.errorMessage());
  }
  return 0;
}

}  // namespace quellix::ControlCommand
