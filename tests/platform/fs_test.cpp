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

void WriteRaw(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

auto EntriesIn(const fs::path& folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

TEST(FsTest, ReadWholeFileGivesEveryByteOrNothingAndNeverHangs) {
  testing::TempDir dir;
  const std::string path = dir.File("blob");
  const std::string bytes("a\0b\r\n\xff", 6);
  WriteRaw(path, bytes);
  WriteRaw(dir.File("empty"), "");
  EXPECT_EQ(ReadWholeFile(path), Text(bytes));
  EXPECT_EQ(ReadWholeFile(path, 6), Text(bytes));
  EXPECT_EQ(ReadWholeFile(path, 5), std::nullopt) << "longer than the bound";
  EXPECT_EQ(ReadWholeFile(dir.File("empty")), Text(""));
  EXPECT_EQ(ReadWholeFile(dir.File("missing")), std::nullopt);
  EXPECT_EQ(ReadWholeFile(dir.path().string()), std::nullopt);
  EXPECT_EQ(ReadWholeFile("/dev/zero"), std::nullopt);
  // A fifo with no writer: a blocking open would hang here.
  const std::string fifo = dir.File("fifo");
  ASSERT_EQ(std::system(("mkfifo '" + fifo + "'").c_str()), 0);
  EXPECT_EQ(ReadWholeFile(fifo), std::nullopt);
}

TEST(FsTest, WriteFileAtomicallyReplacesKeepsModeAndFailsWithoutDamage) {
  testing::TempDir dir;
  const std::string path = dir.File("settings.ini");
  ASSERT_TRUE(WriteFileAtomically(path, "first\n"));
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_TRUE(WriteFileAtomically(path, std::string("second\0", 7)));
  EXPECT_EQ(ReadWholeFile(path), Text(std::string("second\0", 7)));
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  EXPECT_FALSE(WriteFileAtomically(dir.File("no/such/folder/file"), "x"));
  EXPECT_FALSE(WriteFileAtomically("", "x"));
  const std::string folder = dir.File("folder");
  fs::create_directory(folder);
  WriteRaw(folder + "/inside", "kept");
  EXPECT_FALSE(WriteFileAtomically(folder, "x"));
  EXPECT_EQ(ReadWholeFile(folder + "/inside"), Text("kept"));
  EXPECT_EQ(EntriesIn(dir.path()), 2) << "no temporary file left behind";
}

TEST(FsTest, ReaderSeesOldOrNewContentNeverAMix) {
  testing::TempDir dir;
  const std::string path = dir.File("flip");
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
TEST(FsTest, FileLockExcludesThisProcessTooAndTimesOut) {
  testing::TempDir dir;
  const FileLock holder(dir.File("settings.ini.lock"));
  ASSERT_TRUE(holder.locked()) << "the lock file is created when missing";
  EXPECT_FALSE(FileLock(dir.File("settings.ini.lock"), 20).locked());
  EXPECT_FALSE(FileLock(dir.File("missing/lock"), 0).locked());
}

TEST(FsTest, EmptyHomeFallsBackToThePasswordDatabase) {
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
