#include "voice/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/tracer.h"
#include "testing/fake_clock.h"

namespace deskline {
namespace {

using ::deskline::testing::FakeClock;

constexpr std::uint32_t kTsBase = 50'000;
constexpr long kLost = -1;  // a FrameLostMarker in the output

// Stream position `n` travels as sequence number n mod 65,536 with a timestamp that keeps
// growing, as a sender's would across the wrap.
std::int32_t SeqOf(long n) { return static_cast<std::int32_t>(n % 65536); }
std::uint32_t TsOf(long n) { return kTsBase + static_cast<std::uint32_t>(n) * 160; }

struct Pull {
  int status = -1;
  std::uint32_t bytes = 0;
  std::vector<long> frames;  // sequence numbers delivered, kLost for a marker
};

class BufferTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(buffer().Start(), 0); }

  CBuffer& buffer() { return *owned_; }
  // A new, started buffer on the same clock, as for a fresh row of a table.
  void Fresh() {
    owned_ = std::make_unique<CBuffer>(clock_);
    ASSERT_EQ(owned_->Start(), 0);
  }

  // Stores the frame of stream position `n`, every sample holding its sequence number,
  // arriving now on the simulated clock.
  int Put(long n, std::uint32_t timestamp) {
    std::array<std::int16_t, 160> frame;
    frame.fill(static_cast<std::int16_t>(SeqOf(n)));
    const std::int32_t seq = SeqOf(n);
    const std::uint32_t size = 320;
    return buffer().PutFrame(frame.data(), &seq, &timestamp, &size);
  }
  int Put(long n) { return Put(n, TsOf(n)); }

  Pull Get(std::size_t room_samples = 1280) {
    std::vector<std::int16_t> out(room_samples, 0x5555);
    Pull pull;
    std::uint32_t size = 12345;
    pull.status = buffer().GetFrames(out, &size);
    pull.bytes = size;
    for (std::uint32_t k = 0; k < size / 320 && (k + 1) * 160 <= out.size(); ++k) {
      const std::int16_t* frame = out.data() + k * 160;
      if (IsFrameLost(frame)) {
        pull.frames.push_back(kLost);
        EXPECT_TRUE(std::all_of(frame + 4, frame + 160, [](std::int16_t s) { return s == 0; }));
        continue;
      }
      EXPECT_TRUE(std::all_of(frame, frame + 160, [&](std::int16_t s) { return s == frame[0]; }))
          << "frame " << k << " is not one whole stored frame";
      pull.frames.push_back(static_cast<std::uint16_t>(frame[0]));
    }
    return pull;
  }

  std::int32_t Depth() {
    std::int32_t depth = 0;
    return buffer().GetDepth(&depth) == 0 ? depth : 0;
  }

  // Frames 95 to 100 on time, 20 ms apart, then 101 `late_ms` late. Playing begins at 97,
  // and 100 arrives while playing, so it becomes the reference that 101 is measured on.
  void MeasureOnce(int late_ms) {
    for (long n = 95; n <= 100; ++n) {
      clock_.AdvanceMs(20);
      ASSERT_EQ(Put(n), 0);
    }
    clock_.AdvanceMs(20 + late_ms);
    ASSERT_EQ(Put(101), 0);
  }

  FakeClock clock_{FakeClock::Mode::kManual};
  std::unique_ptr<CBuffer> owned_ = std::make_unique<CBuffer>(clock_);
};

// ---- Scripts: put and get, one row per step ------------------------------------------------

struct Step {
  char op;  // 'P' put (20 ms after the previous put), 'G' get
  long n;
  int status;
  std::vector<long> frames;
};
Step P(long n, int status = 0) { return Step{'P', n, status, {}}; }
Step G(int status, std::vector<long> frames = {}) { return Step{'G', 0, status, std::move(frames)}; }

struct Script {
  const char* name;
  std::vector<Step> steps;
};

TEST_F(BufferTest, Scripts) {
  // Target depth 1 throughout: no frame of these arrives late against a reference.
  const Script scripts[] = {
      {"idle, prebuffering, then playing from the third frame",
       {G(601), P(10), G(601), P(11), G(601), P(12), G(0, {10}), G(0, {11}), G(600), G(0, {12}),
        G(1), G(1), P(13), G(600), G(0, {13})}},
      {"duplicates and late frames are refused",
       {P(10), P(10, 1), P(11), P(12), G(0, {10}), G(0, {11}), P(11, 1), P(10, 1), P(13),
        P(13, 1), G(0, {12})}},
      {"depth 2 to 4 gives one frame a call",
       {P(10), P(11), P(12), P(13), G(0, {10}), G(0, {11}), G(0, {12}), G(600), G(0, {13})}},
      {"one missing number gives one 600 at its place",
       {P(10), P(11), P(12), G(0, {10}), P(13), G(0, {11}), P(15), G(0, {12}), P(16), G(0, {13}),
        P(17), G(600), P(18), G(0, {15}), P(19), G(0, {16}), P(20), G(0, {17})}},
      {"a burst carries the marker for a missing frame",
       {P(10), P(11), P(13), P(14), P(15), P(16), P(17), P(18), G(0, {10, 11, kLost}),
        G(0, {13, 14}), G(0, {15})}},
      {"a held frame is not part of a burst",
       {P(10), P(11), P(12), G(0, {10}), G(0, {11}), G(600), P(13), P(14), P(15), P(16), P(17),
        P(18), P(19), P(20), G(0, {12}), G(0, {13, 14})}},
      {"depth 12 above an upper depth of 11: two slots go",
       {P(10), P(11), P(12), P(13), P(14), P(15), P(16), P(17), P(18), P(19), P(20), P(21),
        G(0, {12, 13, 14, 15, 16}), G(0, {17})}},
      {"a stream across 65,535",
       {P(65533), P(65534), P(65535), G(0, {65533}), P(65536), G(0, {65534}), P(65537),
        G(0, {65535}), P(65538), G(0, {0}), P(65539), G(0, {1}), G(0, {2}), G(600), G(0, {3})}},
      {"running dry at the end of the table, then going on",
       {P(65533), P(65534), P(65535), G(0, {65533}), G(0, {65534}), G(600), G(0, {65535}), G(1),
        G(1), P(65536), P(65537), G(0, {0}), G(600), G(0, {1})}},
      {"a drop and a burst across the end of the table",
       {P(65530), P(65531), P(65532), P(65533), P(65534), P(65535), P(65536), P(65537), P(65538),
        P(65539), P(65540), P(65541), P(65542), G(0, {65533, 65534, 65535, 0, 1}), G(0, {2})}},
  };
  for (const Script& script : scripts) {
    SCOPED_TRACE(script.name);
    Fresh();  // a first voice path each time: no frames thrown away
    for (std::size_t i = 0; i < script.steps.size(); ++i) {
      const Step& step = script.steps[i];
      SCOPED_TRACE(::testing::Message() << "step " << i);
      if (step.op == 'P') {
        clock_.AdvanceMs(20);
        EXPECT_EQ(Put(step.n), step.status) << "put " << step.n;
      } else {
        const Pull pull = Get();
        EXPECT_EQ(pull.status, step.status);
        std::vector<long> expected;
        for (long n : step.frames) expected.push_back(n == kLost ? kLost : SeqOf(n));
        EXPECT_EQ(pull.frames, expected);
        EXPECT_EQ(pull.bytes, 320u * expected.size());
      }
    }
    EXPECT_EQ(buffer().GetJitterDepth(), 0);
  }
}

// ---- Depth bands -----------------------------------------------------------------------------

TEST_F(BufferTest, FirstPullByDepthAtTargetOne) {
  struct Row {
    int depth;
    std::vector<long> frames;
    std::int32_t read_after;
  };
  const Row rows[] = {
      {3, {10}, 11},
      {4, {10}, 11},
      {5, {10}, 11},                      // T + 4: a burst of one
      {6, {10, 11}, 12},
      {7, {10}, 11},                      // 3 above T + 3 gives 3 - 2
      {8, {10, 11}, 12},
      {9, {10, 11, 12}, 13},
      {10, {10, 11, 12, 13}, 14},
      {11, {10, 11, 12, 13, 14}, 15},     // U = 11: no drop yet
      {12, {12, 13, 14, 15, 16}, 17},     // drop 1, clear 2
      {13, {13, 14, 15, 16, 17}, 18},     // drop 2, clear 3
      {40, {40, 41, 42, 43, 44}, 45},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "depth " << row.depth);
    Fresh();
    for (long n = 10; n < 10 + row.depth; ++n) {
      clock_.AdvanceMs(20);
      ASSERT_EQ(Put(n), 0);
    }
    ASSERT_EQ(Depth(), row.depth);
    const Pull pull = Get();
    EXPECT_EQ(pull.status, 0);
    EXPECT_EQ(pull.frames, row.frames);
    EXPECT_EQ(buffer().GetReadPos(), row.read_after);
  }
}

TEST_F(BufferTest, DelayGivesTargetAndUpperDepth) {
  struct Row {
    int late_ms;
    std::int32_t jitter;
    std::int32_t target;
    std::int32_t upper;
  };
  const Row rows[] = {
      {0, 0, 1, 11},      {14, 0, 1, 11},     {15, 1, 1, 11},       {100, 5, 5, 15},
      {700, 35, 35, 45},  {720, 36, 36, 66},  {40000, 2000, 1000, 1030},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.late_ms << " ms late");
    Fresh();
    MeasureOnce(row.late_ms);
    EXPECT_EQ(buffer().GetJitterDepth(), row.jitter);
    EXPECT_EQ(buffer().TargetDepth(), row.target);
    EXPECT_EQ(buffer().UpperDepth(), row.upper);
    // A new voice path keeps what was measured.
    buffer().Reset();
    EXPECT_EQ(buffer().TargetDepth(), row.target);
  }
}

TEST_F(BufferTest, NoDelaySampleBeforeTheFirstReference) {
  // Until a multiple of 100 has arrived while playing, lateness is not measured.
  for (long n = 10; n < 90; ++n) {
    clock_.AdvanceMs(n == 50 ? 3000 : 20);
    ASSERT_EQ(Put(n), 0);
  }
  EXPECT_EQ(buffer().GetJitterDepth(), 0);
  EXPECT_EQ(buffer().GetStoredCount(), 80u);
}

TEST_F(BufferTest, AnEarlyFrameMovesItsReferenceEarlier) {
  for (long n = 95; n <= 100; ++n) {
    clock_.AdvanceMs(20);
    ASSERT_EQ(Put(n), 0);
  }
  clock_.AdvanceMs(20);
  ASSERT_EQ(Put(101), 0);  // on time
  clock_.AdvanceMs(1);
  ASSERT_EQ(Put(102), 0);  // 19 ms early: the reference moves 19 ms earlier
  EXPECT_EQ(buffer().GetJitterDepth(), 0);
  clock_.AdvanceMs(39);
  ASSERT_EQ(Put(103), 0);  // on the old timeline, now 19 ms late
  EXPECT_EQ(buffer().GetJitterDepth(), 1);
}

TEST_F(BufferTest, BurstsOfOneToEightWithTheLostMarker) {
  // Measured delay 40 frames: T = 40, U = 70, so depths 44 to 70 play in bursts.
  struct Row {
    int depth;
    long hole;  // a frame never sent, or 0
    std::vector<long> frames;
  };
  const Row rows[] = {
      {44, 0, {95}},
      {45, 0, {95, 96}},
      {46, 0, {95}},
      {47, 0, {95, 96}},
      {48, 0, {95, 96, 97}},
      {49, 0, {95, 96, 97, 98}},
      {50, 0, {95, 96, 97, 98, 99}},
      {51, 0, {95, 96, 97, 98, 99, 100}},
      {52, 0, {95, 96, 97, 98, 99, 100, 101}},
      {53, 0, {95, 96, 97, 98, 99, 100, 101, 102}},
      {53, 102, {95, 96, 97, 98, 99, 100, 101, kLost}},
      {60, 0, {95, 96, 97, 98, 99, 100, 101, 102}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "depth " << row.depth << " hole " << row.hole);
    Fresh();
    MeasureOnce(800);
    for (long n = 102; n < 95 + row.depth; ++n) {
      clock_.AdvanceMs(20);
      if (n != row.hole) {
        ASSERT_EQ(Put(n), 0);
      }
    }
    ASSERT_EQ(buffer().GetJitterDepth(), 40);
    ASSERT_EQ(Depth(), row.depth);
    const Pull pull = Get();
    EXPECT_EQ(pull.status, 0);
    EXPECT_EQ(pull.frames, row.frames);
    EXPECT_EQ(buffer().GetReadPos(), 95 + static_cast<std::int32_t>(row.frames.size()));
  }
}

// ---- Voice paths -----------------------------------------------------------------------------

TEST_F(BufferTest, SecondVoicePathDropsTenFramesAndWaitsForAReference) {
  MeasureOnce(800);
  ASSERT_EQ(buffer().GetJitterDepth(), 40);
  buffer().Reset();
  EXPECT_FALSE(buffer().IsPlaying());
  EXPECT_EQ(buffer().GetReadPos(), -1);
  EXPECT_EQ(buffer().GetFramesHeld(), 0u);

  // The first ten frames of the new path are taken and thrown away.
  for (long n = 7080; n < 7090; ++n) {
    clock_.AdvanceMs(20);
    EXPECT_EQ(Put(n), 0);
    EXPECT_EQ(buffer().GetReadPos(), -1);
    EXPECT_EQ(Get().status, 601);
  }
  EXPECT_EQ(buffer().GetFramesHeld(), 0u);
  clock_.AdvanceMs(20);
  ASSERT_EQ(Put(7090), 0);
  EXPECT_EQ(buffer().GetReadPos(), 7090);

  // The target is still 40: playing begins when a frame finds a depth of 41.
  for (long n = 7091; n <= 7130; ++n) {
    clock_.AdvanceMs(20);
    ASSERT_EQ(Put(n), 0);
  }
  EXPECT_FALSE(buffer().IsPlaying());
  clock_.AdvanceMs(20);
  ASSERT_EQ(Put(7131), 0);
  EXPECT_TRUE(buffer().IsPlaying());

  // 7100 came before playing, so there is no reference yet: a 2 s stall is not measured.
  for (long n = 7132; n < 7200; ++n) {
    clock_.AdvanceMs(n == 7150 ? 2000 : 20);
    ASSERT_EQ(Put(n), 0);
  }
  EXPECT_EQ(buffer().GetJitterDepth(), 40);

  clock_.AdvanceMs(20);
  ASSERT_EQ(Put(7200), 0);  // a reference at last
  clock_.AdvanceMs(20 + 1000);
  ASSERT_EQ(Put(7201), 0);
  EXPECT_EQ(buffer().GetJitterDepth(), 50);
}

// ---- The wrap of the sequence number ---------------------------------------------------------

TEST_F(BufferTest, NumbersPastTheWrapAreNewWhenTheirTimestampIsAhead) {
  for (long n = 65530; n <= 65532; ++n) {
    clock_.AdvanceMs(20);
    ASSERT_EQ(Put(n), 0);
  }
  ASSERT_EQ(buffer().GetReadPos(), 65530);
  clock_.AdvanceMs(20);
  EXPECT_EQ(Put(65539), 0);  // sequence number 3, timestamp ahead
  EXPECT_EQ(buffer().GetNewest(), 3);
  EXPECT_EQ(Depth(), 10);    // 65530 .. 65535 and 0 .. 3
  // Sequence number 2 with a timestamp behind the frame that is due is late.
  EXPECT_EQ(Put(2, TsOf(65530) - 160), 1);
}

// ---- A jittery stream, end to end --------------------------------------------------------------

TEST_F(BufferTest, JitteryStreamDeliversEveryAcceptedFrameOnceInOrder) {
  // 40,000 frames (13 minutes, through one wrap) sent every 20 ms and delayed 0 to 100 ms
  // at random, so some overtake others; the host pulls every 20 ms, 10 ms out of phase.
  constexpr long kFrames = 40000;
  constexpr long kFirst = 40000;  // the wrap comes at frame 25,536
  std::mt19937 random(99);
  std::uniform_int_distribution<int> delay_ms(0, 100);
  std::multimap<std::int64_t, long> arrivals;  // time -> stream position
  for (long i = 0; i < kFrames; ++i) arrivals.emplace(i * 20 + delay_ms(random), kFirst + i);

  std::vector<long> accepted;
  std::vector<long> delivered;  // unwrapped
  long concealed = 0;
  long last = -1;
  std::int64_t now = 0;
  auto unwrap = [&](long seq) {
    // Near the last delivered frame, in the stream's own numbering.
    long base = last < 0 ? kFirst : last;
    long candidate = base - base % 65536 + seq;
    if (candidate < base - 32768) candidate += 65536;
    if (candidate > base + 32768) candidate -= 65536;
    return candidate;
  };
  auto it = arrivals.begin();
  for (std::int64_t pull_at = 10; pull_at < kFrames * 20 + 400; pull_at += 20) {
    for (; it != arrivals.end() && it->first <= pull_at; ++it) {
      clock_.AdvanceMs(it->first - now);
      now = it->first;
      if (Put(it->second) == 0) accepted.push_back(it->second);
    }
    clock_.AdvanceMs(pull_at - now);
    now = pull_at;
    const Pull pull = Get();
    if (pull.status == 600) ++concealed;
    for (long seq : pull.frames) {
      if (seq == kLost) {
        ++concealed;
        continue;
      }
      const long n = unwrap(seq);
      ASSERT_GT(n, last) << "out of order";
      last = n;
      delivered.push_back(n);
    }
  }
  std::sort(accepted.begin(), accepted.end());
  EXPECT_EQ(delivered, accepted);  // nothing accepted is lost, nothing comes twice
  EXPECT_GT(accepted.size(), static_cast<std::size_t>(kFrames * 99 / 100));
  EXPECT_LE(buffer().GetJitterDepth(), 5);
  EXPECT_GE(buffer().GetJitterDepth(), 3);
  EXPECT_EQ(buffer().GetFramesHeld(), 0u);
  buffer().Reset();
  EXPECT_EQ(buffer().GetFramesHeld(), 0u);
}

// ---- Bad input and misuse -----------------------------------------------------------------------

TEST_F(BufferTest, BadPutArgumentsAreRefusedWithoutAChange) {
  std::array<std::int16_t, 160> frame{};
  const std::uint32_t ts = 1000;
  const std::uint32_t good_size = 320;
  struct Row {
    const char* name;
    const std::int16_t* samples;
    std::int32_t seq;
    bool null_seq;
    std::uint32_t size;
    bool null_ts;
  };
  const Row rows[] = {
      {"negative number", frame.data(), -1, false, 320, false},
      {"number above 65,535", frame.data(), 65536, false, 320, false},
      {"size 0", frame.data(), 10, false, 0, false},
      {"size above a frame", frame.data(), 10, false, 321, false},
      {"no samples", nullptr, 10, false, 320, false},
      {"no number", frame.data(), 10, true, 320, false},
      {"no timestamp", frame.data(), 10, false, 320, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::uint32_t size = row.size;
    EXPECT_EQ(buffer().PutFrame(row.samples, row.null_seq ? nullptr : &row.seq,
                               row.null_ts ? nullptr : &ts, &size, nullptr),
              1);
    EXPECT_EQ(buffer().GetReadPos(), -1);
    EXPECT_EQ(buffer().GetStoredCount(), 0u);
  }
  const std::int32_t seq = 10;
  EXPECT_EQ(buffer().PutFrame(frame.data(), &seq, &ts, nullptr, nullptr), 1);
  std::uint32_t size_out = 0;
  frame.fill(10);
  EXPECT_EQ(buffer().PutFrame(frame.data(), &seq, &ts, &good_size, &size_out), 0);
  EXPECT_EQ(size_out, 320u);

  // A short frame is padded with silence and keeps its own size.
  frame.fill(777);
  const std::uint32_t short_size = 100;
  for (std::int32_t n = 11; n <= 12; ++n) {
    const std::uint32_t later = ts + static_cast<std::uint32_t>(n) * 160;
    ASSERT_EQ(buffer().PutFrame(frame.data(), &n, &later, &short_size), 0);
  }
  ASSERT_EQ(Get().frames, (std::vector<long>{10}));
  std::array<std::int16_t, 160> out{};
  std::uint32_t got = 0;
  ASSERT_EQ(buffer().GetFrames(out, &got), 0);
  EXPECT_EQ(got, 100u);
  EXPECT_EQ(out[49], 777);
  EXPECT_EQ(out[50], 0);
}

TEST_F(BufferTest, OutputRoomBoundsTheBurst) {
  for (long n = 10; n < 21; ++n) {  // depth 11: a burst of 5 is due
    clock_.AdvanceMs(20);
    ASSERT_EQ(Put(n), 0);
  }
  EXPECT_EQ(Get(100).status, CBuffer::kEmpty);  // not even one frame fits: nothing moves
  EXPECT_EQ(buffer().GetReadPos(), 10);
  const Pull pull = Get(3 * 160 + 10);
  EXPECT_EQ(pull.status, 0);
  EXPECT_EQ(pull.frames, (std::vector<long>{10, 11, 12}));
  EXPECT_EQ(buffer().GetReadPos(), 13);
  std::uint32_t size = 0;
  std::array<std::int16_t, 160> one{};
  EXPECT_EQ(buffer().GetFrames(one, nullptr), 0);  // no size wanted
  EXPECT_EQ(buffer().GetFrames(one, &size), 0);
  EXPECT_EQ(size, 320u);
}

TEST(Buffer, UseBeforeStartAndAfterShutdown) {
  FakeClock clock(FakeClock::Mode::kManual);
  CBuffer buffer(clock);
  std::array<std::int16_t, 160> frame{};
  const std::int32_t seq = 1;
  const std::uint32_t ts = 160;
  const std::uint32_t size = 320;
  std::array<std::int16_t, 1280> out{};
  std::uint32_t got = 9;
  EXPECT_EQ(buffer.PutFrame(frame.data(), &seq, &ts, &size), 1);
  EXPECT_EQ(buffer.GetFrames(out, &got), CBuffer::kNotPlaying);
  EXPECT_EQ(got, 0u);
  buffer.Reset();
  EXPECT_EQ(buffer.Start(), 0);
  EXPECT_EQ(buffer.PutFrame(frame.data(), &seq, &ts, &size), 0);
  EXPECT_EQ(buffer.Start(), 0);  // again: the table stays, its frames go
  EXPECT_EQ(buffer.GetFramesHeld(), 0u);
  EXPECT_EQ(buffer.PutFrame(frame.data(), &seq, &ts, &size), 0);
  EXPECT_EQ(buffer.Shutdown(), 0);
  EXPECT_EQ(buffer.Shutdown(), 0);
  EXPECT_EQ(buffer.GetFrameCapacity(), 0u);
  EXPECT_EQ(buffer.PutFrame(frame.data(), &seq, &ts, &size), 1);
  EXPECT_EQ(buffer.GetFrames(out, &got), CBuffer::kNotPlaying);
  EXPECT_EQ(buffer.ClearRange(-1, 5, false, false), 1);
  EXPECT_EQ(buffer.ClearRange(0, 65537, false, false), 1);
}

// ---- Threads and traces -------------------------------------------------------------------

TEST(Buffer, ThreeThreadsShareTheBuffer) {
  // The receive thread stores, the host thread pulls, the call processor resets; the
  // sanitizers watch. Real threads, but nothing here depends on how fast they run.
  auto buffer = std::make_unique<CBuffer>();
  ASSERT_EQ(buffer->Start(), 0);
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    std::array<std::int16_t, 160> frame{};
    for (std::uint32_t n = 0; n < 30000; ++n) {
      const std::int32_t seq = static_cast<std::int32_t>(n % 65536);
      const std::uint32_t ts = n * 160 + 160;
      const std::uint32_t size = 320;
      buffer->PutFrame(frame.data(), &seq, &ts, &size, nullptr, n * 20);
    }
    stop = true;
  });
  std::thread host([&] {
    std::array<std::int16_t, 1280> out{};
    std::uint32_t size = 0;
    while (!stop) buffer->GetFrames(out, &size);
  });
  std::thread control([&] {
    while (!stop) {
      buffer->Reset();
      std::this_thread::yield();
    }
  });
  receiver.join();
  host.join();
  control.join();
  buffer->Reset();
  EXPECT_EQ(buffer->GetFramesHeld(), 0u);
}

TEST(Buffer, TracesItsLife) {
  const std::string path = ::testing::TempDir() + "voice_buffer_trace.log";
  ASSERT_EQ(CTracer::Instance().Startup(path.c_str(), TRACE_ALL), 0);
  {
    CBuffer buffer;
    buffer.Start();
    buffer.Shutdown();
  }
  CTracer::Shutdown();
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  const std::string log = text.str();
  std::size_t at = 0;
  for (const char* line : {"[BUFFER] Module created", "[BUFFER] Module starting",
                           "[BUFFER] Module shutdown", "[BUFFER] Module destroyed"}) {
    const std::size_t found = log.find(line, at);
    ASSERT_NE(found, std::string::npos) << line;
    at = found;
  }
  // Shut down already: the destructor does not report a second shutdown.
  EXPECT_EQ(log.find("[BUFFER] Module shutdown", log.find("[BUFFER] Module shutdown") + 1),
            std::string::npos);
}

}  // namespace
}  // namespace deskline
