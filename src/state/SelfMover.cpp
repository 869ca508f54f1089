#include "state/SelfMover.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <fstream>
#include <string_view>

#include "desktop/apps/DesktopEntries.h"
#include "state/MoveAlerts.h"
#include "support/BuildInfo.h"
#include "support/Logger.h"
#include "support/TextError.h"

namespace quellix::SelfMover {
namespace fs = std::filesystem;
namespace {

constexpr const char* kAppImageFileName = "Quellix.AppImage";
constexpr const char* kPortableFolderName = "Quellix";
constexpr const char* kApplicationsFolder = "Applications";
constexpr const char* kFallbackDownloadsFolder = "Downloads";
constexpr const char* kPortableProgramFolder = "bin";
constexpr const char* kOptOutName = "appimagekit/no_desktopintegration";
constexpr std::string_view kNeverOfferPrefixes[] = {"/usr/", "/opt/"};
constexpr std::string_view kRemovableMediaPrefixes[] = {"/media/", "/run/media/", "/mnt/"};
// Set by the AppImage runtime for the image it started; a copy must find its own.
constexpr const char* kAppImageVariables[] = {"APPIMAGE", "APPDIR", "ARGV0", "OWD"};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool shouldOffer(const std::string& bundlePath, const fs::path& home, const fs::path& downloads) {
  if (startsWith(bundlePath, (home / kApplicationsFolder).string() + "/")) {
    return false;
  }
  for (const auto prefix : kNeverOfferPrefixes) {
    if (startsWith(bundlePath, prefix)) {
      return false;
    }
  }
  for (const auto prefix : kRemovableMediaPrefixes) {
    if (startsWith(bundlePath, prefix)) {
      return true;
    }
  }
  return startsWith(bundlePath, downloads.string());
}

bool optedOut(const std::vector<fs::path>& optOutFiles) {
  for (const auto& file : optOutFiles) {
    std::error_code error;
    if (fs::exists(file, error)) {
      return true;
    }
  }
  return false;
}

[[noreturn]] void fail(const std::string& action, const std::error_code& error) {
  throw TextError(action + ": " + error.message());
}

void writeDesktopEntry(const fs::path& file, const fs::path& program) {
  std::error_code error;
  fs::create_directories(file.parent_path(), error);
  if (error) {
    fail("cannot create " + file.parent_path().string(), error);
  }
  std::ofstream out(file, std::ios::trunc);
  out << "[Desktop Entry]\n"
      << "Type=Application\n"
      << "Name=Quellix\n"
      << "Exec=" << execArgument(program.string()) << "\n"
      << "TryExec=" << escapedValue(program.string()) << "\n"
      << "Icon=" << build::kBundleIdentifier << "\n"
      << "Terminal=false\n"
      << "Categories=AudioVideo;Audio;Mixer;\n";
  out.close();
  if (!out) {
    throw TextError("cannot write " + file.string());
  }
}

// Copies the bundle into place, gives the copy a desktop entry, starts it, and has this
// process quit at the start or after a grace period, whichever comes first.
void moveToApplications(const Bundle& bundle, const Environment& environment) {
  const fs::path destination = destinationFor(bundle, environment.home);
  std::error_code error;
  if (fs::exists(fs::symlink_status(destination, error))) {
    fs::remove_all(destination, error);
    if (error) {
      fail("cannot remove " + destination.string(), error);
    }
  }
  fs::create_directories(destination.parent_path(), error);
  if (error) {
    fail("cannot create " + destination.parent_path().string(), error);
  }
  fs::copy(bundle.path, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
           error);
  if (error) {
    fail("cannot copy " + bundle.path.string() + " to " + destination.string(), error);
  }
  const fs::path program = bundle.program.empty() ? destination : destination / bundle.program;
  writeDesktopEntry(environment.dataHome / "applications" / kDesktopEntryName, program);

  // The copy, started while this process still holds the claim, would hand its start over to
  // this process and end, and this one ends too.
  if (environment.releaseInstance) {
    environment.releaseInstance();
  }
  environment.launch(program,
                     [queue = &environment.queue, quit = environment.quit] { queue->post(quit); });
  environment.queue.after(kQuitGracePeriod, environment.quit);
}

fs::path localPath(const QString& path) {
  return fs::path(QFile::encodeName(path).toStdString());
}

void launchDetached(const fs::path& program, const std::function<void()>& launched) {
  QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
  for (const char* name : kAppImageVariables) {
    variables.remove(QString::fromLatin1(name));
  }
  QProcess process;
  process.setProgram(QFile::decodeName(program.c_str()));
  process.setProcessEnvironment(variables);
  process.startDetached();
  launched();
}

Environment systemEnvironment(MoveAlerts& alerts, MainQueue& queue, std::shared_ptr<LogSink> logs,
                              std::function<void()> releaseInstance) {
  const fs::path home = localPath(QDir::homePath());
  fs::path downloads =
      localPath(QStandardPaths::writableLocation(QStandardPaths::DownloadLocation));
  if (downloads.empty()) {
    downloads = home / kFallbackDownloadsFolder;
  }
  const fs::path dataHome =
      localPath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
  std::optional<std::string> appImage;
  if (const QString variable = qEnvironmentVariable("APPIMAGE"); !variable.isEmpty()) {
    appImage = QFile::encodeName(variable).toStdString();
  }
  return Environment{
      .bundle = bundleFor(appImage, localPath(QCoreApplication::applicationFilePath())),
      .home = home,
      .downloads = downloads,
      .dataHome = dataHome,
      .optOutFiles = {dataHome / kOptOutName, fs::path("/usr/share") / kOptOutName,
                      fs::path("/etc") / kOptOutName},
      .alerts = alerts,
      .launch = launchDetached,
      .queue = queue,
      .quit = [] { QCoreApplication::quit(); },
      .logs = std::move(logs),
      .releaseInstance = std::move(releaseInstance),
  };
}

}  // namespace

std::optional<Bundle> bundleFor(const std::optional<std::string>& appImageVariable,
                                const fs::path& executable) {
  std::error_code error;
  if (appImageVariable && fs::is_regular_file(*appImageVariable, error)) {
    return Bundle{Bundle::Kind::appImage, fs::absolute(*appImageVariable).lexically_normal(), {}};
  }
  const fs::path programFolder = executable.parent_path();
  const fs::path folder = programFolder.parent_path();
  if (programFolder.filename() == kPortableProgramFolder && !folder.empty() &&
      fs::is_regular_file(folder / kPortableMarker, error)) {
    return Bundle{Bundle::Kind::portableFolder, folder,
                  fs::path(kPortableProgramFolder) / executable.filename()};
  }
  return std::nullopt;
}

fs::path destinationFor(const Bundle& bundle, const fs::path& home) {
  const fs::path folder = home / kApplicationsFolder;
  return bundle.kind == Bundle::Kind::appImage ? folder / kAppImageFileName
                                               : folder / kPortableFolderName;
}

bool offerMoveIfNeeded(const Environment& environment) {
  if (!environment.bundle || optedOut(environment.optOutFiles) ||
      !shouldOffer(environment.bundle->path.string(), environment.home, environment.downloads)) {
    return false;
  }
  if (!environment.alerts.offer()) {
    return false;
  }
  try {
    moveToApplications(*environment.bundle, environment);
    return true;
  } catch (const std::exception& error) {
    Logger(environment.logs, "SelfMover")
        .error("Verschieben fehlgeschlagen: " + errorDescription(error));
    environment.alerts.showFailure();
    return false;
  }
}

bool offerMoveIfNeeded(MainQueue& queue, MoveAlerts& alerts, std::shared_ptr<LogSink> logs,
                       std::function<void()> releaseInstance) {
  return offerMoveIfNeeded(
      systemEnvironment(alerts, queue, std::move(logs), std::move(releaseInstance)));
}

}  // namespace quellix::SelfMover
