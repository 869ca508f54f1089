#include "support/DefaultsStore.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <random>
#include <set>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

using testing::TemporaryDirectory;

void writeFile(const std::filesystem::path& path, const std::string& contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path) << contents;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path());
  }
  return files;
}

class DefaultsStoreTest : public ::testing::Test {
 protected:
  TemporaryDirectory directory;
  std::filesystem::path path = directory.path() / "quellix" / "preferences.json";
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
};

TEST_F(DefaultsStoreTest, WritesSurviveARestart) {
  {
    DefaultsStore store(path, logs);
    store.set("mutedBundleIDs", {"a.app", "b.app"});
    store.set("stats.muteCount", 3);
    store.set("onboardingCompleted", true);
  }
  DefaultsStore reloaded(path, logs);
  EXPECT_EQ(reloaded.stringArray("mutedBundleIDs"), (std::vector<std::string>{"a.app", "b.app"}));
  EXPECT_EQ(reloaded.integer("stats.muteCount"), 3);
  EXPECT_TRUE(reloaded.boolean("onboardingCompleted"));
  EXPECT_TRUE(logs->entries().empty());
}

TEST_F(DefaultsStoreTest, TypedReadsConvertLikeADefaultsDatabase) {
  writeFile(path, R"({"int": 7, "float": 2.5, "text": "12", "bad": "x", "flag": 1,
                      "list": ["a", 1], "dict": {"a": 0.5}})");
  DefaultsStore store(path, logs);
  EXPECT_EQ(store.integer("int"), 7);
  EXPECT_EQ(store.integer("float"), 2);
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
}

TEST_F(DefaultsStoreTest, ACorruptFileYieldsDefaultsAndIsKeptAside) {
  for (const std::string contents : {"{\"mutedBundleIDs\": [", "[1, 2]", "\xFF\xFE"}) {
    std::filesystem::remove_all(path.parent_path());
    writeFile(path, contents);
    logs->clear();
    DefaultsStore store(path, logs);
    EXPECT_FALSE(store.object("mutedBundleIDs"));
    ASSERT_EQ(logs->entries().size(), 1u) << contents;
    EXPECT_EQ(logs->entries()[0].level, LogLevel::error);

    store.set("stats.muteCount", 1);
    const auto files = filesIn(path.parent_path());
    ASSERT_EQ(files.size(), 2u);
    for (const auto& file : files) {
      if (file != path) {
        EXPECT_EQ(readFile(file), contents) << "the user's file is kept as it was";
      }
    }
  }
}

// What a bad start must leave: defaults, one error line naming the file and the reason, and
// the user's file next to the new one, untouched.
void expectKeptAside(const DefaultsStore& store, const CapturingLogSink& logs,
                     const std::filesystem::path& path, const std::string& reason) {
  EXPECT_EQ(store.integer("stats.muteCount"), 0);
  EXPECT_FALSE(store.stringArray("mutedBundleIDs").has_value());
  const auto lines = logs.messages("Defaults");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("Preferences " + path.string() + " ignored because " + reason, 0), 0u)
      << lines[0];
  EXPECT_NE(lines[0].find("; kept as " + path.string() + ".corrupt-"), std::string::npos)
      << lines[0];
  EXPECT_FALSE(std::filesystem::exists(path)) << "moved, not copied";
}

std::filesystem::path onlyAsideFile(const std::filesystem::path& path) {
  std::vector<std::filesystem::path> aside;
  for (const auto& file : filesIn(path.parent_path())) {
    if (file != path) {
      aside.push_back(file);
    }
  }
  EXPECT_EQ(aside.size(), 1u);
  return aside.empty() ? std::filesystem::path() : aside[0];
}

TEST_F(DefaultsStoreTest, RandomBytesYieldDefaultsAndAreKeptAsTheyWere) {
  std::mt19937 random(21);
  for (const std::size_t size : {1u, 7u, 300u, 70000u}) {
    std::filesystem::remove_all(path.parent_path());
    std::string bytes(size, '\0');
    for (auto& byte : bytes) {
      byte = static_cast<char>(random());
    }
    writeFile(path, bytes);
    logs->clear();
    DefaultsStore store(path, logs);
    expectKeptAside(store, *logs, path, "it is not valid JSON");
    store.set("stats.muteCount", 1);
    EXPECT_EQ(readFile(onlyAsideFile(path)), bytes);
    EXPECT_EQ(DefaultsStore(path, logs).integer("stats.muteCount"), 1);
  }
}

TEST_F(DefaultsStoreTest, AnOversizedFileIsNotReadButKeptAside) {
  constexpr std::uintmax_t kSize = 50 * 1024 * 1024;
  writeFile(path, R"({"stats.muteCount": 3, "padding": ")");
  std::filesystem::resize_file(path, kSize);  // sparse: quick to make, large to read
  DefaultsStore store(path, logs);
  expectKeptAside(store, *logs, path, "it is larger than 1024 KiB");
  EXPECT_EQ(std::filesystem::file_size(onlyAsideFile(path)), kSize);

  std::filesystem::remove_all(path.parent_path());
  writeFile(path, std::string(DefaultsStore::kMaxFileSize, ' ') + "{}");
  logs->clear();
  expectKeptAside(DefaultsStore(path, logs), *logs, path, "it is larger than 1024 KiB");
}

TEST_F(DefaultsStoreTest, AFolderOrAPipeAtThePathIsUnreadableAndKeptAside) {
  std::filesystem::create_directories(path / "inside");
  {
    DefaultsStore store(path, logs);
    expectKeptAside(store, *logs, path, "it is not a regular file");
    store.set("stats.muteCount", 2);
  }
  EXPECT_TRUE(std::filesystem::is_directory(onlyAsideFile(path) / "inside"));
  EXPECT_EQ(DefaultsStore(path, logs).integer("stats.muteCount"), 2);

  std::filesystem::remove_all(path.parent_path());
  std::filesystem::create_directories(path.parent_path());
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  logs->clear();
  expectKeptAside(DefaultsStore(path, logs), *logs, path, "it is not a regular file");
}

TEST_F(DefaultsStoreTest, DeepNestingIsRefusedBeforeParsing) {
  // Valid JSON, and yet enough to overflow the stack of a recursive copy or write.
  const std::string deep = "{\"a\": " + std::string(200000, '[') + std::string(200000, ']') + "}";
  writeFile(path, deep);
  expectKeptAside(DefaultsStore(path, logs), *logs, path, "it nests deeper than 32 levels");

  // Brackets inside texts do not count.
  std::filesystem::remove_all(path.parent_path());
  writeFile(path, "{\"name\": \"" + std::string(100, '[') + "\\\"\", \"stats.muteCount\": 4}");
  logs->clear();
  EXPECT_EQ(DefaultsStore(path, logs).integer("stats.muteCount"), 4);
  EXPECT_TRUE(logs->entries().empty());
}

TEST_F(DefaultsStoreTest, AnEarlierBadFileIsNeverOverwrittenByTheNextOne) {
  for (const std::string contents : {"first [", "second ["}) {
    writeFile(path, contents);
    DefaultsStore store(path, logs);
    store.set("stats.muteCount", 1);
    std::filesystem::remove(path);
  }
  std::set<std::string> kept;
  for (const auto& file : filesIn(path.parent_path())) {
    kept.insert(readFile(file));
  }
  EXPECT_EQ(kept, (std::set<std::string>{"first [", "second ["}));
}

TEST_F(DefaultsStoreTest, AWrongTypedKeyFallsBackAloneAndIsReportedOnce) {
  const std::string contents = R"({"mutedBundleIDs": "a.app", "appVolumes": [0.5],
      "stats.muteCount": 18446744073709551615, "stats.mutedSeconds": "nan",
      "onboardingCompleted": "maybe", "updateFeedURL": 42, "kept": ["a.app"]})";
  writeFile(path, contents);
  DefaultsStore store(path, logs);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(store.stringArray("mutedBundleIDs").has_value());
    EXPECT_FALSE(store.dictionary("appVolumes").has_value());
    EXPECT_EQ(store.integer("stats.muteCount"), 0);
    EXPECT_EQ(store.doubleValue("stats.mutedSeconds"), 0.0);
    EXPECT_FALSE(store.boolean("onboardingCompleted"));
    EXPECT_FALSE(store.string("updateFeedURL").has_value());
  }
  EXPECT_EQ(store.stringArray("kept"), std::vector<std::string>{"a.app"});
  const auto lines = logs->messages("Defaults");
  ASSERT_EQ(lines.size(), 6u) << "one line per key, however often it is read";
  EXPECT_EQ(lines[0], "Preferences " + path.string() +
                          ": \"mutedBundleIDs\" ignored because \"a.app\" is not a list of texts");
  EXPECT_EQ(lines[5], "Preferences " + path.string() +
                          ": \"updateFeedURL\" ignored because 42 is not a text");
  EXPECT_EQ(readFile(path), contents) << "the file stays as long as nothing is written";
  EXPECT_EQ(filesIn(path.parent_path()).size(), 1u);

  // Words and numbers are Booleans as a defaults database knows them.
  writeFile(path, R"({"a": "no", "b": "YES", "c": 0, "d": "1"})");
  logs->clear();
  DefaultsStore words(path, logs);
  EXPECT_FALSE(words.boolean("a"));
  EXPECT_TRUE(words.boolean("b"));
  EXPECT_FALSE(words.boolean("c"));
  EXPECT_TRUE(words.boolean("d"));
  EXPECT_TRUE(logs->entries().empty());
}

TEST_F(DefaultsStoreTest, AFailedWriteIsLoggedAndKeepsTheValuesOfThisRun) {
  // A file where the preferences folder should be: nothing can be written below it.
  writeFile(directory.path() / "blocked", "not a folder");
  DefaultsStore store(directory.path() / "blocked" / "preferences.json", logs);
  store.set("stats.muteCount", 5);
  EXPECT_EQ(store.integer("stats.muteCount"), 5);
  ASSERT_EQ(logs->entries().size(), 1u);
  EXPECT_EQ(logs->entries()[0].level, LogLevel::error);
  EXPECT_EQ(logs->entries()[0].message.rfind("Saving preferences failed: ", 0), 0u);
}

TEST_F(DefaultsStoreTest, AnAtomicWriteLeavesNoTemporaryFilesBehind) {
  DefaultsStore store(path, logs);
  for (int i = 0; i < 20; ++i) {
    store.set("stats.muteCount", i);
  }
  EXPECT_EQ(filesIn(path.parent_path()), std::vector<std::filesystem::path>{path});
  EXPECT_EQ(DefaultsStore(path, logs).integer("stats.muteCount"), 19);
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
