#pragma once

#include <QtGlobal>

#include "state/MoveAlerts.h"

namespace quellix {

// The move's alerts as modal message boxes with the application's icon.
class MessageBoxMoveAlerts final : public MoveAlerts {
 public:
  static constexpr const char* kContext = "SelfMover";
  static constexpr const char* kOfferMessage =
      QT_TRANSLATE_NOOP("SelfMover", "Quellix in den Ordner ~/Applications verschieben?");
  static constexpr const char* kOfferInformation = QT_TRANSLATE_NOOP(
      "SelfMover",
      "Quellix läuft gerade aus dem Ordner, in den es geladen oder kopiert wurde. Empfohlen: "
      "einmal nach ~/Applications in deinem Home-Ordner verschieben, dann startet es künftig von "
      "dort und erscheint bei deinen Programmen.");
  static constexpr const char* kMoveButton =
      QT_TRANSLATE_NOOP("SelfMover", "Verschieben und starten");
  static constexpr const char* kLaterButton = QT_TRANSLATE_NOOP("SelfMover", "Später");
  static constexpr const char* kFailureMessage =
      QT_TRANSLATE_NOOP("SelfMover", "Verschieben fehlgeschlagen");
  static constexpr const char* kFailureInformation = QT_TRANSLATE_NOOP(
      "SelfMover", "Bitte verschiebe den Ordner Quellix selbst nach ~/Applications.");

  bool offer() override;
  void showFailure() override;
};

}  // namespace quellix
