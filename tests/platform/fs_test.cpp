// Whole-file reads, atomic replacement, the advisory lock and the environment.
#include "platform/fs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

namespace fs = std::filesystem;
using Text = std::optional<std::string>;

class FsTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, std::string_view bytes) {
    const std::string path = dir_.File(name);
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
    return path;
  }
  testing::TempDir dir_;
};

TEST_F(FsTest, ReadWholeFileGivesEveryByteOrNothingAndNeverHangs) {
  const std::string bytes("a\0b\r\n\xff", 6);
  const std::string path = Write("blob", bytes);
  EXPECT_EQ(ReadWholeFile(path), Text(bytes));
  EXPECT_EQ(ReadWholeFile(path, 6), Text(bytes));
  EXPECT_EQ(ReadWholeFile(path, 5), std::nullopt) << "longer than the bound";
  EXPECT_EQ(ReadWholeFile(Write("empty", "")), Text(""));
  // A fifo with no writer: a blocking open would hang.
  ASSERT_EQ(std::system(("mkfifo '" + dir_.File("fifo") + "'").c_str()), 0);
  for (const std::string& bad :
       {dir_.File("missing"), dir_.path().string(), std::string("/dev/zero"), dir_.File("fifo")}) {
    EXPECT_EQ(ReadWholeFile(bad), std::nullopt) << bad;
  }
}

TEST_F(FsTest, WriteFileAtomicallyReplacesKeepsModeAndFailsWithoutDamage) {
  const std::string path = dir_.File("settings.ini");
  ASSERT_TRUE(WriteFileAtomically(path, "first\n"));
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_TRUE(WriteFileAtomically(path, std::string("second\0", 7)));
  EXPECT_EQ(ReadWholeFile(path), Text(std::string("second\0", 7)));
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  EXPECT_FALSE(WriteFileAtomically(dir_.File("no/such/folder/file"), "x"));
  EXPECT_FALSE(WriteFileAtomically("", "x"));
  const std::string folder = dir_.File("folder");
  fs::create_directory(folder);
  Write("folder/inside", "kept");
  EXPECT_FALSE(WriteFileAtomically(folder, "x"));
  EXPECT_EQ(ReadWholeFile(folder + "/inside"), Text("kept"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), fs::directory_iterator()), 2)
      << "no temporary file left behind";
}

TEST_F(FsTest, ReaderSeesOldOrNewContentNeverAMix) {
  const std::string path = dir_.File("flip");
  const std::string a(64 * 1024, 'a'), b(64 * 1024, 'b');
  ASSERT_TRUE(WriteFileAtomically(path, a));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 200 && !stop; ++i) WriteFileAtomically(path, i % 2 ? a : b);
  });
  int torn = 0;
  for (int i = 0; i < 500; ++i) {
    const Text content = ReadWholeFile(path);
    torn += !content || (*content != a && *content != b);
  }
  stop = true;
  writer.join();
  EXPECT_EQ(torn, 0);
}

// Waiting for the lock and exclusion between writers are exercised through the settings store.
TEST_F(FsTest, FileLockExcludesThisProcessTooAndTimesOut) {
  const FileLock holder(dir_.File("settings.ini.lock"));
  ASSERT_TRUE(holder.locked()) << "the lock file is created when missing";
  EXPECT_FALSE(FileLock(dir_.File("settings.ini.lock"), 20).locked());
  EXPECT_FALSE(FileLock(dir_.File("missing/lock"), 0).locked());
}

TEST(EnvironmentTest, EmptyHomeFallsBackToThePasswordDatabase) {
  const Text saved = GetEnvironment("HOME");
  ASSERT_TRUE(SetEnvironment("HOME", "/home/from-env"));
  EXPECT_EQ(HomeDirectory(), Text("/home/from-env"));
  ASSERT_TRUE(SetEnvironment("HOME", ""));
  const Text fallback = HomeDirectory();
  SetEnvironment("HOME", saved ? saved->c_str() : nullptr);
  EXPECT_TRUE(fallback && !fallback->empty());
}

}  // namespace
}  // namespace deskline::platform
