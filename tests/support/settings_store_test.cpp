// The settings store over its ini file: buffers, both widths, refusals, and writers in
// several threads and processes at once.
#include "support/settings_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/fs.h"
#include "testing/temp_dir.h"

namespace deskline {
namespace {

namespace fs = std::filesystem;
using Path = std::optional<std::string>;
constexpr const char16_t* kKey = kSettingsKeyW;
constexpr std::byte kUntouched{0xAB};

std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

// Sets environment variables for one test and puts back what was there.
class ScopedEnvironment {
 public:
  void Set(const char* name, const char* value) {
    if (!saved_.count(name)) saved_[name] = platform::GetEnvironment(name);
    platform::SetEnvironment(name, value);
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_) {
      platform::SetEnvironment(name.c_str(), value ? value->c_str() : nullptr);
    }
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

class SettingsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    environment_.Set("DESKLINE_SETTINGS", path_.c_str());
    buffer_.fill(kUntouched);
  }
  bool Untouched(std::size_t from = 0) const {
    return std::all_of(buffer_.begin() + from, buffer_.end(),
                       [](std::byte b) { return b == kUntouched; });
  }
  // Reads into buffer_ and gives the value up to its terminator.
  std::optional<std::u16string> Read(const char16_t* key, const char16_t* name) {
    buffer_.fill(kUntouched);
    if (!ReadSettingW(key, name, buffer_.data(), buffer_.size())) return std::nullopt;
    std::u16string value(buffer_.size() / 2, u'\0');
    std::memcpy(value.data(), buffer_.data(), buffer_.size());
    return value.substr(0, value.find(u'\0'));
  }
  // Every "<prefix><i>" for each prefix holds "value <prefix><i>".
  void ExpectAllWritten(const char* key, std::vector<std::string> prefixes, int count) {
    for (const std::string& prefix : prefixes) {
      for (int i = 0; i < count; ++i) {
        const std::string name = prefix + std::to_string(i);
        char value[64] = {};
        ASSERT_TRUE(ReadSetting(key, name.c_str(), value, sizeof(value))) << name;
        EXPECT_EQ(std::string(value), "value " + name);
      }
    }
  }

  ScopedEnvironment environment_;
  testing::TempDir dir_;
  // Two folders that do not exist yet: the first write makes them.
  std::string path_ = dir_.File("config/deskline/settings.ini");
  std::array<std::byte, 256> buffer_{};
};

TEST_F(SettingsStoreTest, WritesLandInTheSectionOfTheKeyAndKeepEveryOtherValue) {
  EXPECT_EQ(Read(kKey, kInputDeviceValue), std::nullopt);
  EXPECT_FALSE(fs::exists(path_)) << "a read creates nothing";
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, u"Mic"));
  ASSERT_TRUE(WriteSettingW(kKey, kOutputDeviceValue, kSystemDefaultDevice));
  ASSERT_TRUE(WriteSettingW(u"Software\\Other", kOutputDeviceValue, u"Elsewhere"));
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, u" padded "));
  EXPECT_EQ(ReadFile(path_), "[Software\\Halvoreen\\Deskline\\Settings]\n"
                             "Input Device=\" padded \"\nOutput Device=System Default\n"
                             "[Software\\Other]\nOutput Device=Elsewhere\n");
  EXPECT_EQ(Read(kKey, kInputDeviceValue), u" padded ");
  EXPECT_EQ(Read(u"Software\\Other", kInputDeviceValue), std::nullopt);
  EXPECT_EQ(Read(u"software\\other", kOutputDeviceValue), std::nullopt) << "case counts";
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(path_).parent_path()), {}), 2)
      << "the file and its lock file, no temporaries";
}

TEST_F(SettingsStoreTest, ReadFitsWithItsTerminatorOrLeavesTheBufferAlone) {
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, u"Mic 1"));  // 5 units: 12 bytes
  ASSERT_TRUE(WriteSettingW(kKey, kPlayFileDeviceValue, u""));
  for (std::size_t capacity : {0, 10, 11}) {
    EXPECT_FALSE(ReadSettingW(kKey, kInputDeviceValue, buffer_.data(), capacity)) << capacity;
  }
  EXPECT_FALSE(ReadSetting(kSettingsKey, "Input Device", buffer_.data(), 5));
  EXPECT_TRUE(Untouched());
  ASSERT_TRUE(ReadSettingW(kKey, kInputDeviceValue, buffer_.data(), 12));
  EXPECT_EQ(std::memcmp(buffer_.data(), u"Mic 1", 12), 0);
  EXPECT_TRUE(Untouched(12));
  buffer_.fill(kUntouched);
  ASSERT_TRUE(ReadSetting(kSettingsKey, "Input Device", buffer_.data(), 6));
  EXPECT_EQ(std::memcmp(buffer_.data(), "Mic 1", 6), 0);
  EXPECT_TRUE(Untouched(6));
  buffer_.fill(kUntouched);
  ASSERT_TRUE(ReadSettingW(kKey, kPlayFileDeviceValue, buffer_.data(), 2));
  EXPECT_EQ(std::memcmp(buffer_.data(), u"", 2), 0);
  EXPECT_TRUE(Untouched(2)) << "an empty value is just its terminator";
}

TEST_F(SettingsStoreTest, BothWidthsShareOneUtf8Store) {
  ASSERT_TRUE(WriteSetting(kSettingsKey, "Output Device", "Kopfh\xC3\xB6rer \xF0\x9F\x8E\xA7"));
  EXPECT_EQ(Read(kKey, kOutputDeviceValue), u"Kopfh\u00F6rer \U0001F3A7");
  const std::u16string key = u"Software\\\u00C4rger.v2\\\u8A2D\u5B9A";
  ASSERT_TRUE(WriteSettingW(key.c_str(), u"Ger\u00E4t \U0001F3A7", u"Mikrofon \u00C4"));
  char narrow[64] = {};
  ASSERT_TRUE(ReadSetting("Software\\\xC3\x84rger.v2\\\xE8\xA8\xAD\xE5\xAE\x9A",
                          "Ger\xC3\xA4t \xF0\x9F\x8E\xA7", narrow, sizeof(narrow)));
  EXPECT_STREQ(narrow, "Mikrofon \xC3\x84");
}

TEST_F(SettingsStoreTest, WhatTheFileCannotHoldIsRefusedAndNothingIsStored) {
  const char16_t lone_surrogate[] = {u'a', 0xD800, u'b', 0};
  const std::u16string too_long(kMaxSettingLength + 1, u'x');
  const std::array<const char16_t*, 3> refused[] = {
      {nullptr, u"n", u"v"}, {kKey, nullptr, u"v"}, {kKey, u"n", nullptr},
      {kKey, u"n", u"two\r\nlines"}, {kKey, u"n=1", u"v"}, {kKey, u"", u"v"},
      {u"Key]", u"n", u"v"}, {kKey, u"n", lone_surrogate}, {kKey, lone_surrogate, u"v"},
      {kKey, u"n", too_long.c_str()},
  };
  for (const auto& [key, name, value] : refused) EXPECT_FALSE(WriteSettingW(key, name, value));
  EXPECT_FALSE(WriteSetting(kSettingsKey, "n", "Latin-1 \xE4"));
  EXPECT_FALSE(WriteSetting(nullptr, "n", "v"));
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_FALSE(ReadSettingW(kKey, too_long.c_str(), buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSettingW(nullptr, u"n", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSetting(kSettingsKey, "n", nullptr, 100));
  EXPECT_TRUE(Untouched());
}

TEST_F(SettingsStoreTest, FileThatDoesNotParseIsNeitherReadNorOverwritten) {
  fs::create_directories(fs::path(path_).parent_path());
  const std::string hand_edited = "[Software\\Halvoreen\\Deskline\\Settings]\n"
                                  "Input Device=Mic\nthis line has no equals\n";
  std::ofstream(path_, std::ios::binary) << hand_edited;
  EXPECT_EQ(Read(kKey, kInputDeviceValue), std::nullopt);
  EXPECT_FALSE(WriteSettingW(kKey, kOutputDeviceValue, u"Speakers"));
  EXPECT_EQ(ReadFile(path_), hand_edited);
}

// The lock file excludes writers of this process as well as of others.
TEST_F(SettingsStoreTest, ThreadsAndProcessesWritingAtOnceLoseNothing) {
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (const char* prefix : {"t", "u", "v", "w"}) {
    writers.emplace_back([&failures, prefix] {
      for (int i = 0; i < 25; ++i) {
        const std::string name = prefix + std::to_string(i);
        failures += !WriteSetting("Test\\Threads", name.c_str(), ("value " + name).c_str());
      }
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(failures.load(), 0);
  ExpectAllWritten("Test\\Threads", {"t", "u", "v", "w"}, 25);

  const std::string run = std::string("'") + DESKLINE_SETTINGS_WRITER + "' 'Test\\Processes' ";
  const std::string command = run + "a 50 & A=$!; " + run + "b 50 & B=$!; wait $A && wait $B";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  ExpectAllWritten("Test\\Processes", {"a", "b"}, 50);
}

TEST(SettingsFilePathTest, FollowsTheEnvironmentAtEachCall) {
  ScopedEnvironment environment;
  environment.Set("HOME", "/home/user");
  environment.Set("XDG_CONFIG_HOME", nullptr);
  environment.Set("DESKLINE_SETTINGS", "/tmp/mine.ini");
  EXPECT_EQ(SettingsFilePath(), Path("/tmp/mine.ini"));
  environment.Set("DESKLINE_SETTINGS", "");
  EXPECT_EQ(SettingsFilePath(), Path("/home/user/.config/deskline/settings.ini"));
  environment.Set("XDG_CONFIG_HOME", "/xdg");
  EXPECT_EQ(SettingsFilePath(), Path("/xdg/deskline/settings.ini"));
  for (const char* ignored : {"relative/ignored", ""}) {
    environment.Set("XDG_CONFIG_HOME", ignored);
    EXPECT_EQ(SettingsFilePath(), Path("/home/user/.config/deskline/settings.ini")) << ignored;
  }
}

}  // namespace
}  // namespace deskline
