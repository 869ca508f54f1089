#include "support/DefaultsStore.h"

#include <gtest/gtest.h>

#include <fstream>

#include "TestSupport.h"

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
  void SetUp() override { previous = Logger::installSink(logs); }
  void TearDown() override { Logger::installSink(previous); }

  TemporaryDirectory directory;
  std::filesystem::path path = directory.path() / "quellix" / "preferences.json";
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  std::shared_ptr<LogSink> previous;
};

TEST_F(DefaultsStoreTest, WritesSurviveARestart) {
  {
    DefaultsStore store(path);
    store.set("mutedBundleIDs", {"a.app", "b.app"});
    store.set("stats.muteCount", 3);
    store.set("onboardingCompleted", true);
  }
  DefaultsStore reloaded(path);
  EXPECT_EQ(reloaded.stringArray("mutedBundleIDs"), (std::vector<std::string>{"a.app", "b.app"}));
  EXPECT_EQ(reloaded.integer("stats.muteCount"), 3);
  EXPECT_TRUE(reloaded.boolean("onboardingCompleted"));
  EXPECT_TRUE(logs->entries().empty());
}

TEST_F(DefaultsStoreTest, TypedReadsConvertLikeADefaultsDatabase) {
  writeFile(path, R"({"int": 7, "float": 2.5, "text": "12", "bad": "x", "flag": 1,
                      "list": ["a", 1], "dict": {"a": 0.5}})");
  DefaultsStore store(path);
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
    DefaultsStore store(path);
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

TEST_F(DefaultsStoreTest, AFailedWriteIsLoggedAndKeepsTheValuesOfThisRun) {
  // A file where the preferences folder should be: nothing can be written below it.
  writeFile(directory.path() / "blocked", "not a folder");
  DefaultsStore store(directory.path() / "blocked" / "preferences.json");
  store.set("stats.muteCount", 5);
  EXPECT_EQ(store.integer("stats.muteCount"), 5);
  ASSERT_EQ(logs->entries().size(), 1u);
  EXPECT_EQ(logs->entries()[0].level, LogLevel::error);
  EXPECT_EQ(logs->entries()[0].message.rfind("Saving preferences failed: ", 0), 0u);
}

TEST_F(DefaultsStoreTest, AnAtomicWriteLeavesNoTemporaryFilesBehind) {
  DefaultsStore store(path);
  for (int i = 0; i < 20; ++i) {
    store.set("stats.muteCount", i);
  }
  EXPECT_EQ(filesIn(path.parent_path()), std::vector<std::filesystem::path>{path});
  EXPECT_EQ(DefaultsStore(path).integer("stats.muteCount"), 19);
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
