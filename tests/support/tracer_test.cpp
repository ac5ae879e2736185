// The trace file, byte for byte, stamped from a simulated clock.
#include "support/tracer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "testing/temp_dir.h"
#include "testing/fake_clock.h"

namespace deskline {
namespace {

using testing::FakeClock;
using testing::TempDir;

const std::string kBegin =
    "===============================[ TRACE BEGIN ]================== RELEASE BUILD\r\n";
const std::string kEnd =
    "================================[ TRACE END ]=================================\r\n";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
    lines.push_back(text.substr(start, end - start));
  }
  if (start < text.size()) lines.push_back(text.substr(start));  // an unterminated tail
  return lines;
}

class TracerTest : public ::testing::Test {
 protected:
  void SetUp() override { CTracer::SetClock(clock_.get()); }
  void TearDown() override {
    CTracer::Shutdown();
    CTracer::SetClock(nullptr);
  }

  // Before Startup: the start tick is taken from the clock in use then.
  void UseClockStartingAt(platform::CivilTime start) {
    clock_ = std::make_unique<FakeClock>(FakeClock::Mode::kAuto, start);
    CTracer::SetClock(clock_.get());
  }
  CTracer& tracer() { return CTracer::Instance(); }
  std::string Log() const { return ReadFile(path_); }

  std::unique_ptr<FakeClock> clock_ = std::make_unique<FakeClock>();
  TempDir dir_;
  std::string path_ = dir_.File("trace.log");
};

TEST_F(TracerTest, FileHoldsBannersAndStampedLinesByteForByte) {
  ASSERT_EQ(kBegin.size(), 80u);
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  EXPECT_EQ(Log(), kBegin + "\r\n");

  clock_->AdvanceMs(12'340);
  tracer().Trace(TRACE_STATUS, "[CP] Module starting");
  clock_->AdvanceMs(60'000);
  tracer().Trace(TRACE_ERROR, "[CP :: ERROR] %s (%d)", "Write operation to Mailbox failed", 100);
  tracer().Print(TRACE_ALL, "raw %02x", 10);
  CTracer::Shutdown();

  EXPECT_EQ(Log(), kBegin + "\r\n" +
                       "16/11/2026  9:05   12.34  [CP] Module starting\r\n"
                       "16/11/2026  9:06   72.34  [CP :: ERROR] Write operation to Mailbox "
                       "failed (100)\r\n"
                       "raw 0a" +
                       "\r\n" + kEnd);
}

TEST_F(TracerTest, StampLeavesDateAndHourUnpaddedAndRollsOverMidnight) {
  UseClockStartingAt({2026, 1, 4, 23, 59, 30, 0});
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  tracer().Trace(TRACE_STATUS, "[PTAP] before");
  clock_->AdvanceMs(45'000);
  tracer().Trace(TRACE_STATUS, "[PTAP] after");
  clock_->AdvanceMs(1'189'500);
  tracer().Trace(TRACE_STATUS, "[PTAP] later");
  const std::vector<std::string> lines = SplitLines(Log());
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[2], "4/1/2026  23:59    0.00  [PTAP] before");
  EXPECT_EQ(lines[3], "5/1/2026  0:00   45.00  [PTAP] after");
  EXPECT_EQ(lines[4], "5/1/2026  0:20  1234.50  [PTAP] later") << "wider than six, not cut";
}

TEST_F(TracerTest, FilterZeroWritesOnlyTheTwoEmptyLines) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), 0), 0);
  for (std::uint32_t level : {TRACE_STATUS, TRACE_DETAIL, TRACE_WARNING, TRACE_ERROR,
                              TRACE_CRITICAL, TRACE_ALL}) {
    tracer().Trace(level, "[CP] dropped");
    tracer().Print(level, "dropped");
  }
  CTracer::Shutdown();
  EXPECT_EQ(Log(), "\r\n\r\n");
}

TEST_F(TracerTest, AddFilterOrsInAndZeroClears) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ERROR), 0);
  tracer().Trace(TRACE_DETAIL, "[MGCP] dropped");
  tracer().AddFilter(TRACE_DETAIL);
  EXPECT_EQ(tracer().filter(), TRACE_ERROR | TRACE_DETAIL);
  tracer().Trace(TRACE_DETAIL, "[MGCP] kept");
  tracer().AddFilter(0);
  EXPECT_EQ(tracer().filter(), 0u);
  tracer().Trace(TRACE_ERROR, "[MGCP :: ERROR] dropped");
  CTracer::Shutdown();
  // The end banner is filtered too; its empty line is not.
  EXPECT_EQ(Log(), kBegin + "\r\n" + "16/11/2026  9:05    0.00  [MGCP] kept\r\n" + "\r\n");
}

TEST_F(TracerTest, RemovingDetailSilencesDetailLinesButNotErrors) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  tracer().RemoveFilter(TRACE_DETAIL);
  EXPECT_EQ(tracer().filter(), ~TRACE_DETAIL);
  tracer().Trace(TRACE_DETAIL, "[API] put_key 0200");
  tracer().Trace(TRACE_ERROR, "[API :: ERROR] put_key refused");
  tracer().SetFilter(TRACE_DETAIL);
  tracer().Trace(TRACE_ERROR, "[API :: ERROR] dropped");
  tracer().Trace(TRACE_DETAIL, "[API] send_voice");
  const std::vector<std::string> lines = SplitLines(Log());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[2], "16/11/2026  9:05    0.00  [API :: ERROR] put_key refused");
  EXPECT_EQ(lines[3], "16/11/2026  9:05    0.00  [API] send_voice");
}

TEST_F(TracerTest, SecondStartupReturnsOneAndNothingMoreIsWritten) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  const std::string other = dir_.File("other.log");
  EXPECT_EQ(tracer().Startup(other.c_str(), TRACE_ALL), 1);
  EXPECT_FALSE(std::filesystem::exists(other));
  tracer().Trace(TRACE_CRITICAL, "[CP :: CRITICAL ERROR] silenced");
  CTracer::Shutdown();
  EXPECT_EQ(Log(), kBegin + "\r\n");

  // The fresh tracer after Shutdown opens again, replacing the earlier file.
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  tracer().Trace(TRACE_STATUS, "[CP] again");
  EXPECT_EQ(Log(), kBegin + "\r\n" + "16/11/2026  9:05    0.00  [CP] again\r\n");
}

TEST_F(TracerTest, UnopenableFileReturnsMinusOneAndTracingGoesOnHarmlessly) {
  const std::string bad = dir_.File("no/such/folder/trace.log");
  EXPECT_EQ(tracer().Startup(bad.c_str(), TRACE_ALL), -1);
  tracer().Trace(TRACE_ERROR, "[CP :: ERROR] nowhere to go");
  EXPECT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  tracer().Trace(TRACE_STATUS, "[CP] here");
  EXPECT_EQ(Log(), kBegin + "\r\n" + "16/11/2026  9:05    0.00  [CP] here\r\n");
}

TEST_F(TracerTest, NullNameOpensTraceLogInTheCurrentDirectory) {
  const std::filesystem::path saved = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  const int result = tracer().Startup(nullptr, TRACE_ALL);
  std::filesystem::current_path(saved);
  ASSERT_EQ(result, 0);
  EXPECT_EQ(ReadFile(dir_.File("trace.log")), kBegin + "\r\n");
}

TEST_F(TracerTest, LinesBeforeStartupAreLostAndShutdownLeavesAFreshTracer) {
  tracer().SetFilter(TRACE_ALL);
  tracer().Trace(TRACE_STATUS, "[CP] Module created");
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  CTracer::Shutdown();
  EXPECT_EQ(Log(), kBegin + "\r\n\r\n" + kEnd);
  EXPECT_EQ(tracer().filter(), 0u);
  tracer().AddFilter(TRACE_WARNING);
  EXPECT_EQ(tracer().filter(), TRACE_WARNING) << "a fresh tracer starts from 0";
  tracer().Trace(TRACE_WARNING, "[CP :: Warning] after shutdown");
  EXPECT_EQ(Log(), kBegin + "\r\n\r\n" + kEnd);
}

TEST_F(TracerTest, OverlongMessageIsCutAndTheLineStillEnds) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  const std::string long_text(2000, 'x');
  tracer().Trace(TRACE_STATUS, "[CP] %s", long_text.c_str());
  tracer().Trace(TRACE_STATUS, "[CP] next");
  tracer().Print(TRACE_ALL, "%s", long_text.c_str());

  const std::string log = Log();
  const std::vector<std::string> lines = SplitLines(log);
  ASSERT_EQ(lines.size(), 5u);
  const std::string stamp = "16/11/2026  9:05    0.00  [CP] ";
  EXPECT_EQ(lines[2].compare(0, stamp.size(), stamp), 0);
  EXPECT_LE(lines[2].size() + 2, CTracer::kBufferSize);
  EXPECT_GT(lines[2].size(), CTracer::kBufferSize - 40) << "cut at the buffer, not earlier";
  EXPECT_EQ(lines[2].find_first_not_of('x', stamp.size()), std::string::npos);
  EXPECT_EQ(lines[3], "16/11/2026  9:05    0.00  [CP] next");
  EXPECT_LT(lines[4].size(), CTracer::kBufferSize);
}

TEST_F(TracerTest, ConcurrentThreadsNeverInterleaveLines) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  const std::string payload(120, 'p');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        tracer().Trace(TRACE_DETAIL, "[T%d] line %d %s", t, i, payload.c_str());
      }
    });
  }
  // The filter may change under running tracers without tearing anything.
  for (int i = 0; i < 100; ++i) tracer().AddFilter(TRACE_DETAIL);
  for (auto& thread : threads) thread.join();

  const std::vector<std::string> lines = SplitLines(Log());
  ASSERT_EQ(lines.size(), 2u + kThreads * kLines);
  std::map<std::pair<int, int>, int> seen;
  for (std::size_t n = 2; n < lines.size(); ++n) {
    int t = -1;
    int i = -1;
    char rest[200] = {};
    const std::string prefix = "16/11/2026  9:05    0.00  ";
    ASSERT_EQ(lines[n].compare(0, prefix.size(), prefix), 0) << lines[n];
    ASSERT_EQ(std::sscanf(lines[n].c_str() + prefix.size(), "[T%d] line %d %199s", &t, &i, rest),
              3)
        << lines[n];
    ASSERT_EQ(rest, payload) << lines[n];
    ASSERT_EQ(lines[n], prefix + "[T" + std::to_string(t) + "] line " + std::to_string(i) +
                            " " + payload);
    ++seen[{t, i}];
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kLines));
  for (const auto& [key, count] : seen) EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace deskline
