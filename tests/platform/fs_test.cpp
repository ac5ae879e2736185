// Whole-file reads, atomic replacement, the advisory lock and the environment.
#include "platform/fs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

void WriteRaw(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

int EntriesIn(const fs::path& folder) {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) ++count;
  return count;
}

TEST(ReadWholeFileTest, GivesEveryByteOrNothing) {
  TempDir dir;
  const std::string path = dir.File("blob");
  const std::string bytes("a\0b\r\n\xff", 6);
  WriteRaw(path, bytes);
  EXPECT_EQ(ReadWholeFile(path), std::optional<std::string>(bytes));

  WriteRaw(dir.File("empty"), "");
  EXPECT_EQ(ReadWholeFile(dir.File("empty")), std::optional<std::string>(""));
  EXPECT_EQ(ReadWholeFile(dir.File("missing")), std::nullopt);
  EXPECT_EQ(ReadWholeFile(dir.path().string()), std::nullopt) << "a folder is not a file";
  EXPECT_EQ(ReadWholeFile(path, 5), std::nullopt) << "longer than the bound";
  EXPECT_EQ(ReadWholeFile(path, 6), std::optional<std::string>(bytes));
}

TEST(ReadWholeFileTest, DeviceOrPipeIsRefusedWithoutHanging) {
  EXPECT_EQ(ReadWholeFile("/dev/zero"), std::nullopt);
  TempDir dir;
  const std::string fifo = dir.File("fifo");
  // No writer ever comes: a blocking open would hang here.
  ASSERT_EQ(std::system(("mkfifo '" + fifo + "'").c_str()), 0);
  EXPECT_EQ(ReadWholeFile(fifo), std::nullopt);
}

TEST(WriteFileAtomicallyTest, CreatesAndReplacesLeavingNoTemporaryFile) {
  TempDir dir;
  const std::string path = dir.File("settings.ini");
  ASSERT_TRUE(WriteFileAtomically(path, "first\n"));
  EXPECT_EQ(ReadWholeFile(path), std::optional<std::string>("first\n"));
  ASSERT_TRUE(WriteFileAtomically(path, std::string("second\0", 7)));
  EXPECT_EQ(ReadWholeFile(path), std::optional<std::string>(std::string("second\0", 7)));
  ASSERT_TRUE(WriteFileAtomically(path, ""));
  EXPECT_EQ(ReadWholeFile(path), std::optional<std::string>(""));
  EXPECT_EQ(EntriesIn(dir.path()), 1);
}

TEST(WriteFileAtomicallyTest, KeepsTheReplacedFilesPermissions) {
  TempDir dir;
  const std::string path = dir.File("private");
  WriteRaw(path, "old");
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  ASSERT_TRUE(WriteFileAtomically(path, "new"));
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
}

TEST(WriteFileAtomicallyTest, FailsWithoutDamageWhenItCannotLand) {
  TempDir dir;
  EXPECT_FALSE(WriteFileAtomically(dir.File("no/such/folder/file"), "x"));
  EXPECT_FALSE(WriteFileAtomically("", "x"));

  const std::string folder = dir.File("folder");
  fs::create_directory(folder);
  WriteRaw(folder + "/inside", "kept");
  EXPECT_FALSE(WriteFileAtomically(folder, "x"));
  EXPECT_EQ(ReadWholeFile(folder + "/inside"), std::optional<std::string>("kept"));
  EXPECT_EQ(EntriesIn(dir.path()), 1) << "the temporary file is removed";
}

TEST(WriteFileAtomicallyTest, ReaderSeesOldOrNewContentNeverAMix) {
  TempDir dir;
  const std::string path = dir.File("flip");
  const std::string a(64 * 1024, 'a');
  const std::string b(64 * 1024, 'b');
  ASSERT_TRUE(WriteFileAtomically(path, a));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 200 && !stop; ++i) WriteFileAtomically(path, i % 2 ? a : b);
  });
  int torn = 0;
  for (int i = 0; i < 500; ++i) {
    const auto content = ReadWholeFile(path);
    if (!content || (*content != a && *content != b)) ++torn;
  }
  stop = true;
  writer.join();
  EXPECT_EQ(torn, 0);
}

TEST(FileLockTest, ExcludesASecondHolderUntilReleased) {
  TempDir dir;
  const std::string lock_path = dir.File("settings.ini.lock");
  {
    FileLock first(lock_path);
    ASSERT_TRUE(first.locked());
    EXPECT_TRUE(fs::exists(lock_path)) << "created when missing";
    FileLock second(lock_path, 20);
    EXPECT_FALSE(second.locked()) << "the same process is excluded as well";
  }
  FileLock again(lock_path, 0);
  EXPECT_TRUE(again.locked());
  FileLock nowhere(dir.File("missing/lock"), 0);
  EXPECT_FALSE(nowhere.locked());
}

TEST(FileLockTest, WaiterGetsTheLockWhenTheHolderLetsGo) {
  TempDir dir;
  const std::string lock_path = dir.File("lock");
  auto holder = std::make_unique<FileLock>(lock_path);
  ASSERT_TRUE(holder->locked());
  std::atomic<bool> got{false};
  std::thread waiter([&] {
    FileLock lock(lock_path, 30'000);
    got = lock.locked();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(got.load());
  holder.reset();
  waiter.join();
  EXPECT_TRUE(got.load());
}

TEST(CreateDirectoriesTest, MakesTheWholePathOnce) {
  TempDir dir;
  const std::string deep = dir.File("a/b/c");
  EXPECT_TRUE(CreateDirectories(deep));
  EXPECT_TRUE(fs::is_directory(deep));
  EXPECT_TRUE(CreateDirectories(deep)) << "existing is fine";
  WriteRaw(dir.File("file"), "x");
  EXPECT_FALSE(CreateDirectories(dir.File("file")));
  EXPECT_FALSE(CreateDirectories(dir.File("file/below")));
  EXPECT_FALSE(CreateDirectories(""));
  EXPECT_TRUE(PathExists(deep));
  EXPECT_FALSE(PathExists(dir.File("nothing")));
}

TEST(EnvironmentTest, SetButEmptyIsNotUnset) {
  constexpr const char* kName = "DESKLINE_FS_TEST_VARIABLE";
  ASSERT_TRUE(SetEnvironment(kName, ""));
  EXPECT_EQ(GetEnvironment(kName), std::optional<std::string>(""));
  ASSERT_TRUE(SetEnvironment(kName, nullptr));
  EXPECT_EQ(GetEnvironment(kName), std::nullopt);
  EXPECT_EQ(GetEnvironment(nullptr), std::nullopt);
}

TEST(EnvironmentTest, HomeFallsBackToThePasswordDatabase) {
  const std::optional<std::string> saved = GetEnvironment("HOME");
  ASSERT_TRUE(SetEnvironment("HOME", "/home/from-env"));
  EXPECT_EQ(HomeDirectory(), std::optional<std::string>("/home/from-env"));
  ASSERT_TRUE(SetEnvironment("HOME", ""));
  const std::optional<std::string> fallback = HomeDirectory();
  SetEnvironment("HOME", saved ? saved->c_str() : nullptr);
  ASSERT_TRUE(fallback.has_value());
  EXPECT_FALSE(fallback->empty());
}

}  // namespace
}  // namespace deskline::platform
