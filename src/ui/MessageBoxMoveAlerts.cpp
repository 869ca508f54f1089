#include "ui/MessageBoxMoveAlerts.h"

#include <QApplication>
#include <QCoreApplication>
#include <QIcon>
#include <QMessageBox>
#include <QPushButton>

namespace quellix {
namespace {

constexpr int kIconSize = 64;

QString translated(const char* text) {
  return QCoreApplication::translate(MessageBoxMoveAlerts::kContext, text);
}

// The program's own icon where it has one, so the user sees who is asking.
void setApplicationIcon(QMessageBox& box, QMessageBox::Icon fallback) {
  const QIcon icon = QApplication::windowIcon();
  if (icon.isNull()) {
    box.setIcon(fallback);
  } else {
    box.setIconPixmap(icon.pixmap(kIconSize, kIconSize));
  }
}

}  // namespace

bool MessageBoxMoveAlerts::offer() {
  QMessageBox box;
  box.setWindowTitle(QApplication::applicationDisplayName());
  box.setText(translated(kOfferMessage));
  box.setInformativeText(translated(kOfferInformation));
  setApplicationIcon(box, QMessageBox::Question);
  QPushButton* move = box.addButton(translated(kMoveButton), QMessageBox::AcceptRole);
  QPushButton* later = box.addButton(translated(kLaterButton), QMessageBox::RejectRole);
  box.setDefaultButton(move);
  box.setEscapeButton(later);
  box.raise();
  box.activateWindow();
  box.exec();
  return box.clickedButton() == move;
}

void MessageBoxMoveAlerts::showFailure() {
  QMessageBox box;
  box.setWindowTitle(QApplication::applicationDisplayName());
  box.setText(translated(kFailureMessage));
  box.setInformativeText(translated(kFailureInformation));
  setApplicationIcon(box, QMessageBox::Warning);
  box.setStandardButtons(QMessageBox::Ok);
  box.exec();
}

}  // namespace quellix
