#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "desktop/mpris/MediaPlayers.h"
#include "desktop/mpris/MprisPlayerChoice.h"
#include "desktop/mpris/MprisPlayerState.h"

class QDBusMessage;
class QDBusPendingCall;

namespace quellix {

// The media players on the session bus (MPRIS), followed from the bus itself. Every call is
// asynchronous, so a player that hangs or vanishes never holds up the main thread, and its
// failures go unreported.
class MprisPlayers final : public QObject, public MediaPlayers {
  Q_OBJECT

 public:
  // Opens its own connection to the bus at `busAddress`; empty: the session bus the environment
  // names now. Needs a running Qt application; lives on the main thread.
  explicit MprisPlayers(std::shared_ptr<LogSink> logs, const QString& busAddress = {});
  ~MprisPlayers() override;

  void send(MediaKey key) override;
  std::optional<std::string> unreachableReason() const override;
  std::optional<pid_t> currentPlayerProcess() override;

  const MprisPlayerChoice& choice() const { return choice_; }
  // The players present when it connected are known.
  bool isFollowing() const { return following_; }

 private slots:
  void nameOwnerChanged(const QString& name, const QString& oldOwner, const QString& newOwner);
  void propertiesChanged(const QDBusMessage& message);

 private:
  void lookAtBus();
  void playerAppeared(const QString& name, const QString& owner);
  // `announced`: the player said its status changed but not to what.
  void readStatus(const QString& name, bool announced);
  void lookupDone();
  void pressNext();
  void press(MediaKey key, const QString& player);
  template <typename Done>
  void whenFinished(const QDBusPendingCall& call, Done done);

  QString connectionName_;
  QDBusConnection connection_;
  std::optional<std::string> unreachableReason_;
  MprisPlayerChoice choice_;
  std::map<QString, QString> owners_;  // player name -> the unique name that owns it
  int lookupsPending_ = 0;
  bool following_ = false;
  std::deque<MediaKey> presses_;
  bool pressing_ = false;
};

}  // namespace quellix
