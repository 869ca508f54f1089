#pragma once

#include <QObject>
#include <QString>

#include "desktop/runtime/RemoteControlAdaptor.h"

namespace quellix {

// One running Quellix per session: the first start owns a name on the session bus, and a
// later start hands its request to that one instead of starting a second tray item.
class SingleInstance final : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.norvalin.Quellix")

 public:
  static constexpr const char* kServiceName = "com.norvalin.Quellix";
  static constexpr const char* kObjectPath = "/com/norvalin/Quellix";

  enum class Outcome {
    primary,       // this process is the one instance
    handedOver,    // another instance runs and was asked to show itself
    noSessionBus,  // nobody to ask: this process runs alone
  };

  explicit SingleInstance(QObject* parent = nullptr);
  ~SingleInstance() override;

  // Claims the name, or asks its owner to show its panel.
  Outcome claim();
  // Gives the name up before this process ends, so that a start meanwhile (the copy a move
  // launches) becomes the one instance instead of handing over to a process on its way out.
  void release();
  const QString& failure() const { return failure_; }
  // The control interface beside Activate; its requests go to the control once it is set.
  RemoteControlAdaptor& control() const { return *control_; }

 public slots:
  // Called over the bus by a later start.
  Q_SCRIPTABLE void Activate();

 signals:
  void activationRequested();

 private:
  RemoteControlAdaptor* control_;  // a child: Qt finds adaptors among the children
  QString failure_;
  bool registered_ = false;
};

}  // namespace quellix
