#include "desktop/mpris/MprisPlayers.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QVariantMap>

#include <atomic>

namespace quellix {
namespace {

const QString kBusService = QStringLiteral("org.freedesktop.DBus");
const QString kBusPath = QStringLiteral("/org/freedesktop/DBus");
const QString kBusInterface = QStringLiteral("org.freedesktop.DBus");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kPlayerNamePrefix = QStringLiteral("org.mpris.MediaPlayer2.");
const QString kPlayerPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPlayerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
const QString kPlaybackStatus = QStringLiteral("PlaybackStatus");

// Long enough for a busy player, short enough that a hung one does not hold later presses.
constexpr int kReplyTimeoutMs = 1000;
// Presses beyond these, made while a player does not answer, are dropped.
constexpr std::size_t kMostPressesWaiting = 16;

QString nextConnectionName() {
  static std::atomic<int> count{0};
  return QStringLiteral("quellix-media-keys-%1").arg(++count);
}

// Without an address, the one the environment names now: the library behind the bus type reads
// it only once per process, and players followed later must follow a changed environment.
QDBusConnection connectToSessionBus(const QString& busAddress, const QString& connectionName) {
  const QString address =
      busAddress.isEmpty() ? qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS") : busAddress;
  return address.isEmpty()
             ? QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName)
             : QDBusConnection::connectToBus(address, connectionName);
}

bool isPlayerName(const QString& name) {
  return name.startsWith(kPlayerNamePrefix);
}

bool isReply(const QDBusMessage& message) {
  return message.type() == QDBusMessage::ReplyMessage && !message.arguments().isEmpty();
}

QDBusMessage busCall(const QString& method) {
  return QDBusMessage::createMethodCall(kBusService, kBusPath, kBusInterface, method);
}

QDBusMessage propertiesCall(const QString& player, const QString& method) {
  return QDBusMessage::createMethodCall(player, kPlayerPath, kPropertiesInterface, method);
}

std::optional<MprisPlaybackStatus> statusIn(const QVariant& value) {
  return parsePlaybackStatus(value.toString().toStdString());
}

MprisPlayerState playerStateFrom(const QVariantMap& properties) {
  return {
      .status = statusIn(properties.value(kPlaybackStatus)).value_or(MprisPlaybackStatus::stopped),
      .canGoPrevious = properties.value(QStringLiteral("CanGoPrevious")).toBool(),
      .canGoNext = properties.value(QStringLiteral("CanGoNext")).toBool(),
      .canPlay = properties.value(QStringLiteral("CanPlay")).toBool(),
      .canPause = properties.value(QStringLiteral("CanPause")).toBool(),
  };
}

}  // namespace

MprisPlayers::MprisPlayers(std::shared_ptr<LogSink> logs, const QString& busAddress)
    : MediaPlayers(std::move(logs)),
      connectionName_(nextConnectionName()),
      connection_(connectToSessionBus(busAddress, connectionName_)) {
  if (!connection_.isConnected()) {
    const QString why = connection_.lastError().message();
    unreachableReason_ = why.isEmpty() ? std::string("no session bus") : why.toStdString();
    return;
  }
  connection_.connect(kBusService, kBusPath, kBusInterface, QStringLiteral("NameOwnerChanged"),
                      this, SLOT(nameOwnerChanged(QString, QString, QString)));
  connection_.connect(QString(), kPlayerPath, kPropertiesInterface,
                      QStringLiteral("PropertiesChanged"), this,
                      SLOT(propertiesChanged(QDBusMessage)));
  lookAtBus();
}

MprisPlayers::~MprisPlayers() {
  QDBusConnection::disconnectFromBus(connectionName_);
}

std::optional<std::string> MprisPlayers::unreachableReason() const {
  return unreachableReason_;
}

template <typename Done>
void MprisPlayers::whenFinished(const QDBusPendingCall& call, Done done) {
  // The watcher is a child, so no answer arrives after these players are gone.
  auto* watcher = new QDBusPendingCallWatcher(call, this);
  QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                   [watcher, done = std::move(done)]() mutable {
                     watcher->deleteLater();
                     done(watcher->reply());
                   });
}

void MprisPlayers::lookAtBus() {
  ++lookupsPending_;
  whenFinished(connection_.asyncCall(busCall(QStringLiteral("ListNames")), kReplyTimeoutMs),
               [this](const QDBusMessage& reply) {
                 const QStringList names =
                     isReply(reply) ? reply.arguments().first().toStringList() : QStringList();
                 for (const QString& name : names) {
                   if (!isPlayerName(name)) {
                     continue;
                   }
                   ++lookupsPending_;
                   QDBusMessage ownerCall = busCall(QStringLiteral("GetNameOwner"));
                   ownerCall << name;
                   whenFinished(connection_.asyncCall(ownerCall, kReplyTimeoutMs),
                                [this, name](const QDBusMessage& ownerReply) {
                                  if (isReply(ownerReply)) {
                                    playerAppeared(name, ownerReply.arguments().first().toString());
                                  }
                                  lookupDone();
                                });
                 }
                 lookupDone();
               });
}

void MprisPlayers::lookupDone() {
  if (--lookupsPending_ == 0 && !following_) {
    following_ = true;
    pressNext();
  }
}

void MprisPlayers::playerAppeared(const QString& name, const QString& owner) {
  owners_[name] = owner;
  choice_.appeared(name.toStdString());
  readStatus(name, false);
}

void MprisPlayers::readStatus(const QString& name, bool announced) {
  ++lookupsPending_;
  QDBusMessage call = propertiesCall(name, QStringLiteral("Get"));
  call << kPlayerInterface << kPlaybackStatus;
  whenFinished(connection_.asyncCall(call, kReplyTimeoutMs),
               [this, name, announced](const QDBusMessage& reply) {
                 if (isReply(reply)) {
                   const auto value = reply.arguments().first().value<QDBusVariant>().variant();
                   if (const auto status = statusIn(value)) {
                     if (announced) {
                       choice_.statusChanged(name.toStdString(), *status);
                     } else {
                       choice_.statusRead(name.toStdString(), *status);
                     }
                   }
                 }
                 lookupDone();
               });
}

void MprisPlayers::nameOwnerChanged(const QString& name, const QString& oldOwner,
                                    const QString& newOwner) {
  if (!isPlayerName(name)) {
    return;
  }
  if (!oldOwner.isEmpty()) {
    owners_.erase(name);
    choice_.left(name.toStdString());
  }
  if (!newOwner.isEmpty()) {
    playerAppeared(name, newOwner);
  }
}

void MprisPlayers::propertiesChanged(const QDBusMessage& message) {
  const QList<QVariant> arguments = message.arguments();
  if (arguments.size() < 2 || arguments[0].toString() != kPlayerInterface) {
    return;
  }
  const auto changed = qdbus_cast<QVariantMap>(arguments[1]);
  const QStringList invalidated =
      arguments.size() > 2 ? arguments[2].toStringList() : QStringList();
  const auto status =
      changed.contains(kPlaybackStatus) ? statusIn(changed.value(kPlaybackStatus)) : std::nullopt;
  // Signals come from the player's unique name; a player is known by its well-known one.
  for (const auto& [name, owner] : owners_) {
    if (owner != message.service()) {
      continue;
    }
    if (status) {
      choice_.statusChanged(name.toStdString(), *status);
    } else if (invalidated.contains(kPlaybackStatus)) {
      readStatus(name, true);
    }
  }
}

void MprisPlayers::send(MediaKey key) {
  if (unreachableReason_) {
    explainUnreachable();
    return;
  }
  if (presses_.size() >= kMostPressesWaiting) {
    return;
  }
  presses_.push_back(key);
  pressNext();
}

void MprisPlayers::pressNext() {
  // One press at a time, so each acts on what the one before it did.
  while (following_ && !pressing_ && !presses_.empty()) {
    const MediaKey key = presses_.front();
    presses_.pop_front();
    if (const auto player = choice_.choose()) {
      press(key, QString::fromStdString(*player));
    }
  }
}

void MprisPlayers::press(MediaKey key, const QString& player) {
  pressing_ = true;
  QDBusMessage call = propertiesCall(player, QStringLiteral("GetAll"));
  call << kPlayerInterface;
  whenFinished(
      connection_.asyncCall(call, kReplyTimeoutMs), [this, key, player](const QDBusMessage& reply) {
        pressing_ = false;
        if (isReply(reply)) {
          const auto state = playerStateFrom(qdbus_cast<QVariantMap>(reply.arguments().first()));
          if (const auto method = mprisMethodFor(key, state)) {
            // No answer is awaited: the player's own signals tell what it did.
            connection_.send(QDBusMessage::createMethodCall(player, kPlayerPath, kPlayerInterface,
                                                            QString::fromStdString(*method)));
          }
        }
        pressNext();
      });
}

std::optional<pid_t> MprisPlayers::currentPlayerProcess() {
  const auto player = choice_.choose();
  if (!player) {
    return std::nullopt;
  }
  const auto owner = owners_.find(QString::fromStdString(*player));
  if (owner == owners_.end()) {
    return std::nullopt;
  }
  const auto pid = connection_.interface()->servicePid(owner->second);
  if (!pid.isValid()) {
    return std::nullopt;
  }
  return static_cast<pid_t>(pid.value());
}

}  // namespace quellix
