// The settings store over its ini file: buffers, both widths, refusals, and writers in
// several threads and processes at once.
#include "support/settings_store.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/temp_dir.h"
#include "platform/fs.h"

namespace deskline {
namespace {

using testing::TempDir;

constexpr char16_t kKey[] = u"Software\\Halvoreen\\Deskline\\Settings";
constexpr std::byte kUntouched{0xAB};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Keeps an environment variable as it was before the test.
class SavedVariable {
 public:
  explicit SavedVariable(const char* name) : name_(name), value_(platform::GetEnvironment(name)) {}
  ~SavedVariable() { platform::SetEnvironment(name_, value_ ? value_->c_str() : nullptr); }

 private:
  const char* name_;
  std::optional<std::string> value_;
};

class SettingsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(platform::SetEnvironment("DESKLINE_SETTINGS", path_.c_str()));
    buffer_.fill(kUntouched);
  }

  bool AllUntouched() const {
    for (std::byte b : buffer_) {
      if (b != kUntouched) return false;
    }
    return true;
  }
  // The wide value read into buffer_, up to its terminator.
  std::u16string WideValue() const {
    std::u16string value;
    for (std::size_t i = 0; i + 1 < buffer_.size(); i += 2) {
      char16_t unit;
      std::memcpy(&unit, &buffer_[i], 2);
      if (unit == 0) return value;
      value.push_back(unit);
    }
    return u"<no terminator>";
  }

  SavedVariable saved_{"DESKLINE_SETTINGS"};
  TempDir dir_;
  // Two folders deep that do not exist yet: the first write makes them.
  std::string path_ = dir_.File("config/deskline/settings.ini");
  std::array<std::byte, 256> buffer_{};
};

TEST_F(SettingsStoreTest, MissingFileKeyOrValueGivesFalseAndLeavesTheBuffer) {
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(std::filesystem::exists(path_)) << "a read creates nothing";
  ASSERT_TRUE(WriteSettingW(kKey, u"Output Device", u"Speakers"));
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSettingW(u"Software\\Other", u"Output Device", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSetting("Software\\Other", "Output Device", buffer_.data(), buffer_.size()));
  EXPECT_TRUE(AllUntouched());
}

TEST_F(SettingsStoreTest, WriteCreatesThePathAndTheKeyIsTheSection) {
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, kSystemDefaultDevice));
  ASSERT_TRUE(ReadSettingW(kKey, kInputDeviceValue, buffer_.data(), buffer_.size()));
  EXPECT_EQ(WideValue(), u"System Default");
  EXPECT_EQ(ReadFile(path_), "[Software\\Halvoreen\\Deskline\\Settings]\n"
                             "Input Device=System Default\n");
}

TEST_F(SettingsStoreTest, EmptyValueIsStoredAndReadAsJustTheTerminator) {
  ASSERT_TRUE(WriteSettingW(kKey, u"PlayFile Device", u""));
  ASSERT_TRUE(ReadSettingW(kKey, u"PlayFile Device", buffer_.data(), buffer_.size()));
  EXPECT_EQ(buffer_[0], std::byte{0});
  EXPECT_EQ(buffer_[1], std::byte{0});
  EXPECT_EQ(buffer_[2], kUntouched) << "two bytes and no more";

  buffer_.fill(kUntouched);
  ASSERT_TRUE(ReadSetting("Software\\Halvoreen\\Deskline\\Settings", "PlayFile Device",
                          buffer_.data(), 1));
  EXPECT_EQ(buffer_[0], std::byte{0});
  EXPECT_EQ(buffer_[1], kUntouched);
}

TEST_F(SettingsStoreTest, ValueMustFitWithItsTerminatorOrTheBufferIsLeftAlone) {
  ASSERT_TRUE(WriteSettingW(kKey, u"Input Device", u"Mic 1"));  // 5 units: 12 bytes
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), 11));
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), 10));
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), 0));
  EXPECT_TRUE(AllUntouched());
  ASSERT_TRUE(ReadSettingW(kKey, u"Input Device", buffer_.data(), 12));
  EXPECT_EQ(WideValue(), u"Mic 1");
  EXPECT_EQ(buffer_[12], kUntouched);

  buffer_.fill(kUntouched);
  const char* key = kSettingsKey;
  EXPECT_FALSE(ReadSetting(key, "Input Device", buffer_.data(), 5));
  EXPECT_TRUE(AllUntouched());
  ASSERT_TRUE(ReadSetting(key, "Input Device", buffer_.data(), 6));
  EXPECT_STREQ(reinterpret_cast<const char*>(buffer_.data()), "Mic 1");
  EXPECT_EQ(buffer_[6], kUntouched);
}

TEST_F(SettingsStoreTest, BothWidthsShareOneUtf8Store) {
  const char* key = kSettingsKey;
  ASSERT_TRUE(WriteSetting(key, "Output Device", "Kopfh\xC3\xB6rer \xF0\x9F\x8E\xA7"));
  ASSERT_TRUE(ReadSettingW(kKey, u"Output Device", buffer_.data(), buffer_.size()));
  EXPECT_EQ(WideValue(), u"Kopfh\u00F6rer \U0001F3A7");

  ASSERT_TRUE(WriteSettingW(kKey, u"Input Device", u"Mikrofon \u00C4"));
  ASSERT_TRUE(ReadSetting(key, "Input Device", buffer_.data(), buffer_.size()));
  EXPECT_STREQ(reinterpret_cast<const char*>(buffer_.data()), "Mikrofon \xC3\x84");
}

TEST_F(SettingsStoreTest, NonAsciiKeysNamesAndAwkwardValuesRoundTrip) {
  const std::u16string key = u"Software\\\u00C4rger.v2\\\u8A2D\u5B9A";
  const std::u16string name = u"Ger\u00E4t \U0001F3A7";
  const std::u16string values[] = {
      u"Kopfh\u00F6rer (USB) \u266B", u" padded ", u"\"quoted\"", u"a=b;c#d", u"\t",
  };
  for (const std::u16string& value : values) {
    ASSERT_TRUE(WriteSettingW(key.c_str(), name.c_str(), value.c_str()));
    buffer_.fill(kUntouched);
    ASSERT_TRUE(ReadSettingW(key.c_str(), name.c_str(), buffer_.data(), buffer_.size()));
    EXPECT_EQ(WideValue(), value);
  }
}

TEST_F(SettingsStoreTest, RewritingOneValueKeepsTheOthers) {
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, u"Mic"));
  ASSERT_TRUE(WriteSettingW(kKey, kOutputDeviceValue, u"Speakers"));
  ASSERT_TRUE(WriteSettingW(u"Software\\Other", kOutputDeviceValue, u"Elsewhere"));
  ASSERT_TRUE(WriteSettingW(kKey, kInputDeviceValue, u"Headset"));
  ASSERT_TRUE(ReadSettingW(kKey, kInputDeviceValue, buffer_.data(), buffer_.size()));
  EXPECT_EQ(WideValue(), u"Headset");
  ASSERT_TRUE(ReadSettingW(kKey, kOutputDeviceValue, buffer_.data(), buffer_.size()));
  EXPECT_EQ(WideValue(), u"Speakers");
  ASSERT_TRUE(
      ReadSettingW(u"Software\\Other", kOutputDeviceValue, buffer_.data(), buffer_.size()));
  EXPECT_EQ(WideValue(), u"Elsewhere");
  // Nothing but the file and its lock file in the folder: no temporaries left behind.
  int entries = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(path_).parent_path())) {
    ++entries;
  }
  EXPECT_EQ(entries, 2);
}

TEST_F(SettingsStoreTest, BadArgumentsAreRefusedAndStoreNothing) {
  const char* key = kSettingsKey;
  EXPECT_FALSE(ReadSettingW(nullptr, u"n", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSettingW(kKey, nullptr, buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSettingW(kKey, u"n", nullptr, 100));
  EXPECT_FALSE(ReadSetting(nullptr, "n", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSetting(key, nullptr, buffer_.data(), buffer_.size()));
  EXPECT_FALSE(ReadSetting(key, "n", nullptr, 100));
  EXPECT_FALSE(WriteSettingW(nullptr, u"n", u"v"));
  EXPECT_FALSE(WriteSettingW(kKey, nullptr, u"v"));
  EXPECT_FALSE(WriteSettingW(kKey, u"n", nullptr));
  EXPECT_FALSE(WriteSetting(nullptr, "n", "v"));
  EXPECT_FALSE(WriteSetting(key, nullptr, "v"));
  EXPECT_FALSE(WriteSetting(key, "n", nullptr));

  // What an ini file cannot hold, or would hold as something else.
  EXPECT_FALSE(WriteSettingW(kKey, u"n", u"two\nlines"));
  EXPECT_FALSE(WriteSettingW(kKey, u"n", u"two\r\nlines"));
  EXPECT_FALSE(WriteSettingW(kKey, u"n=1", u"v"));
  EXPECT_FALSE(WriteSettingW(kKey, u"", u"v"));
  EXPECT_FALSE(WriteSettingW(u"", u"n", u"v"));
  EXPECT_FALSE(WriteSettingW(u"Key]", u"n", u"v"));
  const char16_t lone_surrogate[] = {u'a', 0xD800, u'b', 0};
  EXPECT_FALSE(WriteSettingW(kKey, u"n", lone_surrogate));
  EXPECT_FALSE(WriteSettingW(kKey, lone_surrogate, u"v"));
  EXPECT_FALSE(WriteSetting(key, "n", "Latin-1 \xE4"));
  EXPECT_FALSE(std::filesystem::exists(path_));

  const std::u16string too_long(kMaxSettingLength + 1, u'x');
  EXPECT_FALSE(WriteSettingW(kKey, u"n", too_long.c_str()));
  EXPECT_FALSE(ReadSettingW(kKey, too_long.c_str(), buffer_.data(), buffer_.size()));
  EXPECT_TRUE(AllUntouched());
}

TEST_F(SettingsStoreTest, FileThatDoesNotParseIsNeitherReadNorOverwritten) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  const std::string hand_edited =
      "[Software\\Halvoreen\\Deskline\\Settings]\nInput Device=Mic\nthis line has no equals\n";
  std::ofstream(path_, std::ios::binary) << hand_edited;
  EXPECT_FALSE(ReadSettingW(kKey, u"Input Device", buffer_.data(), buffer_.size()));
  EXPECT_FALSE(WriteSettingW(kKey, u"Output Device", u"Speakers"));
  EXPECT_EQ(ReadFile(path_), hand_edited);
  EXPECT_TRUE(AllUntouched());
}

TEST_F(SettingsStoreTest, ThreadsWritingAtOnceLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "t" + std::to_string(t) + "-" + std::to_string(i);
        if (!WriteSetting("Test\\Threads", name.c_str(), ("value " + name).c_str())) ++failures;
      }
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(failures.load(), 0);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) {
      const std::string name = "t" + std::to_string(t) + "-" + std::to_string(i);
      char value[64] = {};
      ASSERT_TRUE(ReadSetting("Test\\Threads", name.c_str(), value, sizeof(value))) << name;
      EXPECT_EQ(std::string(value), "value " + name);
    }
  }
}

TEST_F(SettingsStoreTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kEach = 50;
  const std::string writer = DESKLINE_SETTINGS_WRITER;
  const std::string count = std::to_string(kEach);
  // Both in the background, then wait for each and fail if either failed.
  const std::string command = "'" + writer + "' 'Test\\Processes' a " + count + " & A=$!; '" +
                              writer + "' 'Test\\Processes' b " + count +
                              " & B=$!; wait $A && wait $B";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  for (const char* prefix : {"a", "b"}) {
    for (int i = 0; i < kEach; ++i) {
      const std::string name = prefix + std::to_string(i);
      char value[64] = {};
      ASSERT_TRUE(ReadSetting("Test\\Processes", name.c_str(), value, sizeof(value))) << name;
      EXPECT_EQ(std::string(value), "value " + name);
    }
  }
}

TEST(SettingsFilePathTest, FollowsTheEnvironmentAtEachCall) {
  SavedVariable settings("DESKLINE_SETTINGS");
  SavedVariable xdg("XDG_CONFIG_HOME");
  SavedVariable home("HOME");
  platform::SetEnvironment("HOME", "/home/user");
  platform::SetEnvironment("XDG_CONFIG_HOME", nullptr);
  platform::SetEnvironment("DESKLINE_SETTINGS", "/tmp/mine.ini");
  EXPECT_EQ(SettingsFilePath(), std::optional<std::string>("/tmp/mine.ini"));
  platform::SetEnvironment("DESKLINE_SETTINGS", "");
  EXPECT_EQ(SettingsFilePath(),
            std::optional<std::string>("/home/user/.config/deskline/settings.ini"));
  platform::SetEnvironment("XDG_CONFIG_HOME", "/xdg");
  EXPECT_EQ(SettingsFilePath(), std::optional<std::string>("/xdg/deskline/settings.ini"));
  platform::SetEnvironment("XDG_CONFIG_HOME", "relative/ignored");
  EXPECT_EQ(SettingsFilePath(),
            std::optional<std::string>("/home/user/.config/deskline/settings.ini"));
  platform::SetEnvironment("XDG_CONFIG_HOME", "");
  EXPECT_EQ(SettingsFilePath(),
            std::optional<std::string>("/home/user/.config/deskline/settings.ini"));
}

}  // namespace
}  // namespace deskline
