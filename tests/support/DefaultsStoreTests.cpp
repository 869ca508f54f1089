#include "support/DefaultsStore.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <random>
#include <set>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TemporaryDirectory;
using testing::writeFile;

std::set<fs::path> filesIn(const fs::path& directory) {
  std::set<fs::path> files;
  for (const auto& entry : fs::directory_iterator(directory)) {
    files.insert(entry.path());
  }
  return files;
}

std::string randomBytes(std::size_t size) {
  static std::mt19937 random(21);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

class DefaultsStoreTest : public ::testing::Test {
 protected:
  TemporaryDirectory directory;
  fs::path path = directory.path() / "quellix" / "preferences.json";
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
};

TEST_F(DefaultsStoreTest, WritesSurviveARestart) {
  {
    DefaultsStore store(path, logs);
    store.set("mutedBundleIDs", {"a.app", "b.app"});
    for (int count = 0; count <= 3; ++count) {
      store.set("stats.muteCount", count);
    }
    store.set("onboardingCompleted", true);
  }
  EXPECT_EQ(filesIn(path.parent_path()), std::set<fs::path>{path}) << "no temporary file left";
  DefaultsStore reloaded(path, logs);
  EXPECT_EQ(reloaded.stringArray("mutedBundleIDs"), (std::vector<std::string>{"a.app", "b.app"}));
  EXPECT_EQ(reloaded.integer("stats.muteCount"), 3);
  EXPECT_TRUE(reloaded.boolean("onboardingCompleted"));
  EXPECT_TRUE(logs->entries().empty());
}

TEST_F(DefaultsStoreTest, TypedReadsConvertLikeADefaultsDatabase) {
  // Brackets inside a text do not count as nesting.
  writeFile(path, R"({"int": 7, "float": 2.5, "text": "12", "bad": "x", "flag": 1,
                      "list": ["a", 1], "dict": {"a": 0.5}, "no": "no", "yes": "YES",
                      "zero": 0, "one": "1", "name": ")" +
                      std::string(100, '[') + R"(\""})");
  DefaultsStore store(path, logs);
  EXPECT_EQ(store.integer("int"), 7);
  EXPECT_EQ(store.integer("float"), 0) << "a fraction is no whole number";
  EXPECT_EQ(store.integer("text"), 12);
  EXPECT_EQ(store.integer("bad"), 0);
  EXPECT_EQ(store.integer("absent"), 0);
  EXPECT_DOUBLE_EQ(store.doubleValue("float"), 2.5);
  EXPECT_TRUE(store.boolean("flag"));
  EXPECT_FALSE(store.boolean("bad"));
  EXPECT_FALSE(store.stringArray("list").has_value()) << "one non-text element spoils the array";
  EXPECT_EQ(store.dictionary("dict")->at("a"), 0.5);
  EXPECT_FALSE(store.dictionary("list").has_value());
  EXPECT_EQ(store.string("text"), "12");
  EXPECT_FALSE(store.string("int").has_value());
  EXPECT_EQ(std::vector<bool>({store.boolean("no"), store.boolean("yes"), store.boolean("zero"),
                               store.boolean("one")}),
            std::vector<bool>({false, true, false, true}));
  EXPECT_EQ(store.string("name")->size(), 101u);
}

// Whatever lies at the path, a start yields defaults, one error line naming the file, and the
// user's file moved next to the new one untouched, never over an earlier bad one.
TEST_F(DefaultsStoreTest, ACorruptFileYieldsDefaultsAndIsKeptAside) {
  const auto write = [&](std::string contents) {
    return [&path = path, contents] { writeFile(path, contents); };
  };
  struct Case {
    const char* what;
    std::function<void()> arrange;
    const char* reason;
  };
  const Case cases[] = {
      {"cut off", write("{\"mutedBundleIDs\": ["), "not valid JSON"},
      {"not an object", write("[1, 2]"), "JSON object"},
      {"not UTF-8", write("\xFF\xFE"), "not valid JSON"},
      {"seven random bytes", write(randomBytes(7)), "not valid JSON"},
      {"70000 random bytes", write(randomBytes(70000)), "not valid JSON"},
      {"one byte over the limit", write(std::string(DefaultsStore::kMaxFileSize, ' ') + "{}"),
       "larger than"},
      {"sparse 50 MiB",
       [&] {
         writeFile(path, R"({"stats.muteCount": 3, "padding": ")");
         fs::resize_file(path, 50 * 1024 * 1024);
       },
       "larger than"},
      // Valid JSON, and yet enough to overflow the stack of a recursive copy or write.
      {"deep nesting",
       write("{\"a\": " + std::string(200000, '[') + std::string(200000, ']') + "}"),
       "nests deeper"},
      {"a folder", [&] { fs::create_directories(path / "inside"); }, "not a regular file"},
      {"a pipe", [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }, "not a regular file"},
  };
  fs::create_directories(path.parent_path());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    c.arrange();
    const fs::file_type type = fs::status(path).type();
    // Small files are compared whole, large ones by size.
    const auto size = type == fs::file_type::regular ? fs::file_size(path) : 0;
    const bool whole = type == fs::file_type::regular && size < 100000;
    const std::string contents = whole ? readFile(path) : "";
    const auto before = filesIn(path.parent_path());
    logs->clear();
    {
      DefaultsStore store(path, logs);
      EXPECT_EQ(store.integer("stats.muteCount"), 0);
      EXPECT_FALSE(store.stringArray("mutedBundleIDs").has_value());
      const auto lines = logs->messages("Defaults");
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].rfind("Preferences " + path.string() + " ignored because ", 0), 0u);
      EXPECT_NE(lines[0].find(c.reason), std::string::npos) << lines[0];
      EXPECT_NE(lines[0].find("; kept as " + path.string() + ".corrupt-"), std::string::npos);
      EXPECT_FALSE(fs::exists(path)) << "moved, not copied";
      store.set("stats.muteCount", 1);
    }
    EXPECT_EQ(DefaultsStore(path, logs).integer("stats.muteCount"), 1);
    auto after = filesIn(path.parent_path());
    for (const fs::path& earlier : before) {
      EXPECT_EQ(after.erase(earlier), 1u) << earlier;
    }
    after.erase(path);
    ASSERT_EQ(after.size(), 1u);
    const fs::path aside = *after.begin();
    EXPECT_EQ(fs::status(aside).type(), type);
    if (type == fs::file_type::regular) {
      EXPECT_EQ(fs::file_size(aside), size);
      EXPECT_EQ(whole ? readFile(aside) : "", contents);
    }
    fs::remove(path);
  }
}

TEST_F(DefaultsStoreTest, AWrongTypedKeyFallsBackAloneAndIsReportedOnce) {
  const std::string contents = R"({"mutedBundleIDs": "a.app", "appVolumes": [0.5],
      "stats.muteCount": 18446744073709551615, "stats.mutedSeconds": "nan",
      "onboardingCompleted": "maybe", "updateFeedURL": 42, "kept": ["a.app"],
      "inexact": 9223302736854775.07})";
  writeFile(path, contents);
  DefaultsStore store(path, logs);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(store.stringArray("mutedBundleIDs").has_value());
    EXPECT_FALSE(store.dictionary("appVolumes").has_value());
    EXPECT_EQ(store.integer("stats.muteCount"), 0);
    EXPECT_EQ(store.doubleValue("stats.mutedSeconds"), 0.0);
    EXPECT_FALSE(store.boolean("onboardingCompleted"));
    EXPECT_FALSE(store.string("updateFeedURL").has_value());
    EXPECT_EQ(store.integer("inexact"), 0) << "whole as a double, but not exactly this number";
  }
  EXPECT_EQ(store.stringArray("kept"), std::vector<std::string>{"a.app"});
  const auto lines = logs->messages("Defaults");
  ASSERT_EQ(lines.size(), 7u) << "one line per key, however often it is read";
  EXPECT_NE(lines[0].find("\"mutedBundleIDs\""), std::string::npos) << lines[0];
  EXPECT_EQ(readFile(path), contents) << "the file stays as long as nothing is written";
  EXPECT_EQ(filesIn(path.parent_path()).size(), 1u);
}

TEST_F(DefaultsStoreTest, AFailedWriteIsLoggedAndKeepsTheValuesOfThisRun) {
  // A file where the preferences folder should be: nothing can be written below it.
  writeFile(directory.path() / "blocked", "not a folder");
  DefaultsStore store(directory.path() / "blocked" / "preferences.json", logs);
  store.set("stats.muteCount", 5);
  EXPECT_EQ(store.integer("stats.muteCount"), 5);
  ASSERT_EQ(logs->entries().size(), 1u);
  EXPECT_EQ(logs->entries()[0].level, LogLevel::error);
}

TEST(DefaultsStorePath, FollowsXdgConfigHome) {
  const char* saved = std::getenv("XDG_CONFIG_HOME");
  const std::string savedValue = saved ? saved : "";
  ::setenv("XDG_CONFIG_HOME", "/tmp/config-home", 1);
  EXPECT_EQ(DefaultsStore::standardPath(), "/tmp/config-home/quellix/preferences.json");
  // A relative value is not a base directory and is ignored.
  ::setenv("XDG_CONFIG_HOME", "relative", 1);
  EXPECT_NE(DefaultsStore::standardPath().string().rfind("relative", 0), 0u);
  if (saved) {
    ::setenv("XDG_CONFIG_HOME", savedValue.c_str(), 1);
  } else {
    ::unsetenv("XDG_CONFIG_HOME");
  }
}

}  // namespace
}  // namespace quellix
