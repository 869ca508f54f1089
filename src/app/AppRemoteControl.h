#pragma once

#include "desktop/runtime/RemoteControlAdaptor.h"
#include "state/AppControl.h"

namespace quellix {

// The bus's requests carried out by the application state; its changes told on the bus.
class AppRemoteControl final : public RemoteControl {
 public:
  AppRemoteControl(AppControl& control, RemoteControlAdaptor& adaptor);
  ~AppRemoteControl() override;

  RemoteAppList apps() override;
  RemoteApp mute(const QString& app) override;
  RemoteApp unmute(const QString& app) override;
  RemoteApp toggle(const QString& app) override;
  RemoteApp hearOnly(const QString& app) override;
  RemoteApp setVolume(const QString& app, double volume) override;
  void setMasterVolume(double volume) override;
  void setMasterMuted(bool muted) override;
  uint masterVolume() override;
  bool masterMuted() override;

  // The line a person reads for a request the state turned down.
  static Failure failure(const AppControl::Error& error);
  static QString volumeOutOfRange(const QString& given);

 private:
  template <typename Action>
  auto translatingErrors(Action&& action);

  AppControl& control_;
  RemoteControlAdaptor& adaptor_;
};

}  // namespace quellix
