#include "desktop/runtime/SingleInstance.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <memory>

namespace quellix {
namespace {

const QString kService = QString::fromLatin1(SingleInstance::kServiceName);

// Another client of the same bus, as a second start of the program would be.
class Rival {
 public:
  Rival() : bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, kName)) {}
  ~Rival() {
    bus_.interface()->unregisterService(kService);
    QDBusConnection::disconnectFromBus(kName);
  }
  Rival(const Rival&) = delete;
  Rival& operator=(const Rival&) = delete;

  bool takeName() {
    const auto reply =
        bus_.interface()->registerService(kService, QDBusConnectionInterface::DontQueueService,
                                          QDBusConnectionInterface::DontAllowReplacement);
    return reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered;
  }

 private:
  static inline const QString kName = QStringLiteral("rival");
  QDBusConnection bus_;
};

// Released once is released: neither a second release nor the end of the process may take the
// name from the instance that owns it by then.
TEST(SingleInstanceTest, TheClaimHoldsTheNameUntilReleasedAndLeavesTheNextOwnerAlone) {
  auto leaving = std::make_unique<SingleInstance>();
  ASSERT_EQ(leaving->claim(), SingleInstance::Outcome::primary) << leaving->failure().toStdString();
  {
    Rival rival;
    EXPECT_FALSE(rival.takeName());
  }
  leaving->release();
  auto arriving = std::make_unique<SingleInstance>();
  EXPECT_EQ(arriving->claim(), SingleInstance::Outcome::primary)
      << arriving->failure().toStdString();
  leaving->release();
  leaving.reset();
  {
    Rival rival;
    EXPECT_FALSE(rival.takeName());
  }
  arriving.reset();
  Rival rival;
  EXPECT_TRUE(rival.takeName()) << "the owner's end frees the name";
}

}  // namespace
}  // namespace quellix
