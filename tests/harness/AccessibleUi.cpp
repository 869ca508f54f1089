#include "harness/AccessibleUi.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <set>
#include <utility>

#include "harness/DBusClient.h"

namespace quellix::testing {
namespace {

const QString kAccessible = QStringLiteral("org.a11y.atspi.Accessible");
const QString kAction = QStringLiteral("org.a11y.atspi.Action");
const QString kComponent = QStringLiteral("org.a11y.atspi.Component");
const QString kValue = QStringLiteral("org.a11y.atspi.Value");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kRoot = QStringLiteral("/org/a11y/atspi/accessible/root");

// Bits of the first word of AT-SPI's state set.
constexpr int kCheckedStateBit = 4;
constexpr int kEnabledStateBit = 8;
constexpr int kShowingStateBit = 25;
constexpr int kScreenCoordinates = 0;
// A bound on the walk, should a program's tree ever point back into itself.
constexpr std::size_t kMostObjects = 10000;

QDBusMessage waitFor(QDBusPendingCall& pending) {
  pending.waitForFinished();
  return pending.reply();
}

QVariant unwrapped(const QDBusMessage& reply) {
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
    return {};
  }
  return reply.arguments().first().value<QDBusVariant>().variant();
}

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

std::vector<AccessibleUi::Element> AccessibleUi::describe(const QString& service,
                                                          const QStringList& paths) {
  // All questions about a level go out at once; the program answers them in one go.
  struct Pending {
    QDBusPendingCall role, name, description, state, extents;
  };
  const auto call = [&](const QString& path, const QString& interface, const QString& method,
                        const QVariantList& arguments = {}) {
    auto message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return bus_->asyncCall(message);
  };
  std::vector<Pending> pending;
  for (const QString& path : paths) {
    pending.push_back(
        {call(path, kAccessible, QStringLiteral("GetRoleName")),
         call(path, kProperties, QStringLiteral("Get"), {kAccessible, QStringLiteral("Name")}),
         call(path, kProperties, QStringLiteral("Get"),
              {kAccessible, QStringLiteral("Description")}),
         call(path, kAccessible, QStringLiteral("GetState")),
         call(path, kComponent, QStringLiteral("GetExtents"), {uint(kScreenCoordinates)})});
  }
  std::vector<Element> elements;
  for (qsizetype index = 0; index < paths.size(); ++index) {
    Pending& answers = pending[static_cast<std::size_t>(index)];
    Element element;
    element.service = service;
    element.path = paths[index];
    element.role = waitFor(answers.role).arguments().value(0).toString();
    element.name = unwrapped(waitFor(answers.name)).toString();
    element.description = unwrapped(waitFor(answers.description)).toString();
    const QDBusMessage state = waitFor(answers.state);
    if (state.type() == QDBusMessage::ReplyMessage) {
      const auto words = qdbus_cast<QList<uint>>(state.arguments().first());
      const uint first = words.value(0);
      element.showing = (first >> kShowingStateBit & 1U) != 0;
      element.checked = (first >> kCheckedStateBit & 1U) != 0;
      element.enabled = (first >> kEnabledStateBit & 1U) != 0;
    }
    const QDBusMessage extents = waitFor(answers.extents);
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
    elements.push_back(std::move(element));
  }
  return elements;
}

std::vector<AccessibleUi::Element> AccessibleUi::tree(pid_t pid) {
  if (!connect()) {
    return {};
  }
  const QString service = nameOwnedBy(*bus_, pid, QStringLiteral(":"));
  if (service.isEmpty()) {
    return {};
  }
  std::vector<Element> elements;
  std::set<QString> seen{kRoot};
  QStringList level{kRoot};
  while (!level.isEmpty() && seen.size() < kMostObjects) {
    std::vector<QDBusPendingCall> calls;
    for (const QString& path : level) {
      calls.push_back(bus_->asyncCall(QDBusMessage::createMethodCall(
          service, path, kAccessible, QStringLiteral("GetChildren"))));
    }
    QStringList next;
    for (QDBusPendingCall& call : calls) {
      const QDBusMessage reply = waitFor(call);
      if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        continue;
      }
      // a(so): each child as the bus name serving it and its object path.
      const auto children = reply.arguments().first().value<QDBusArgument>();
      children.beginArray();
      while (!children.atEnd()) {
        QString owner;
        QDBusObjectPath path;
        children.beginStructure();
        children >> owner >> path;
        children.endStructure();
        if (seen.insert(path.path()).second) {
          next.push_back(path.path());
        }
      }
      children.endArray();
    }
    for (Element& element : describe(service, next)) {
      elements.push_back(std::move(element));
    }
    level = std::move(next);
  }
  return elements;
}

bool AccessibleUi::isControl(const QString& role) {
  return role == QLatin1String("push button") || role == QLatin1String("check box") ||
         role == QLatin1String("toggle button") || role == QLatin1String("slider");
}

std::vector<AccessibleUi::Element> AccessibleUi::showingControls(pid_t pid) {
  std::vector<Element> controls;
  for (Element& element : tree(pid)) {
    if (element.showing && isControl(element.role)) {
      controls.push_back(std::move(element));
    }
  }
  return controls;
}

std::optional<AccessibleUi::Element> AccessibleUi::showingControl(pid_t pid, const QString& name) {
  for (auto& control : showingControls(pid)) {
    if (control.name == name) {
      return std::move(control);
    }
  }
  return std::nullopt;
}

std::optional<AccessibleUi::Element> AccessibleUi::showingControl(
    pid_t pid, const QString& word, const QStringList& descriptionEndings) {
  for (auto& control : showingControls(pid)) {
    if (!control.name.contains(word, Qt::CaseInsensitive)) {
      continue;
    }
    for (const QString& ending : descriptionEndings) {
      if (control.description.endsWith(ending)) {
        return std::move(control);
      }
    }
  }
  return std::nullopt;
}

QStringList AccessibleUi::actions(const Element& element) {
  QStringList names;
  if (!connect()) {
    return names;
  }
  const int count =
      propertyOf(*bus_, element.service, element.path, kAction, QStringLiteral("NActions")).toInt();
  for (int index = 0; index < count; ++index) {
    names.push_back(callAndWait(*bus_, element.service, element.path, kAction,
                                QStringLiteral("GetName"), {index})
                        .arguments()
                        .value(0)
                        .toString());
  }
  return names;
}

bool AccessibleUi::doAction(const Element& element, const QString& action) {
  const auto index = actions(element).indexOf(action);
  if (index < 0) {
    return false;
  }
  const QDBusMessage reply = callAndWait(*bus_, element.service, element.path, kAction,
                                         QStringLiteral("DoAction"), {int(index)});
  return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

std::optional<double> AccessibleUi::value(const Element& element) {
  if (!connect()) {
    return std::nullopt;
  }
  const QVariant current =
      propertyOf(*bus_, element.service, element.path, kValue, QStringLiteral("CurrentValue"));
  return current.isValid() ? std::optional(current.toDouble()) : std::nullopt;
}

std::optional<double> AccessibleUi::maximumValue(const Element& element) {
  if (!connect()) {
    return std::nullopt;
  }
  const QVariant maximum =
      propertyOf(*bus_, element.service, element.path, kValue, QStringLiteral("MaximumValue"));
  return maximum.isValid() ? std::optional(maximum.toDouble()) : std::nullopt;
}

bool AccessibleUi::setValue(const Element& element, double value) {
  if (!connect()) {
    return false;
  }
  const QDBusMessage reply = callAndWait(
      *bus_, element.service, element.path, kProperties, QStringLiteral("Set"),
      {kValue, QStringLiteral("CurrentValue"), QVariant::fromValue(QDBusVariant(value))});
  return reply.type() == QDBusMessage::ReplyMessage;
}

}  // namespace quellix::testing
