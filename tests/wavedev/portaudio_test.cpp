// The PortAudio backend against real PortAudio streams. PortAudio reads ALSA's configuration
// once per process and prints nothing only if the backend silences ALSA and JACK before that,
// so each case runs in a child process of its own (this program again, one PortAudioChild
// case), with an ALSA configuration written by the test: a "file" device over "null", which
// plays into a file and records from one. The parent checks the child's result and that its
// stderr stayed empty. ALSA's null device is not paced in real time: nothing here measures
// time, and waits are only guards against a hang.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/wave/wave_device.h"
#include "platform/wave/wave_portaudio.h"
#include "testing/eventually.h"
#include "testing/temp_dir.h"

extern char** environ;

namespace deskline::platform {
namespace {

using namespace std::chrono_literals;

constexpr const char* kChildVariable = "DESKLINE_PORTAUDIO_CHILD";
constexpr const char* kDirVariable = "DESKLINE_PORTAUDIO_DIR";

// 30 UTF-16 units, then a character of two: the cut at 31 units must drop it whole.
constexpr const char* kLongName = "Ünïcødé device with long names🎧 and more";
const std::u16string kLongNameCut = u"Ünïcødé device with long names";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The ALSA configuration of a test: the whole of it, so that the machine's cards and the
// standard definitions are not probed. `sink` is where the test device plays ("/dev/full"
// makes it fail at its first write, as an unplugged card does).
std::string AlsaConfig(const std::string& dir, const std::string& sink, bool extra = false) {
  std::string text = "pcm.null { type null }\n";
  text += "pcm.!default { type plug slave.pcm \"deskline_test\" }\n";
  text += "pcm.deskline_test { type file slave.pcm \"null\" file \"" + sink + "\" infile \"" +
          dir + "/mic.raw\" format \"raw\" }\n";
  text += std::string("pcm.\"") + kLongName + "\" { type null }\n";
  if (extra) text += "pcm.deskline_extra { type null }\n";
  return text;
}

// Bytes with neither 0x00 nor 0x80, so that silence of either kind never matches them.
std::vector<char> Pattern(std::size_t size, int seed) {
  std::vector<char> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    int value = static_cast<int>((i * 7 + static_cast<std::size_t>(seed) * 13) % 250) + 1;
    if (value == 0x80) value = 0x81;
    bytes[i] = static_cast<char>(value);
  }
  return bytes;
}

// --- The parent's side

struct ChildRun {
  int status = -1;
  std::string out;
  std::string err;
};

ChildRun RunChild(const std::string& test, const testing::TempDir& dir, bool own_config) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (entry.rfind("ALSA_CONFIG_PATH=", 0) == 0 || entry.rfind("JACK_", 0) == 0 ||
        entry.rfind(kChildVariable, 0) == 0 || entry.rfind(kDirVariable, 0) == 0) {
      continue;
    }
    env.push_back(entry);
  }
  env.push_back(std::string(kChildVariable) + "=1");
  env.push_back(std::string(kDirVariable) + "=" + dir.path().string());
  env.push_back("JACK_NO_START_SERVER=1");  // never start a JACK server from a test
  if (own_config) {
    env.push_back("ALSA_CONFIG_PATH=" + dir.File("asound.conf"));
    env.push_back("JACK_DEFAULT_SERVER=deskline-test-no-server");
  }
  std::vector<char*> envp;
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);

  std::string program = "/proc/self/exe";
  std::string filter = "--gtest_filter=PortAudioChild." + test;
  char* argv[] = {program.data(), filter.data(), nullptr};

  const std::string out_path = dir.File("child.out");
  const std::string err_path = dir.File("child.err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t pid = 0;
  ChildRun run;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data()) == 0) {
    int status = 0;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.status = WEXITSTATUS(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  run.out = ReadFile(out_path);
  run.err = ReadFile(err_path);
  return run;
}

// What PortAudio 19.6 itself writes on stderr when a stream fails: a trace of its checks,
// which it offers no way to redirect.
bool OnlyPortAudioChecks(const std::string& err) {
  std::istringstream lines(err);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("Expression '", 0) != 0 || line.find("pa_linux_alsa.c") == std::string::npos) {
      return false;
    }
  }
  return true;
}

// Runs one child case; it must pass, run (not skip), and leave stderr empty (or, for a device
// that fails, hold nothing but PortAudio's own checks: nothing from ALSA or JACK).
void ExpectChildPasses(const std::string& test, const std::string& sink = "played.raw",
                       bool own_config = true) {
  testing::TempDir dir;
  const std::string sink_path = sink.front() == '/' ? sink : dir.File(sink);
  WriteFile(dir.File("asound.conf"), AlsaConfig(dir.path().string(), sink_path));
  const auto mic = Pattern(960, 3);
  WriteFile(dir.File("mic.raw"), std::string(mic.begin(), mic.end()));
  const ChildRun run = RunChild(test, dir, own_config);
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_NE(run.out.find("[  PASSED  ] 1 test"), std::string::npos) << run.out;
  if (sink == "/dev/full") {
    EXPECT_TRUE(OnlyPortAudioChecks(run.err)) << run.err;
  } else {
    EXPECT_EQ(run.err, "") << "stderr of the child";
  }
}

TEST(PortAudio, NoDeviceListsNothingAndOpensNothing) { ExpectChildPasses("NoDevice"); }
TEST(PortAudio, MachineConfigurationPrintsNothing) {
  ExpectChildPasses("MachineConfiguration", "played.raw", false);
}
TEST(PortAudio, DevicesAreListedAndNamed) { ExpectChildPasses("Names"); }
TEST(PortAudio, RelistsOnlyWhileNothingIsOpen) { ExpectChildPasses("Relist"); }
TEST(PortAudio, RefusesBadRequests) { ExpectChildPasses("BadRequests"); }
TEST(PortAudio, PlaysHeadersInOrder) { ExpectChildPasses("Play"); }
TEST(PortAudio, PlaysAgainAfterASilence) { ExpectChildPasses("PlayAfterSilence"); }
TEST(PortAudio, PlaysEightBitWithItsSilence) { ExpectChildPasses("PlayEightBit"); }
TEST(PortAudio, Records) { ExpectChildPasses("Record"); }
TEST(PortAudio, DeviceThatFailsIsGone) { ExpectChildPasses("Gone", "/dev/full"); }

// --- The child's side

class ChildTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* child = std::getenv(kChildVariable);
    if (child == nullptr || std::string(child) != "1") GTEST_SKIP() << "runs in a child only";
    dir_ = std::getenv(kDirVariable);
  }
  std::string File(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

// What the libraries and the backend reported, through the sink.
struct SinkLines {
  std::mutex lock;
  std::vector<std::pair<bool, std::string>> lines;

  static SinkLines& Get() {
    static SinkLines lines;
    return lines;
  }
  static void Sink(bool error, const char* text) {
    std::lock_guard guard(Get().lock);
    Get().lines.emplace_back(error, text);
  }
  int Errors() {
    std::lock_guard guard(lock);
    return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                          [](const auto& line) { return line.first; }));
  }
  bool Has(const std::string& part) {
    std::lock_guard guard(lock);
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
      return line.second.find(part) != std::string::npos;
    });
  }
  std::string All() {
    std::lock_guard guard(lock);
    std::string text;
    for (const auto& [error, line] : lines) text += (error ? "E " : "D ") + line + "\n";
    return text;
  }
};

class Recorder final : public WaveListener {
 public:
  struct Event {
    WaveMessage message;
    WaveHeader* header;
    std::uint32_t flags;
    std::string bytes;  // kData: what the header held
  };

  void OnWaveMessage(WaveMessage message, WaveHeader* header) override {
    std::lock_guard guard(lock_);
    Event event{message, header, header ? header->flags.load() : 0u, {}};
    if (message == WaveMessage::kData && header != nullptr) {
      event.bytes.assign(header->data, header->bytes_recorded);
    }
    events_.push_back(std::move(event));
    changed_.notify_all();
  }

  // A guard against a hang, not a timing: the device is not paced.
  bool WaitFor(WaveMessage message, std::size_t count) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, 5s, [&] { return CountLocked(message) >= count; });
  }
  std::vector<Event> Events() {
    std::lock_guard guard(lock_);
    return events_;
  }
  std::size_t Count(WaveMessage message) {
    std::lock_guard guard(lock_);
    return CountLocked(message);
  }

 private:
  std::size_t CountLocked(WaveMessage message) const {
    return static_cast<std::size_t>(std::count_if(
        events_.begin(), events_.end(), [&](const Event& e) { return e.message == message; }));
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

// Headers with their buffers.
struct Buffers {
  Buffers(std::size_t count, std::size_t size)
      : storage(count, std::vector<char>(size)), headers(count) {
    for (std::size_t i = 0; i < count; ++i) {
      headers[i].data = storage[i].data();
      headers[i].buffer_length = static_cast<std::uint32_t>(size);
    }
  }
  std::vector<std::vector<char>> storage;
  std::vector<WaveHeader> headers;
};

using PortAudioChild = ChildTest;

TEST_F(PortAudioChild, NoDevice) {
  // A card that is not there. (PortAudio 19.6 asserts on a configuration with no PCM at all
  // but the ones it ignores, which a real system never has.)
  WriteFile(File("asound.conf"), "pcm.null { type null }\npcm.absent { type hw card 7 }\n");
  SetWaveLogSink(&SinkLines::Sink);
  Recorder recorder;
  for (int round = 0; round < 2; ++round) {  // the Audio module makes and drops it many times
    auto system = MakePortAudioWaveSystem();
    ASSERT_NE(system, nullptr);
    EXPECT_TRUE(system->InputDevices().empty());
    EXPECT_TRUE(system->OutputDevices().empty());
    std::unique_ptr<WaveOutStream> out;
    std::unique_ptr<WaveInStream> in;
    EXPECT_EQ(system->OpenOut(kWaveMapper, kVoiceFormat, &recorder, &out), kWaveBadDeviceId);
    EXPECT_EQ(system->OpenIn(kWaveMapper, kVoiceFormat, &recorder, &in), kWaveBadDeviceId);
    EXPECT_EQ(system->OpenOut(0, kVoiceFormat, &recorder, &out), kWaveBadDeviceId);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(in, nullptr);
  }
  EXPECT_TRUE(recorder.Events().empty());
  EXPECT_EQ(SinkLines::Get().Errors(), 0) << SinkLines::Get().All();
}

TEST_F(PortAudioChild, MachineConfiguration) {
  // Whatever this machine has (on a server: no card, and ALSA and JACK complain at length),
  // what they say while devices are probed is chatter, and none of it reaches stderr.
  SetWaveLogSink(&SinkLines::Sink);
  for (int round = 0; round < 2; ++round) {
    auto system = MakePortAudioWaveSystem();
    const auto inputs = system->InputDevices();
    const auto outputs = system->OutputDevices();
    for (const auto& name : inputs) EXPECT_LE(name.size(), kMaxWaveDeviceName);
    for (const auto& name : outputs) EXPECT_LE(name.size(), kMaxWaveDeviceName);
  }
  EXPECT_EQ(SinkLines::Get().Errors(), 0) << SinkLines::Get().All();
}

TEST_F(PortAudioChild, Names) {
  auto system = MakePortAudioWaveSystem();
  const std::vector<std::u16string> expected = {u"deskline_test", kLongNameCut, u"default"};
  EXPECT_EQ(system->OutputDevices(), expected);
  EXPECT_EQ(system->InputDevices(), expected);

  // A name that is not UTF-8: a cut sequence, an overlong one, one cut by the end; one
  // replacement per maximal ill-formed part (0xC0 can start nothing, so 0xC0 0xAF gives two).
  WriteFile(File("asound.conf"), AlsaConfig(dir_, File("played.raw")) +
                                     "pcm.\"bad\xC3(\xC0\xAF|\xF0\x9F\x8E\" { type null }\n");
  const auto names = system->OutputDevices();
  EXPECT_NE(std::find(names.begin(), names.end(), u"bad\uFFFD(\uFFFD\uFFFD|\uFFFD"), names.end());
}

TEST_F(PortAudioChild, Relist) {
  auto system = MakePortAudioWaveSystem();
  ASSERT_EQ(system->OutputDevices().size(), 3u);
  WriteFile(File("asound.conf"), AlsaConfig(dir_, File("played.raw"), true));
  ASSERT_EQ(system->OutputDevices().size(), 4u);  // nothing open: a fresh list

  Recorder recorder;
  std::unique_ptr<WaveOutStream> out;
  ASSERT_EQ(system->OpenOut(0, kVoiceFormat, &recorder, &out), kWaveOk);
  WriteFile(File("asound.conf"), AlsaConfig(dir_, File("played.raw"), false));
  EXPECT_EQ(system->OutputDevices().size(), 4u);  // a stream is open: the list stays
  // and the ids still name what they named when listed
  std::unique_ptr<WaveOutStream> extra;
  ASSERT_EQ(system->OpenOut(3, kVoiceFormat, &recorder, &extra), kWaveOk);
  EXPECT_EQ(extra->Close(), kWaveOk);
  EXPECT_EQ(out->Close(), kWaveOk);
  EXPECT_EQ(system->OutputDevices().size(), 3u);
}

TEST_F(PortAudioChild, BadRequests) {
  SetWaveLogSink(&SinkLines::Sink);
  auto system = MakePortAudioWaveSystem();
  Recorder recorder;
  std::unique_ptr<WaveOutStream> out;
  std::unique_ptr<WaveInStream> in;

  EXPECT_EQ(system->OpenOut(3, kVoiceFormat, &recorder, &out), kWaveBadDeviceId);
  EXPECT_EQ(system->OpenIn(-2, kVoiceFormat, &recorder, &in), kWaveBadDeviceId);
  EXPECT_EQ(system->OpenOut(0, kVoiceFormat, nullptr, &out), kWaveInvalidParam);
  EXPECT_EQ(system->OpenOut(0, kVoiceFormat, &recorder, nullptr), kWaveInvalidParam);

  WaveFormat format = kVoiceFormat;
  format.format_tag = 3;  // float
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  format = kVoiceFormat;
  format.bits_per_sample = 24;
  format.block_align = 3;
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  format = kVoiceFormat;
  format.block_align = 4;  // does not match one 16-bit channel
  EXPECT_EQ(system->OpenIn(0, format, &recorder, &in), kWaveBadFormat);
  format = kVoiceFormat;
  format.channels = 0;
  format.block_align = 0;
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  format = kVoiceFormat;
  format.samples_per_sec = 0;
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  format = kVoiceFormat;
  format.avg_bytes_per_sec = 8000;  // says 8-bit
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  format = kVoiceFormat;
  format.channels = 200;  // well formed, but more than the device has
  format.block_align = 400;
  format.avg_bytes_per_sec = 8000 * 400;
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveBadFormat);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(in, nullptr);
  EXPECT_TRUE(recorder.Events().empty());
  EXPECT_TRUE(SinkLines::Get().Has("refuses")) << SinkLines::Get().All();

  // Headers: an input that is not started holds what it is lent.
  ASSERT_EQ(system->OpenIn(0, kVoiceFormat, &recorder, &in), kWaveOk);
  Buffers buffers(1, 320);
  WaveHeader& header = buffers.headers[0];
  WaveHeader empty;
  EXPECT_EQ(in->Prepare(nullptr), kWaveInvalidParam);
  EXPECT_EQ(in->Prepare(&empty), kWaveInvalidParam);
  empty.data = buffers.storage[0].data();  // zero length
  EXPECT_EQ(in->Prepare(&empty), kWaveInvalidParam);
  EXPECT_EQ(in->AddBuffer(nullptr), kWaveInvalidParam);
  EXPECT_EQ(in->AddBuffer(&header), kWaveInvalidParam);  // not prepared
  ASSERT_EQ(in->Prepare(&header), kWaveOk);
  ASSERT_EQ(in->AddBuffer(&header), kWaveOk);
  EXPECT_EQ(header.flags.load() & (kWaveHeaderInQueue | kWaveHeaderDone), kWaveHeaderInQueue);
  EXPECT_EQ(in->AddBuffer(&header), kWaveStillPlaying);
  EXPECT_EQ(in->Unprepare(&header), kWaveStillPlaying);
  EXPECT_EQ(in->Reset(), kWaveOk);  // back at once, empty
  EXPECT_EQ(header.flags.load() & (kWaveHeaderInQueue | kWaveHeaderDone), kWaveHeaderDone);
  EXPECT_EQ(header.bytes_recorded, 0u);
  EXPECT_EQ(in->Unprepare(&header), kWaveOk);
  EXPECT_EQ(in->Close(), kWaveOk);

  EXPECT_EQ(in->Prepare(&header), kWaveInvalidHandle);
  EXPECT_EQ(in->AddBuffer(&header), kWaveInvalidHandle);
  EXPECT_EQ(in->Start(), kWaveInvalidHandle);
  EXPECT_EQ(in->Stop(), kWaveInvalidHandle);
  EXPECT_EQ(in->Reset(), kWaveInvalidHandle);
  EXPECT_EQ(in->Close(), kWaveInvalidHandle);
  const auto events = recorder.Events();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].message, WaveMessage::kOpen);
  EXPECT_EQ(events[1].message, WaveMessage::kData);
  EXPECT_EQ(events[1].header, &header);
  EXPECT_EQ(events[1].flags & kWaveHeaderDone, kWaveHeaderDone);  // done before it is told
  EXPECT_EQ(events[2].message, WaveMessage::kClose);
}

// Plays `count` headers of `size` bytes through device 0 in `format` and returns the played
// file's bytes; the headers come back done, told in the order they were written.
std::string PlayThrough(const std::string& played, const WaveFormat& format, std::size_t count,
                        std::size_t size, std::vector<char>* sent) {
  auto system = MakePortAudioWaveSystem();
  Recorder recorder;
  std::unique_ptr<WaveOutStream> out;
  EXPECT_EQ(system->OpenOut(0, format, &recorder, &out), kWaveOk);
  if (out == nullptr) return {};
  Buffers buffers(count, size);
  for (std::size_t i = 0; i < count; ++i) {
    const auto bytes = Pattern(size, static_cast<int>(i));
    std::copy(bytes.begin(), bytes.end(), buffers.storage[i].begin());
    sent->insert(sent->end(), bytes.begin(), bytes.end());
    EXPECT_EQ(out->Prepare(&buffers.headers[i]), kWaveOk);
    EXPECT_EQ(out->Write(&buffers.headers[i]), kWaveOk);
  }
  EXPECT_TRUE(recorder.WaitFor(WaveMessage::kDone, count));
  for (auto& header : buffers.headers) {
    EXPECT_EQ(header.flags.load(), kWaveHeaderPrepared | kWaveHeaderDone);
    EXPECT_EQ(out->Unprepare(&header), kWaveOk);
  }
  EXPECT_EQ(out->Close(), kWaveOk);
  const auto events = recorder.Events();
  EXPECT_EQ(events.size(), count + 2);
  if (events.size() == count + 2) {
    EXPECT_EQ(events.front().message, WaveMessage::kOpen);
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_EQ(events[i + 1].message, WaveMessage::kDone);
      EXPECT_EQ(events[i + 1].header, &buffers.headers[i]) << "header " << i;
    }
    EXPECT_EQ(events.back().message, WaveMessage::kClose);
  }
  return ReadFile(played);
}

TEST_F(PortAudioChild, Play) {
  // More headers than the queue first has room for, while the device plays them.
  std::vector<char> sent;
  const std::string played = PlayThrough(File("played.raw"), kVoiceFormat, 12, 320, &sent);
  // Underruns between writes play silence (zeros); take it out and the rest is what was sent.
  std::string sound;
  std::copy_if(played.begin(), played.end(), std::back_inserter(sound),
               [](char c) { return c != 0; });
  EXPECT_EQ(sound, std::string(sent.begin(), sent.end()));
}

TEST_F(PortAudioChild, PlayAfterSilence) {
  // An output that ran dry stops after a second of silence and starts again at the next write.
  auto system = MakePortAudioWaveSystem();
  Recorder recorder;
  std::unique_ptr<WaveOutStream> out;
  ASSERT_EQ(system->OpenOut(0, kVoiceFormat, &recorder, &out), kWaveOk);
  Buffers buffers(2, 320);
  std::string sent;
  for (std::size_t i = 0; i < 2; ++i) {
    const auto bytes = Pattern(320, static_cast<int>(i) + 5);
    std::copy(bytes.begin(), bytes.end(), buffers.storage[i].begin());
    sent.append(bytes.begin(), bytes.end());
    ASSERT_EQ(out->Prepare(&buffers.headers[i]), kWaveOk);
  }
  ASSERT_EQ(out->Write(&buffers.headers[0]), kWaveOk);
  ASSERT_TRUE(recorder.WaitFor(WaveMessage::kDone, 1));
  // The unpaced device plays its second of silence at once; the file shows when it has.
  const auto played_size = [&] {
    std::error_code error;
    return std::filesystem::file_size(File("played.raw"), error);
  };
  EXPECT_TRUE(testing::Eventually([&] { return played_size() >= 16000u + 320u; }, 2s));
  ASSERT_EQ(out->Write(&buffers.headers[1]), kWaveOk);
  ASSERT_TRUE(recorder.WaitFor(WaveMessage::kDone, 2));
  EXPECT_EQ(out->Close(), kWaveOk);
  std::string sound;
  const std::string played = ReadFile(File("played.raw"));
  std::copy_if(played.begin(), played.end(), std::back_inserter(sound),
               [](char c) { return c != 0; });
  EXPECT_EQ(sound, sent);
}

TEST_F(PortAudioChild, PlayEightBit) {
  // A tone file's own format: 8-bit unsigned, 22050 Hz, one frame per byte, and an odd size.
  WaveFormat format;
  format.samples_per_sec = 22050;
  format.avg_bytes_per_sec = 22050;
  format.bits_per_sample = 8;
  format.block_align = 1;
  std::vector<char> sent;
  const std::string played = PlayThrough(File("played.raw"), format, 3, 1001, &sent);
  EXPECT_EQ(played.find('\0'), std::string::npos) << "8-bit silence is 0x80";
  std::string sound;
  std::copy_if(played.begin(), played.end(), std::back_inserter(sound),
               [](char c) { return c != static_cast<char>(0x80); });
  EXPECT_EQ(sound, std::string(sent.begin(), sent.end()));
}

TEST_F(PortAudioChild, Record) {
  auto system = MakePortAudioWaveSystem();
  Recorder recorder;
  std::unique_ptr<WaveInStream> in;
  ASSERT_EQ(system->OpenIn(kWaveMapper, kVoiceFormat, &recorder, &in), kWaveOk);
  Buffers buffers(3, 320);
  for (auto& header : buffers.headers) {
    ASSERT_EQ(in->Prepare(&header), kWaveOk);
    ASSERT_EQ(in->AddBuffer(&header), kWaveOk);
  }
  ASSERT_EQ(in->Start(), kWaveOk);
  EXPECT_EQ(in->Start(), kWaveOk);  // already started
  ASSERT_TRUE(recorder.WaitFor(WaveMessage::kData, 3));
  std::string recorded;
  for (const auto& event : recorder.Events()) {
    if (event.message != WaveMessage::kData) continue;
    EXPECT_EQ(event.bytes.size(), 320u);
    recorded += event.bytes;
  }
  const std::string mic = ReadFile(File("mic.raw"));
  EXPECT_EQ(recorded, mic.substr(0, 960));  // the device's bytes, in the order lent
  for (auto& header : buffers.headers) EXPECT_EQ(header.bytes_recorded, 320u);

  // Stopped, a lent header stays lent; Reset hands it back.
  EXPECT_EQ(in->Stop(), kWaveOk);
  ASSERT_EQ(in->AddBuffer(&buffers.headers[0]), kWaveOk);
  EXPECT_EQ(in->Stop(), kWaveOk);
  EXPECT_EQ(recorder.Count(WaveMessage::kData), 3u);
  EXPECT_EQ(in->Reset(), kWaveOk);
  EXPECT_EQ(recorder.Count(WaveMessage::kData), 4u);
  EXPECT_EQ(buffers.headers[0].bytes_recorded, 0u);
  EXPECT_EQ(in->Close(), kWaveOk);
  EXPECT_EQ(recorder.Events().back().message, WaveMessage::kClose);
}

TEST_F(PortAudioChild, Gone) {
  // The device fails at its first write, as an unplugged card does.
  SetWaveLogSink(&SinkLines::Sink);
  auto system = MakePortAudioWaveSystem();
  Recorder recorder;
  std::unique_ptr<WaveOutStream> out;
  ASSERT_EQ(system->OpenOut(0, kVoiceFormat, &recorder, &out), kWaveOk);
  Buffers buffers(2, 320);
  for (auto& header : buffers.headers) ASSERT_EQ(out->Prepare(&header), kWaveOk);
  ASSERT_EQ(out->Write(&buffers.headers[0]), kWaveOk);
  ASSERT_TRUE(recorder.WaitFor(WaveMessage::kDone, 1));  // played or handed back
  ASSERT_TRUE(testing::Eventually([] { return SinkLines::Get().Has("device stopped"); }))
      << SinkLines::Get().All();
  EXPECT_EQ(out->Write(&buffers.headers[1]), kWaveNoDriver);
  EXPECT_EQ(out->Write(&buffers.headers[0]), kWaveNoDriver);
  EXPECT_EQ(buffers.headers[1].flags.load(), kWaveHeaderPrepared);  // not taken
  // What the Audio module does next: release the headers, close, reopen elsewhere.
  EXPECT_EQ(out->Reset(), kWaveOk);
  for (auto& header : buffers.headers) EXPECT_EQ(out->Unprepare(&header), kWaveOk);
  EXPECT_EQ(out->Close(), kWaveOk);
  EXPECT_EQ(recorder.Events().back().message, WaveMessage::kClose);
  EXPECT_GE(SinkLines::Get().Errors(), 1);
  EXPECT_TRUE(SinkLines::Get().Has("ALSA")) << SinkLines::Get().All();  // the library's reason
}

}  // namespace
}  // namespace deskline::platform
