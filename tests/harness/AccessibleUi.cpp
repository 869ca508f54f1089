#include "harness/AccessibleUi.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusReply>
#include <QDBusVariant>
#include <utility>

namespace quellix::testing {
namespace {

const QString kConnectionName = QStringLiteral("quellix-test-a11y");
const QString kAccessible = QStringLiteral("org.a11y.atspi.Accessible");
const QString kComponent = QStringLiteral("org.a11y.atspi.Component");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kObjectPrefix = QStringLiteral("/org/a11y/atspi/accessible/");

// Qt numbers its accessible objects upwards from here and never reuses a number, so the
// objects alive now are found by trying numbers until a long run of them answers nothing.
constexpr quint64 kFirstObjectID = 0x80000000ULL;
constexpr quint64 kProbeBatch = 256;
constexpr quint64 kGiveUpAfterMissing = 2048;
constexpr quint64 kMostObjects = 65536;
constexpr int kShowingStateBit = 25;
constexpr int kScreenCoordinates = 0;

QDBusMessage call(const QString& service, const QString& path, const QString& interface,
                  const QString& method, const QVariantList& arguments = {}) {
  auto message = QDBusMessage::createMethodCall(service, path, interface, method);
  message.setArguments(arguments);
  return message;
}

QVariant replyValue(const QDBusMessage& reply) {
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
    return {};
  }
  QVariant value = reply.arguments().first();
  if (value.canConvert<QDBusVariant>()) {
    value = value.value<QDBusVariant>().variant();
  }
  return value;
}

}  // namespace

AccessibleUi::AccessibleUi(QDBusConnection session) : session_(std::move(session)) {}

AccessibleUi::~AccessibleUi() {
  if (bus_) {
    QDBusConnection::disconnectFromBus(kConnectionName);
  }
}

bool AccessibleUi::connect() {
  if (bus_ && bus_->isConnected()) {
    return true;
  }
  // Asking for the address starts the accessibility bus when the session has none yet.
  const QDBusMessage reply =
      session_.call(call(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                         QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress")));
  const QString address = replyValue(reply).toString();
  if (address.isEmpty()) {
    return false;
  }
  bus_ = QDBusConnection::connectToBus(address, kConnectionName);
  return bus_->isConnected();
}

QString AccessibleUi::busNameOf(pid_t pid) {
  const QString daemon = QStringLiteral("org.freedesktop.DBus");
  const QString path = QStringLiteral("/org/freedesktop/DBus");
  const QStringList names =
      replyValue(bus_->call(call(daemon, path, daemon, QStringLiteral("ListNames"))))
          .toStringList();
  for (const QString& name : names) {
    if (!name.startsWith(QLatin1Char(':'))) {
      continue;
    }
    const QVariant owner = replyValue(bus_->call(
        call(daemon, path, daemon, QStringLiteral("GetConnectionUnixProcessID"), {name})));
    if (owner.isValid() && owner.toUInt() == static_cast<unsigned>(pid)) {
      return name;
    }
  }
  return {};
}

std::optional<AccessibleUi::Element> AccessibleUi::describe(const QString& service,
                                                            const QString& path) {
  const auto property = [&](const QString& name) {
    return replyValue(
        bus_->call(call(service, path, kProperties, QStringLiteral("Get"), {kAccessible, name})));
  };
  Element element;
  element.path = path;
  element.name = property(QStringLiteral("Name")).toString();
  element.description = property(QStringLiteral("Description")).toString();

  const QDBusMessage state =
      bus_->call(call(service, path, kAccessible, QStringLiteral("GetState")));
  if (state.type() != QDBusMessage::ReplyMessage) {
    return std::nullopt;
  }
  const auto stateWords = qdbus_cast<QList<uint>>(state.arguments().first());
  element.showing = !stateWords.isEmpty() && (stateWords.first() >> kShowingStateBit & 1U) != 0;

  const QDBusMessage extents = bus_->call(
      call(service, path, kComponent, QStringLiteral("GetExtents"), {uint(kScreenCoordinates)}));
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
  const QString service = busNameOf(pid);
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
      probes.emplace_back(
          path, bus_->asyncCall(call(service, path, kAccessible, QStringLiteral("GetRoleName"))));
    }
    for (auto& [path, pending] : probes) {
      pending.waitForFinished();
      const QDBusMessage reply = pending.reply();
      if (reply.type() != QDBusMessage::ReplyMessage) {
        continue;
      }
      lastFound = path.mid(kObjectPrefix.size()).toULongLong();
      if (replyValue(reply).toString() != QLatin1String("push button")) {
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
