#include "harness/AccessibleUi.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <utility>

#include "harness/DBusClient.h"

namespace quellix::testing {
namespace {

const QString kAccessible = QStringLiteral("org.a11y.atspi.Accessible");
const QString kComponent = QStringLiteral("org.a11y.atspi.Component");
const QString kObjectPrefix = QStringLiteral("/org/a11y/atspi/accessible/");

// Qt numbers its accessible objects upwards from here and never reuses a number, so the
// objects alive now are found by trying numbers until a long run of them answers nothing.
constexpr quint64 kFirstObjectID = 0x80000000ULL;
constexpr quint64 kProbeBatch = 256;
constexpr quint64 kGiveUpAfterMissing = 2048;
constexpr quint64 kMostObjects = 65536;
constexpr int kShowingStateBit = 25;
constexpr int kScreenCoordinates = 0;

}  // namespace

AccessibleUi::AccessibleUi(QDBusConnection session) : session_(std::move(session)) {}

AccessibleUi::~AccessibleUi() {
  if (bus_) {
    QDBusConnection::disconnectFromBus(bus_->name());
  }
}

bool AccessibleUi::connect() {
  if (bus_ && bus_->isConnected()) {
    return true;
  }
  // Asking for the address starts the accessibility bus when the session has none yet.
  const QDBusMessage reply =
      callAndWait(session_, QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                  QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress"));
  const QString address = reply.arguments().value(0).toString();
  if (reply.type() != QDBusMessage::ReplyMessage || address.isEmpty()) {
    return false;
  }
  bus_ = connectPrivately(address);
  return bus_->isConnected();
}

std::optional<AccessibleUi::Element> AccessibleUi::describe(const QString& service,
                                                            const QString& path) {
  const auto property = [&](const QString& name) {
    return propertyOf(*bus_, service, path, kAccessible, name);
  };
  Element element;
  element.path = path;
  element.name = property(QStringLiteral("Name")).toString();
  element.description = property(QStringLiteral("Description")).toString();

  const QDBusMessage state =
      callAndWait(*bus_, service, path, kAccessible, QStringLiteral("GetState"));
  if (state.type() != QDBusMessage::ReplyMessage) {
    return std::nullopt;
  }
  const auto stateWords = qdbus_cast<QList<uint>>(state.arguments().first());
  element.showing = !stateWords.isEmpty() && (stateWords.first() >> kShowingStateBit & 1U) != 0;

  const QDBusMessage extents = callAndWait(
      *bus_, service, path, kComponent, QStringLiteral("GetExtents"), {uint(kScreenCoordinates)});
  if (extents.type() == QDBusMessage::ReplyMessage) {
    const auto argument = extents.arguments().first().value<QDBusArgument>();
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    argument.beginStructure();
    argument >> x >> y >> width >> height;
    argument.endStructure();
    element.extents = QRect(x, y, width, height);
  }
  return element;
}

std::vector<AccessibleUi::Element> AccessibleUi::showingButtons(pid_t pid) {
  if (!connect()) {
    return {};
  }
  const QString service = nameOwnedBy(*bus_, pid, QStringLiteral(":"));
  if (service.isEmpty()) {
    return {};
  }
  std::vector<Element> buttons;
  quint64 lastFound = kFirstObjectID;
  for (quint64 first = kFirstObjectID;
       first - lastFound < kGiveUpAfterMissing && first - kFirstObjectID < kMostObjects;
       first += kProbeBatch) {
    std::vector<std::pair<QString, QDBusPendingCall>> probes;
    for (quint64 id = first; id < first + kProbeBatch; ++id) {
      const QString path = kObjectPrefix + QString::number(id);
      probes.emplace_back(path, bus_->asyncCall(QDBusMessage::createMethodCall(
                                    service, path, kAccessible, QStringLiteral("GetRoleName"))));
    }
    for (auto& [path, pending] : probes) {
      pending.waitForFinished();
      const QDBusMessage reply = pending.reply();
      if (reply.type() != QDBusMessage::ReplyMessage) {
        continue;
      }
      lastFound = path.mid(kObjectPrefix.size()).toULongLong();
      if (reply.arguments().value(0).toString() != QLatin1String("push button")) {
        continue;
      }
      if (auto element = describe(service, path); element && element->showing) {
        buttons.push_back(std::move(*element));
      }
    }
  }
  return buttons;
}

std::optional<AccessibleUi::Element> AccessibleUi::showingButton(pid_t pid, const QString& name) {
  for (auto& button : showingButtons(pid)) {
    if (button.name == name) {
      return std::move(button);
    }
  }
  return std::nullopt;
}

std::optional<AccessibleUi::Element> AccessibleUi::showingButton(
    pid_t pid, const QString& word, const QStringList& descriptionEndings) {
  for (auto& button : showingButtons(pid)) {
    if (!button.name.contains(word, Qt::CaseInsensitive)) {
      continue;
    }
    for (const QString& ending : descriptionEndings) {
      if (button.description.endsWith(ending)) {
        return std::move(button);
      }
    }
  }
  return std::nullopt;
}

}  // namespace quellix::testing
