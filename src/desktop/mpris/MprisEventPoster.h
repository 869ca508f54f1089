#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "desktop/mpris/EventPoster.h"
#include "desktop/mpris/MprisCommand.h"
#include "desktop/mpris/MprisPlayerChoice.h"

class QDBusMessage;
class QDBusPendingCall;

namespace quellix {

// Delivers media-key presses to the current media player over the session bus (MPRIS).
// Follows the players from the bus itself; every call is asynchronous, so a player that hangs
// or vanishes never holds up the main thread, and its failures go unreported.
class MprisEventPoster final : public QObject, public EventPoster {
  Q_OBJECT

 public:
  // Opens its own connection to the session bus the environment names. Needs a running Qt
  // application; lives on the main thread.
  MprisEventPoster();
  ~MprisEventPoster() override;

  void post(CGEventTapLocation tap, const CGEvent& event) override;
  std::optional<std::string> unreachableReason() const override;

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
  void press(MprisCommand command, const QString& player);
  template <typename Done>
  void whenFinished(const QDBusPendingCall& call, Done done);

  QString connectionName_;
  QDBusConnection connection_;
  std::optional<std::string> unreachableReason_;
  MprisPlayerChoice choice_;
  std::map<QString, QString> owners_;  // player name -> the unique name that owns it
  int lookupsPending_ = 0;
  bool following_ = false;
  std::deque<MprisCommand> presses_;
  bool pressing_ = false;
};

}  // namespace quellix
