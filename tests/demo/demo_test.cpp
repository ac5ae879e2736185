// The demo call as a newcomer runs it, shortened: for each codec the phone registers, answers,
// talks, holds, resumes and hangs up, and what both sides counted and recorded is checked; once
// more with the phone's sound through the library's Audio module on the virtual sound card.
// Real processes and real time: about seven seconds a call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "testing/temp_dir.h"
#include "tools/rtppeer/peer_analysis.h"
#include "tools/rtppeer/peer_sound.h"
#include "voice/wave.h"

namespace deskline {
namespace {

using Summary = std::map<std::string, std::string>;

Summary ReadSummary(const std::filesystem::path& path) {
  Summary summary;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const std::size_t eq = line.find('=');
    if (eq != std::string::npos) summary[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return summary;
}

long Count(const Summary& summary, const std::string& key) {
  const auto it = summary.find(key);
  return it == summary.end() || it->second.empty() ? -1 : std::strtol(it->second.c_str(), nullptr, 10);
}

struct DemoRun {
  int status = -1;
  Summary phone;
  Summary pbx;
  std::vector<std::int16_t> phone_heard;  // what the phone played: the PBX's tone
  std::vector<std::int16_t> pbx_heard;    // what the PBX decoded: the phone's talker
};

DemoRun RunDemo(const testing::TempDir& dir, const std::string& codec, int loss_percent,
               const std::string& more = "") {
  const std::string command = std::string(DESKLINE_DEMO_SCRIPT) + " --no-build --quiet --build " +
                              DESKLINE_BUILD_DIR + " --out " + dir.path().string() + " --codec " + codec +
                              " --talk 3 --loss " + std::to_string(loss_percent) + more + " > " +
                              (dir.path() / "demo.out").string() + " 2>&1";
  DemoRun run;
  run.status = std::system(command.c_str());
  run.phone = ReadSummary(dir.path() / "phone-summary.txt");
  run.pbx = ReadSummary(dir.path() / "pbx-summary.txt");
  run.phone_heard = sim::ReadWavAs8kMono((dir.path() / "phone-heard.wav").string()).samples;
  run.pbx_heard = sim::ReadWavAs8kMono((dir.path() / "pbx-heard.wav").string()).samples;
  return run;
}

std::string Logs(const testing::TempDir& dir) {
  std::string text;
  for (const char* name : {"demo.out", "phone.log", "pbx.log", "sound/playback.log"}) {
    std::ifstream in(dir.path() / name);
    text += std::string("--- ") + name + "\n" + std::string(std::istreambuf_iterator<char>(in), {});
  }
  return text;
}

// Levels of the 20 ms frames that carry sound; silence (hold, prebuffering) left out.
std::vector<double> SoundingFrameLevels(const std::vector<std::int16_t>& samples) {
  std::vector<double> levels;
  for (std::size_t at = 0; at + 160 <= samples.size(); at += 160) {
    const double level = sim::RmsDbfs(std::span(samples).subspan(at, 160));
    if (level > -45) levels.push_back(level);
  }
  return levels;
}

double Median(std::vector<double> values) {
  if (values.empty()) return -120;
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// The longest stretch of frames that all sound, as samples: the tone between two silences.
std::vector<std::int16_t> LongestSoundingStretch(const std::vector<std::int16_t>& samples) {
  std::size_t best_at = 0, best_len = 0, run_at = 0, run_len = 0;
  for (std::size_t at = 0; at + 160 <= samples.size(); at += 160) {
    if (sim::RmsDbfs(std::span(samples).subspan(at, 160)) > -45) {
      if (run_len == 0) run_at = at;
      run_len += 160;
      if (run_len > best_len) best_at = run_at, best_len = run_len;
    } else {
      run_len = 0;
    }
  }
  return {samples.begin() + static_cast<std::ptrdiff_t>(best_at),
          samples.begin() + static_cast<std::ptrdiff_t>(best_at + best_len)};
}

struct CodecCase {
  const char* codec;
  const char* announced;   // the codec the phone saw announced
  double tone_level_dbfs;  // what the PBX's -12 dBFS tone should measure at the phone
  double level_tolerance_db;
};

void PrintTo(const CodecCase& c, std::ostream* out) { *out << c.codec; }

class DemoCall : public ::testing::TestWithParam<CodecCase> {};

TEST_P(DemoCall, CarriesBothWaysThroughHoldAndHangUp) {
  const CodecCase c = GetParam();
  testing::TempDir dir;
  const DemoRun run = RunDemo(dir, c.codec, 0);
  ASSERT_EQ(run.status, 0) << Logs(dir);

  // Both sides finished their scripts; the phone registered and heard the codec.
  EXPECT_EQ(run.phone.at("initialize"), "0");
  EXPECT_EQ(run.phone.at("codec"), c.announced);
  EXPECT_EQ(run.pbx.at("script"), "ok");
  EXPECT_EQ(run.pbx.at("codec"), c.codec);

  // Three seconds of talk and one of hold at 20 ms: about 200 frames sent; everything the
  // phone sent while not held reached the PBX, in order.
  const long sent = Count(run.phone, "frames_sent");
  EXPECT_GT(sent, 150) << Logs(dir);
  EXPECT_GT(Count(run.pbx, "media_received"), 100);
  EXPECT_LE(Count(run.pbx, "media_received"), sent);
  EXPECT_EQ(Count(run.pbx, "media_lost"), 0);
  // Without loss, what the phone played is nearly all real frames.
  EXPECT_GT(Count(run.phone, "frames_received"), 100);
  EXPECT_LT(Count(run.phone, "frames_concealed"), Count(run.phone, "frames_received") / 5);
  EXPECT_GE(Count(run.phone, "buffer_depth_frames"), 1);

  if (std::string(c.codec) == "g722") {
    // The payload type is signalled but not coded: the phone plays the fixed pattern.
    const std::vector<std::int16_t> stretch = LongestSoundingStretch(run.phone_heard);
    ASSERT_GE(stretch.size(), 800u);
    const std::size_t mid = stretch.size() / 2;
    std::vector<std::int16_t> period(stretch.begin() + mid, stretch.begin() + mid + 20);
    for (std::size_t i = mid; i < mid + 400; ++i) ASSERT_EQ(stretch[i], stretch[i + 20]) << i;
    std::vector<std::int16_t> pattern(kG722Pattern.begin(), kG722Pattern.end());
    std::sort(period.begin(), period.end());
    std::sort(pattern.begin(), pattern.end());
    EXPECT_EQ(period, pattern);
    return;
  }
  // The PBX's 1000 Hz tone, at its level.
  const std::vector<std::int16_t> tone = LongestSoundingStretch(run.phone_heard);
  ASSERT_GE(tone.size(), 4000u) << "at least half a second of tone";
  EXPECT_NEAR(sim::DominantFrequency(tone), 1000.0, 30.0);
  EXPECT_NEAR(Median(SoundingFrameLevels(run.phone_heard)), c.tone_level_dbfs, c.level_tolerance_db);
  // The phone's talker: syllables with energy, and pauses between them.
  const std::vector<double> talk = SoundingFrameLevels(run.pbx_heard);
  EXPECT_GT(talk.size(), 40u) << "voiced frames";
  EXPECT_LT(talk.size(), run.pbx_heard.size() / 160) << "some pauses";
  EXPECT_GT(Median(talk), -35.0);
}

INSTANTIATE_TEST_SUITE_P(EachCodec, DemoCall,
                         ::testing::Values(CodecCase{"pcmu", "G.711", -12, 1.5},
                                           CodecCase{"pcma", "G.711", -12, 1.5},
                                           CodecCase{"g729", "G.729", -12, 4},
                                           CodecCase{"g722", "G.722", 0, 0}),
                         [](const auto& test) { return std::string(test.param.codec); });

// With a tenth of the PBX's packets lost on purpose, the phone conceals about as many frames.
// Concealment also covers the odd frame held back to rebuild depth, so the bound is loose.
TEST(DemoCallLossy, ConcealsAboutTheFramesLost) {
  testing::TempDir dir;
  const DemoRun run = RunDemo(dir, "pcmu", 10);
  ASSERT_EQ(run.status, 0) << Logs(dir);
  const long dropped = Count(run.pbx, "media_dropped");
  const long concealed = Count(run.phone, "frames_concealed");
  EXPECT_GT(dropped, 10) << Logs(dir);
  EXPECT_NEAR(static_cast<double>(concealed), static_cast<double>(dropped),
              std::max(5.0, 0.3 * static_cast<double>(dropped)));
  // The tone still comes through.
  EXPECT_NEAR(sim::DominantFrequency(run.phone_heard), 1000.0, 30.0);
}

// One output stream of the virtual sound card, as its playback log tells it.
struct Played {
  long sequence = 0;
  long bytes = 0;
  std::vector<std::int16_t> samples;  // its recording
};

std::vector<Played> ReadPlayed(const std::filesystem::path& folder) {
  std::vector<Played> streams;
  std::ifstream in(folder / "playback.log");
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
      fields.push_back(line.substr(start, tab - start));
    }
    fields.push_back(line.substr(start));
    if (fields.size() != 9) continue;
    // Every stream of the phone is 8 kHz mono 16-bit: the voice and the standard sound set.
    EXPECT_EQ(fields[2] + " " + fields[3] + " " + fields[4], "8000 1 16") << line;
    streams.push_back(Played{std::strtol(fields[0].c_str(), nullptr, 10), std::strtol(fields[6].c_str(), nullptr, 10),
                             sim::ReadWavAs8kMono((folder / fields[8]).string()).samples});
  }
  std::sort(streams.begin(), streams.end(), [](const Played& a, const Played& b) { return a.sequence < b.sequence; });
  return streams;
}

// The phone rings for a second, answers, and its speaker and ringer sound through the Audio
// module: the ring is the ring melody itself, the speaker plays what the engine delivered,
// paced by the device, and that is the PBX's tone.
TEST(DemoCallWithSound, RingsAndTalksThroughTheVirtualSoundCard) {
  testing::TempDir dir;
  const DemoRun run = RunDemo(dir, "pcmu", 0, " --audio virtual");
  ASSERT_EQ(run.status, 0) << Logs(dir);
  EXPECT_EQ(run.phone.at("audio"), "virtual");
  EXPECT_EQ(run.phone.at("ring_heard"), "yes");
  EXPECT_EQ(Count(run.phone, "ring_plays"), 1);
  EXPECT_EQ(Count(run.phone, "ring_stops"), 1) << "stopped on answer";

  // The voice output opened first, at the sound card's start; the ring's output at the ring.
  const std::vector<Played> played = ReadPlayed(dir.path() / "sound");
  ASSERT_EQ(played.size(), 2u) << Logs(dir);
  const Played& voice = played[0];
  const Played& ring = played[1];
  // The ring: the first second of the ring melody, sample for sample (ring level 0 leaves it
  // as it is), cut off when the phone answered.
  const std::vector<std::int16_t> melody =
      sim::ReadWavAs8kMono(std::string(DESKLINE_BUILD_DIR) + "/media/Tone_1.wav").samples;
  ASSERT_GT(melody.size(), 8000u);
  EXPECT_GT(ring.samples.size(), 6400u) << "rang for most of a second";
  EXPECT_LT(ring.samples.size(), 16000u) << "stopped when answered";
  const std::size_t compared = std::min(ring.samples.size(), melody.size());
  EXPECT_TRUE(std::equal(ring.samples.begin(), ring.samples.begin() + static_cast<std::ptrdiff_t>(compared),
                         melody.begin()));

  // The speaker played every frame the phone handed it (received, concealed, or silence
  // while nothing was due) but the last few, still queued when the sound card closed.
  const long handed = Count(run.phone, "frames_received") + Count(run.phone, "frames_concealed") +
                      Count(run.phone, "speaker_silent_frames");
  EXPECT_EQ(Count(run.phone, "speaker_frames"), handed);
  EXPECT_EQ(voice.bytes / 320, Count(run.phone, "played_voice_frames"));
  EXPECT_LE(Count(run.phone, "played_voice_frames"), handed);
  EXPECT_GE(Count(run.phone, "played_voice_frames"), handed - 5);
  EXPECT_GT(Count(run.phone, "frames_received"), 100);

  // What the speaker played is the PBX's 1000 Hz tone at its level.
  const std::vector<std::int16_t> tone = LongestSoundingStretch(voice.samples);
  ASSERT_GE(tone.size(), 4000u) << "at least half a second of tone";
  EXPECT_NEAR(sim::DominantFrequency(tone), 1000.0, 30.0);
  EXPECT_NEAR(Median(SoundingFrameLevels(voice.samples)), -12.0, 1.5);
  // And the phone's talker reached the PBX through the virtual microphone.
  const std::vector<double> talk = SoundingFrameLevels(run.pbx_heard);
  EXPECT_GT(talk.size(), 40u) << "voiced frames";
  EXPECT_GT(Median(talk), -35.0);
  EXPECT_GT(Count(run.phone, "frames_sent"), 100);
}

}  // namespace
}  // namespace deskline
