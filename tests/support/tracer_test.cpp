// The trace file, byte for byte, stamped from a simulated clock.
#include "support/tracer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "testing/fake_clock.h"
#include "testing/temp_dir.h"

namespace deskline {
namespace {

using testing::FakeClock;

const std::string kBegin =
    "===============================[ TRACE BEGIN ]================== RELEASE BUILD\r\n\r\n";
const std::string kEnd =
    "================================[ TRACE END ]=================================\r\n";
const std::string kStamp = "16/11/2026  9:05    0.00  ";

class TracerTest : public ::testing::Test {
 protected:
  void SetUp() override { CTracer::SetClock(clock_.get()); }
  void TearDown() override {
    CTracer::Shutdown();
    CTracer::SetClock(nullptr);
  }

  CTracer& tracer() { return CTracer::Instance(); }
  std::string Log() const {
    std::ostringstream content;
    content << std::ifstream(path_, std::ios::binary).rdbuf();
    return content.str();
  }
  // The lines after the banner, without their "\r\n".
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    const std::string log = Log();
    for (std::size_t at = kBegin.size(), end; (end = log.find("\r\n", at)) != std::string::npos;
         at = end + 2) {
      lines.push_back(log.substr(at, end - at));
    }
    return lines;
  }

  std::unique_ptr<FakeClock> clock_ = std::make_unique<FakeClock>();
  testing::TempDir dir_;
  std::string path_ = dir_.File("trace.log");
};

TEST_F(TracerTest, FileHoldsBannersAndStampedLinesByteForByte) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  clock_->AdvanceMs(12'340);
  tracer().Trace(TRACE_STATUS, "[CP] Module starting");
  clock_->AdvanceMs(60'000);
  tracer().Trace(TRACE_ERROR, "[CP :: ERROR] %s (%d)", "Write to Mailbox failed", 100);
  tracer().Print(TRACE_ALL, "raw %02x", 10);
  CTracer::Shutdown();
  EXPECT_EQ(Log(), kBegin +
                       "16/11/2026  9:05   12.34  [CP] Module starting\r\n"
                       "16/11/2026  9:06   72.34  [CP :: ERROR] Write to Mailbox failed (100)\r\n"
                       "raw 0a\r\n" + kEnd);
}

TEST_F(TracerTest, StampLeavesDateAndHourUnpaddedAndRollsOverMidnight) {
  clock_ = std::make_unique<FakeClock>(FakeClock::Mode::kAuto,
                                       platform::CivilTime{2026, 1, 4, 23, 59, 30, 0});
  CTracer::SetClock(clock_.get());  // before Startup, which takes the start tick
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  tracer().Trace(TRACE_STATUS, "[PTAP] before");
  clock_->AdvanceMs(45'000);
  tracer().Trace(TRACE_STATUS, "[PTAP] after");
  clock_->AdvanceMs(1'189'500);
  tracer().Trace(TRACE_STATUS, "[PTAP] later");
  EXPECT_EQ(Lines(), (std::vector<std::string>{"4/1/2026  23:59    0.00  [PTAP] before",
                                               "5/1/2026  0:00   45.00  [PTAP] after",
                                               "5/1/2026  0:20  1234.50  [PTAP] later"}));
}

TEST_F(TracerTest, FilterSettersDecideWhichLevelsAndBannersAreWritten) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ERROR), 0);
  tracer().Trace(TRACE_DETAIL, "[API] dropped");
  tracer().AddFilter(TRACE_DETAIL);
  tracer().Trace(TRACE_DETAIL, "[API] detail kept");
  tracer().RemoveFilter(TRACE_DETAIL);
  tracer().Trace(TRACE_DETAIL, "[API] dropped");
  tracer().Trace(TRACE_ERROR, "[API :: ERROR] error kept");
  tracer().SetFilter(TRACE_DETAIL);
  tracer().Trace(TRACE_ERROR, "[API :: ERROR] dropped");
  tracer().AddFilter(0);
  EXPECT_EQ(tracer().filter(), 0u) << "0 clears";
  tracer().Trace(TRACE_CRITICAL, "[API :: CRITICAL ERROR] dropped");
  CTracer::Shutdown();
  // The end banner is filtered too; its empty line is not.
  EXPECT_EQ(Log(), kBegin + kStamp + "[API] detail kept\r\n" + kStamp +
                       "[API :: ERROR] error kept\r\n\r\n");

  ASSERT_EQ(tracer().Startup(path_.c_str(), 0), 0);
  tracer().Print(TRACE_ALL, "dropped");
  CTracer::Shutdown();
  EXPECT_EQ(Log(), "\r\n\r\n");
}

TEST_F(TracerTest, StartupResultsAndTheFreshTracerAfterShutdown) {
  tracer().SetFilter(TRACE_ALL);
  tracer().Trace(TRACE_STATUS, "[CP] before Startup: lost");
  EXPECT_EQ(tracer().Startup(dir_.File("no/such/folder/x.log").c_str(), TRACE_ALL), -1);
  tracer().Trace(TRACE_ERROR, "[CP :: ERROR] nowhere to go");
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  EXPECT_EQ(tracer().Startup(dir_.File("other.log").c_str(), TRACE_ALL), 1);
  EXPECT_FALSE(std::filesystem::exists(dir_.File("other.log")));
  tracer().Trace(TRACE_CRITICAL, "[CP :: CRITICAL ERROR] tracing is off after a second Startup");
  CTracer::Shutdown();
  EXPECT_EQ(Log(), kBegin) << "no end banner either";
  EXPECT_EQ(tracer().filter(), 0u) << "a fresh tracer";
  tracer().Trace(TRACE_ALL, "[CP] after Shutdown: lost");

  // A null name is "trace.log" in the current directory; the earlier file is replaced.
  const std::filesystem::path saved = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  const int result = tracer().Startup(nullptr, TRACE_ALL);
  std::filesystem::current_path(saved);
  ASSERT_EQ(result, 0);
  tracer().Trace(TRACE_STATUS, "[CP] again");
  EXPECT_EQ(Log(), kBegin + kStamp + "[CP] again\r\n");
}

TEST_F(TracerTest, OverlongMessageIsCutAtTheBufferAndTheLineStillEnds) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  const std::string long_text(2000, 'x');
  tracer().Trace(TRACE_STATUS, "[CP] %s", long_text.c_str());
  tracer().Trace(TRACE_STATUS, "[CP] next");
  tracer().Print(TRACE_ALL, "%s", long_text.c_str());
  const std::vector<std::string> lines = Lines();
  ASSERT_EQ(lines.size(), 2u) << "the Print has no line end";
  const std::size_t cut = lines[0].size() + 2;
  EXPECT_TRUE(cut <= CTracer::kBufferSize && cut > CTracer::kBufferSize - 40) << cut;
  EXPECT_EQ(lines[0], kStamp + "[CP] " + std::string(lines[0].size() - kStamp.size() - 5, 'x'));
  EXPECT_EQ(lines[1], kStamp + "[CP] next");
  EXPECT_LT(Log().size() - Log().rfind("\r\n") - 2, CTracer::kBufferSize);
}

TEST_F(TracerTest, ConcurrentThreadsNeverInterleaveLines) {
  ASSERT_EQ(tracer().Startup(path_.c_str(), TRACE_ALL), 0);
  constexpr int kThreads = 8, kLines = 200;
  const std::string payload(120, 'p');
  std::multiset<std::string> expected;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLines; ++i) {
      expected.insert(kStamp + "[T" + std::to_string(t) + "] " + std::to_string(i) + payload);
    }
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        tracer().Trace(TRACE_DETAIL, "[T%d] %d%s", t, i, payload.c_str());
      }
    });
  }
  for (int i = 0; i < 100; ++i) tracer().AddFilter(TRACE_DETAIL);  // changes under the writers
  for (auto& thread : threads) thread.join();
  const std::vector<std::string> lines = Lines();
  EXPECT_TRUE(std::multiset<std::string>(lines.begin(), lines.end()) == expected);
}

}  // namespace
}  // namespace deskline
