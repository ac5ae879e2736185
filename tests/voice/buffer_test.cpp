#include "voice/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "testing/fake_clock.h"

namespace deskline {
namespace {

using ::deskline::testing::FakeClock;

// Stream position n travels as n mod 65,536 with a timestamp that keeps growing, as a
// sender's does across the wrap.
std::int32_t SeqOf(long n) { return static_cast<std::int32_t>(n % 65536); }
std::uint32_t TsOf(long n) { return 50'000 + static_cast<std::uint32_t>(n) * 160; }

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { Fresh(); }
  // A new started buffer on the same clock: a first voice path, no frames thrown away.
  void Fresh() {
    buffer_ = std::make_unique<CBuffer>(clock_);
    ASSERT_EQ(buffer_->Start(), 0);
  }
  // Stores position n, every sample holding its sequence number, at the clock's time.
  int Put(long n, std::uint32_t ts = 0) {
    std::array<std::int16_t, 160> frame;
    frame.fill(static_cast<std::int16_t>(SeqOf(n)));
    const std::int32_t seq = SeqOf(n);
    const std::uint32_t size = 320, stamp = ts ? ts : TsOf(n);
    return buffer_->PutFrame(frame.data(), &seq, &stamp, &size);
  }
  // A pull in the scripts' words: "N" not playing (601), "C" conceal (600), "E" empty (1),
  // "G10,11,x" the sequence numbers delivered, x for the lost marker. Each frame is whole.
  std::string Get(std::size_t room = 1280) {
    std::vector<std::int16_t> out(room, 0x5555);
    std::uint32_t size = 12345;
    const int status = buffer_->GetFrames(out, &size);
    if (status != 0 || size % 320 || size > room * 2) {
      return size            ? "size " + std::to_string(size)
             : status == 600 ? "C"
             : status == 601 ? "N"
                             : "E";
    }
    std::string text = "G";
    for (std::size_t k = 0; k < size / 320; ++k) {
      const std::int16_t* f = out.data() + k * 160;
      const bool lost = IsFrameLost(f);
      const std::int16_t fill = lost ? 0 : f[0];
      EXPECT_TRUE(
          std::all_of(f + (lost ? 4 : 0), f + 160, [&](std::int16_t s) { return s == fill; }));
      text += (k ? "," : "") + (lost ? "x" : std::to_string(static_cast<std::uint16_t>(f[0])));
    }
    return text;
  }
  // Pulls as Get words them, and puts of stream positions 20 ms apart: "P10" accepted, "P10!"
  // refused, "P10-20" a run, "P10-20+800" the first of the run 800 ms later still.
  void Run(const std::string& script) {
    std::istringstream in(script);
    for (std::string token; in >> token;) {
      if (token[0] != 'P') {
        EXPECT_EQ(Get(), token);
        continue;
      }
      const auto dash = token.find('-'), plus = token.find('+');
      const long first = std::stol(token.substr(1));
      const long last = dash == std::string::npos ? first : std::stol(token.substr(dash + 1));
      long extra_ms = plus == std::string::npos ? 0 : std::stol(token.substr(plus + 1));
      for (long n = first; n <= last; ++n) {
        clock_.AdvanceMs(20 + std::exchange(extra_ms, 0));
        EXPECT_EQ(Put(n), token.back() == '!' ? 1 : 0) << token << ": " << n;
      }
    }
  }
  std::int32_t Depth() {
    std::int32_t depth = 0;
    return buffer_->GetDepth(&depth) == 0 ? depth : 0;
  }

  FakeClock clock_{FakeClock::Mode::kManual};
  std::unique_ptr<CBuffer> buffer_;
};

TEST_F(BufferTest, Scripts) {
  // Target depth 1 throughout: nothing arrives late against a reference.
  const std::pair<const char*, const char*> scripts[] = {
      {"idle, prebuffering, playing from the third frame; a shallow frame is held once",
       "N P10 N P11 N P12 G10 G11 C G12 E E P13 C G13"},
      {"duplicates and late frames are refused", "P10 P10! P11 P12 G10 G11 P11! P10! P13 P13! G12"},
      {"depth 2 to 4 gives one frame a call", "P10-13 G10 G11 G12 C G13"},
      {"a missing number gives one 600 at its place",
       "P10-12 G10 P13 G11 P15 G12 P16 G13 P17 C P18 G15 P19 G16 P20 G17"},
      {"a burst carries the marker for a missing frame", "P10 P11 P13-18 G10,11,x G13,14 G15"},
      {"a held frame is not part of a burst", "P10-12 G10 G11 C P13-20 G12 G13,14"},
      {"a stream across 65,535",
       "P65533-65535 G65533 P65536 G65534 P65537 G65535 P65538 G0 P65539 G1 G2 C G3"},
      {"running dry at the end of the table, then going on",
       "P65533-65535 G65533 G65534 C G65535 E E P65536-65537 G0 C G1"},
      {"a drop and a burst across the end of the table", "P65530-65542 G65533,65534,65535,0,1 G2"},
  };
  for (const auto& [name, script] : scripts) {
    SCOPED_TRACE(name);
    Fresh();
    Run(script);
    EXPECT_EQ(buffer_->GetJitterDepth(), 0);
  }
}

TEST_F(BufferTest, FirstPullByDepth) {
  // Frames from 95 on, 101 `late_ms` late against the reference 100. At T = 1 (U = 11) and
  // T = 40 (U = 70): one frame up to T + 3, then bursts of 1, 2, 1, 2, 3 ... up to 8 (102
  // missing: the marker), and above U the oldest dropped, one slot more than the excess.
  struct Row {
    int late_ms, depth;
    bool hole;
    long first, count;
  };
  const Row rows[] = {
      {0, 3, 0, 95, 1},    {0, 4, 0, 95, 1},    {0, 5, 0, 95, 1},    {0, 6, 0, 95, 2},
      {0, 7, 0, 95, 1},    {0, 9, 0, 95, 3},    {0, 11, 0, 95, 5},   {0, 12, 0, 97, 5},
      {0, 13, 0, 98, 5},   {0, 40, 0, 125, 5},  {800, 44, 0, 95, 1}, {800, 45, 0, 95, 2},
      {800, 46, 0, 95, 1}, {800, 47, 0, 95, 2}, {800, 48, 0, 95, 3}, {800, 52, 0, 95, 7},
      {800, 53, 0, 95, 8}, {800, 53, 1, 95, 8}, {800, 60, 0, 95, 8}, {800, 75, 0, 101, 8},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.late_ms << " ms, depth " << row.depth);
    Fresh();
    const std::string last = std::to_string(94 + row.depth), late = std::to_string(row.late_ms);
    Run(!row.late_ms
            ? "P95-" + last
            : "P95-100 P101+" + late + (row.hole ? " P103-" + last + "+20" : " P102-" + last));
    ASSERT_EQ(buffer_->GetJitterDepth(), row.late_ms / 20);
    ASSERT_EQ(Depth(), row.depth);
    std::string expected = "G";
    for (long n = row.first; n < row.first + row.count; ++n) {
      expected += (n > row.first ? "," : "") + (row.hole && n == 102 ? "x" : std::to_string(n));
    }
    EXPECT_EQ(Get(), expected);
    EXPECT_EQ(buffer_->GetReadPos(), row.first + row.count);
  }
}

TEST_F(BufferTest, DelayGivesTargetAndUpperDepth) {
  // (delay_ms + 5) / 20 frames; the target is clamped to 1..1000, U = T + 30 above 35.
  const std::array<int, 4> rows[] = {{14, 0, 1, 11},
                                     {15, 1, 1, 11},
                                     {700, 35, 35, 45},
                                     {720, 36, 36, 66},
                                     {40000, 2000, 1000, 1030}};
  for (const auto& [late_ms, jitter, target, upper] : rows) {
    SCOPED_TRACE(::testing::Message() << late_ms << " ms late");
    Fresh();
    Run("P95-100 P101+" + std::to_string(late_ms));
    EXPECT_EQ(buffer_->GetJitterDepth(), jitter);
    EXPECT_EQ(buffer_->TargetDepth(), target);
    EXPECT_EQ(buffer_->UpperDepth(), upper);
    buffer_->Reset();  // a new voice path keeps what was measured
    EXPECT_EQ(buffer_->TargetDepth(), target);
  }
}

TEST_F(BufferTest, AnEarlyFrameMovesItsReferenceEarlier) {
  Run("P95-101");
  clock_.AdvanceMs(1);
  ASSERT_EQ(Put(102), 0);  // 19 ms early: the reference moves 19 ms earlier
  EXPECT_EQ(buffer_->GetJitterDepth(), 0);
  clock_.AdvanceMs(39);
  ASSERT_EQ(Put(103), 0);  // on the old timeline, now 19 ms late
  EXPECT_EQ(buffer_->GetJitterDepth(), 1);
}

TEST_F(BufferTest, SecondVoicePathDropsTenFramesAndWaitsForAReference) {
  Run("P95-100 P101+800");
  ASSERT_EQ(buffer_->GetJitterDepth(), 40);
  buffer_->Reset();
  EXPECT_FALSE(buffer_->IsPlaying());
  Run("P7080 N P7081 N P7082 N P7083 N P7084 N P7085 N P7086 N P7087 N P7088 N P7089 N");
  EXPECT_EQ(buffer_->GetReadPos(), -1);  // the ten were taken and thrown away
  EXPECT_EQ(buffer_->GetFramesHeld(), 0u);
  Run("P7090-7130");  // the target is still 40: playing begins at a depth of 41
  EXPECT_EQ(buffer_->GetReadPos(), 7090);
  EXPECT_FALSE(buffer_->IsPlaying());
  Run("P7131");
  EXPECT_TRUE(buffer_->IsPlaying());
  // 7100 came before playing, so there is no reference: a 2 s stall is not measured.
  Run("P7132-7149 P7150-7199+1980");
  EXPECT_EQ(buffer_->GetJitterDepth(), 40);
  Run("P7200 P7201+1000");  // 7200 is a reference at last
  EXPECT_EQ(buffer_->GetJitterDepth(), 50);
}

TEST_F(BufferTest, NumbersPastTheWrapAreNewWhenTheirTimestampIsAhead) {
  Run("P65530-65532 P65539");  // sequence number 3, timestamp ahead
  EXPECT_EQ(buffer_->GetNewest(), 3);
  EXPECT_EQ(Depth(), 10);
  EXPECT_EQ(Put(2, TsOf(65530) - 160), 1);  // timestamp behind the due frame: late
}

TEST_F(BufferTest, JitteryStreamDeliversEveryAcceptedFrameOnceInOrder) {
  // 40,000 frames (13 minutes, through one wrap) sent every 20 ms and delayed 0 to 100 ms at
  // random, so some overtake others; the host pulls every 20 ms, 10 ms out of phase.
  constexpr long kFrames = 40000;
  std::mt19937 random(99);
  std::uniform_int_distribution<int> delay_ms(0, 100);
  std::multimap<std::int64_t, long> arrivals;  // time -> stream position
  for (long i = 0; i < kFrames; ++i) arrivals.emplace(i * 20 + delay_ms(random), kFrames + i);
  std::vector<long> accepted, delivered;
  long last = kFrames - 1;
  std::int64_t now = 0;
  auto it = arrivals.begin();
  for (std::int64_t pull_at = 10; pull_at < kFrames * 20 + 400; pull_at += 20) {
    for (; it != arrivals.end() && it->first <= pull_at; ++it) {
      clock_.AdvanceMs(it->first - std::exchange(now, it->first));
      if (Put(it->second) == 0) accepted.push_back(it->second);
    }
    clock_.AdvanceMs(pull_at - std::exchange(now, pull_at));
    std::istringstream pulled(Get().substr(1));
    for (std::string item; std::getline(pulled, item, ',');) {
      if (item == "x" || item.empty()) continue;
      long n = last - last % 65536 + std::stol(item);  // the stream position nearest the last
      if (n < last - 32768) n += 65536;
      if (n > last + 32768) n -= 65536;
      ASSERT_GT(n, last) << "out of order";
      delivered.push_back(last = n);
    }
  }
  std::sort(accepted.begin(), accepted.end());
  EXPECT_EQ(delivered, accepted);  // nothing accepted is lost, nothing comes twice
  EXPECT_GT(accepted.size(), static_cast<std::size_t>(kFrames * 99 / 100));
  EXPECT_GE(buffer_->GetJitterDepth(), 3);
  EXPECT_LE(buffer_->GetJitterDepth(), 5);
  EXPECT_EQ(buffer_->GetFramesHeld(), 0u);
}

TEST_F(BufferTest, BadInputAndShortOutputAreas) {
  std::array<std::int16_t, 160> frame{};
  const std::int32_t negative = -1, above = 65536, ten = 10;
  const std::uint32_t ts = 1000, zero = 0, full = 320, over = 321;
  const std::int16_t* f = frame.data();
  const struct {
    const char* name;
    const std::int16_t* samples;
    const std::int32_t* seq;
    const std::uint32_t *timestamp, *size;
  } rows[] = {
      {"negative number", f, &negative, &ts, &full}, {"number above 65,535", f, &above, &ts, &full},
      {"size 0", f, &ten, &ts, &zero},               {"size above a frame", f, &ten, &ts, &over},
      {"no samples", nullptr, &ten, &ts, &full},     {"no number", f, nullptr, &ts, &full},
      {"no timestamp", f, &ten, nullptr, &full},     {"no size", f, &ten, &ts, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(buffer_->PutFrame(row.samples, row.seq, row.timestamp, row.size, nullptr), 1);
    EXPECT_EQ(buffer_->GetReadPos(), -1);
    EXPECT_EQ(buffer_->GetStoredCount(), 0u);
  }
  // A short frame is padded with silence and reports its own size.
  frame.fill(777);
  const std::uint32_t short_size = 100;
  std::uint32_t size = 0;
  for (std::int32_t n = 10; n <= 12; ++n) {
    const std::uint32_t later = ts + static_cast<std::uint32_t>(n) * 160;
    ASSERT_EQ(buffer_->PutFrame(frame.data(), &n, &later, &short_size, &size), 0);
  }
  EXPECT_EQ(size, 100u);
  ASSERT_EQ(buffer_->GetFrames(frame, &size), 0);
  EXPECT_EQ(size, 100u);
  EXPECT_EQ(frame[49], 777);
  EXPECT_EQ(frame[50], 0);
  // An output area shorter than a frame gets nothing, and nothing moves; a burst stops at
  // the area's end.
  EXPECT_EQ(Get(100), "E");
  EXPECT_EQ(buffer_->GetReadPos(), 11);
  Fresh();
  Run("P10-20");  // depth 11: a burst of 5 is due
  EXPECT_EQ(Get(3 * 160 + 10), "G10,11,12");
  EXPECT_EQ(buffer_->GetReadPos(), 13);
  EXPECT_EQ(buffer_->GetFrames(frame, nullptr), 0);  // no size wanted
}

TEST_F(BufferTest, UseBeforeStartAndAfterShutdown) {
  buffer_ = std::make_unique<CBuffer>(clock_);
  std::array<std::int16_t, 160> frame{};
  std::uint32_t got = 9;
  EXPECT_EQ(Put(1), 1);
  EXPECT_EQ(buffer_->GetFrames(frame, &got), CBuffer::kNotPlaying);
  EXPECT_EQ(got, 0u);
  buffer_->Reset();
  EXPECT_EQ(buffer_->Start(), 0);
  EXPECT_EQ(Put(1), 0);
  EXPECT_EQ(buffer_->Start(), 0);  // again: the table stays, its frames go
  EXPECT_EQ(buffer_->GetFramesHeld(), 0u);
  EXPECT_EQ(Put(1), 0);
  EXPECT_EQ(buffer_->Shutdown(), 0);
  EXPECT_EQ(buffer_->Shutdown(), 0);
  EXPECT_EQ(buffer_->GetFrameCapacity(), 0u);
  EXPECT_EQ(Put(1), 1);
  EXPECT_EQ(buffer_->GetFrames(frame, &got), CBuffer::kNotPlaying);
  EXPECT_EQ(buffer_->ClearRange(-1, 5, false, false), 1);
  EXPECT_EQ(buffer_->ClearRange(0, 65537, false, false), 1);
}

TEST(Buffer, ThreeThreadsShareTheBuffer) {
  // Receive thread stores, host thread pulls, call processor resets; the sanitizers watch.
  auto buffer = std::make_unique<CBuffer>();
  ASSERT_EQ(buffer->Start(), 0);
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    std::array<std::int16_t, 160> frame{};
    for (std::uint32_t n = 0; n < 30000; ++n) {
      const std::int32_t seq = static_cast<std::int32_t>(n % 65536);
      const std::uint32_t ts = n * 160 + 160, size = 320;
      buffer->PutFrame(frame.data(), &seq, &ts, &size, nullptr, n * 20);
    }
    stop = true;
  });
  std::thread host([&] {
    std::array<std::int16_t, 1280> out{};
    while (!stop) {
      buffer->GetFrames(out, nullptr);
      std::this_thread::yield();
    }
  });
  // A reset walks every slot; back to back they would starve the receiver, and the call
  // processor resets at most a few times a second.
  while (!stop) {
    buffer->Reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  receiver.join();
  host.join();
  buffer->Reset();
  EXPECT_EQ(buffer->GetFramesHeld(), 0u);
}

TEST(DelayWindow, MaxMatchesAFullScan) {
  constexpr std::uint32_t kLength = DelayWindow::kLength;
  auto window = std::make_unique<DelayWindow>();
  auto table = std::make_unique<std::array<std::uint32_t, kLength>>();
  auto write = [&](std::uint32_t index, std::uint32_t value) {
    window->Write(index, value);
    (*table)[index % kLength] = value;
    return window->Max() == *std::max_element(table->begin(), table->end());
  };
  EXPECT_EQ(window->Max(), 0u);
  // A place skipped for three laps (stores without a sample) keeps its old value.
  ASSERT_TRUE(write(5, 40));
  for (std::uint32_t i = 6; i < 6 + 3 * kLength; ++i) {
    if (i % kLength != 5) {
      ASSERT_TRUE(write(i, 3)) << i;
    }
  }
  EXPECT_EQ(window->Max(), 40u);
  ASSERT_TRUE(write(5, 2));
  EXPECT_EQ(window->Max(), 3u);
  // A falling series keeps every entry a candidate until it expires: the queue runs full.
  for (std::uint32_t v = 3 * kLength, i = 6; v > 0; --v, ++i) ASSERT_TRUE(write(i, v)) << v;
  // Random delays, skipped stores and spikes, through the wrap of the 32-bit store count,
  // where its place jumps from 1,295 to 0.
  std::mt19937 random(2024);
  std::uniform_int_distribution<int> delay(0, 6), percent(0, 99);
  std::uint32_t stored = 0xFFFFFFFFu - 20000;
  for (int step = 0; step < 40000; ++step) {
    ++stored;
    if (percent(random) < 20) continue;
    std::uint32_t value = static_cast<std::uint32_t>(delay(random));
    if (percent(random) == 0) value = 30 + static_cast<std::uint32_t>(percent(random));
    ASSERT_TRUE(write(stored % kLength, value)) << step;
  }
}

}  // namespace
}  // namespace deskline
