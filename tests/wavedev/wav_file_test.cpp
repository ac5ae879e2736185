#include "platform/wave/wav_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

void Put16(Bytes* b, std::uint32_t v) {
  b->push_back(static_cast<std::uint8_t>(v));
  b->push_back(static_cast<std::uint8_t>(v >> 8));
}
void Put32(Bytes* b, std::uint32_t v) {
  Put16(b, v & 0xFFFF);
  Put16(b, v >> 16);
}
void PutId(Bytes* b, const char* id) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<std::uint8_t>(id[i]));
}

void PutChunk(Bytes* b, const char* id, const Bytes& body) {
  PutId(b, id);
  Put32(b, static_cast<std::uint32_t>(body.size()));
  b->insert(b->end(), body.begin(), body.end());
  if (body.size() % 2 != 0) b->push_back(0);
}

// A "fmt " body: tag 1 PCM, 3 IEEE float, 0xFFFE extensible (with PCM or float sub-format).
Bytes FmtBody(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate, std::uint16_t bits) {
  Bytes f;
  const std::uint16_t align = static_cast<std::uint16_t>(channels * bits / 8);
  Put16(&f, tag);
  Put16(&f, channels);
  Put32(&f, rate);
  Put32(&f, rate * align);
  Put16(&f, align);
  Put16(&f, bits);
  if (tag == 0xFFFE) {
    Put16(&f, 22);
    Put16(&f, bits);
    Put32(&f, channels == 1 ? 0x4 : 0x3);  // front centre, or front left and right
    Put32(&f, 1);                          // KSDATAFORMAT_SUBTYPE_PCM
    const std::uint8_t guid_tail[] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                      0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    f.insert(f.end(), guid_tail + 2, guid_tail + 14);
  }
  return f;
}

Bytes Riff(const std::vector<std::pair<const char*, Bytes>>& chunks) {
  Bytes body;
  PutId(&body, "WAVE");
  for (const auto& [id, chunk] : chunks) PutChunk(&body, id, chunk);
  Bytes b;
  PutId(&b, "RIFF");
  Put32(&b, static_cast<std::uint32_t>(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

// The value of sample i of a test signal: half scale, 1 kHz at 8 kHz.
double Signal(std::size_t frame, std::uint32_t rate) {
  return 0.5 * std::sin(2.0 * M_PI * 1000.0 * static_cast<double>(frame) / rate);
}

// Encodes the test signal in a sample format; every channel carries the same signal.
Bytes Encode(std::uint16_t bits, bool is_float, std::uint16_t channels, std::uint32_t rate,
             std::size_t frames) {
  Bytes data;
  for (std::size_t i = 0; i < frames; ++i) {
    const double v = Signal(i, rate);
    for (std::uint16_t c = 0; c < channels; ++c) {
      if (is_float) {
        const float f = static_cast<float>(v);
        std::uint32_t u;
        std::memcpy(&u, &f, 4);
        Put32(&data, u);
      } else if (bits == 8) {
        data.push_back(static_cast<std::uint8_t>(std::lrint(v * 127.0) + 128));
      } else if (bits == 16) {
        Put16(&data, static_cast<std::uint16_t>(std::lrint(v * 32767.0)));
      } else if (bits == 24) {
        const auto s = static_cast<std::uint32_t>(std::lrint(v * 8388607.0));
        data.push_back(static_cast<std::uint8_t>(s));
        data.push_back(static_cast<std::uint8_t>(s >> 8));
        data.push_back(static_cast<std::uint8_t>(s >> 16));
      } else {
        Put32(&data, static_cast<std::uint32_t>(std::lrint(v * 2147483647.0)));
      }
    }
  }
  return data;
}

std::int16_t SampleAt(const WavSound& s, std::size_t index) {
  return static_cast<std::int16_t>(s.data[2 * index] | (s.data[2 * index + 1] << 8));
}

void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadBytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

TEST(WavFile, WrittenFileReadsBackUnchangedFromFileAndMemory) {
  testing::TempDir dir;
  // A UTF-8 name, as paths from the host arrive converted.
  const std::string path = dir.File("t\xC3\xB6n \xE2\x98\x8E.wav");
  WaveFormat format;  // 8 kHz 16-bit mono
  const Bytes data = Encode(16, false, 1, 8000, 800);
  ASSERT_TRUE(WriteWavFile(path, format, data));

  WavSound from_file;
  ASSERT_TRUE(ReadWavFile(path, &from_file));
  EXPECT_EQ(from_file.format, format);
  EXPECT_EQ(from_file.data, data);

  WavSound from_memory;
  ASSERT_TRUE(ReadWavMemory(ReadBytes(path), &from_memory));
  EXPECT_EQ(from_memory.format, format);
  EXPECT_EQ(from_memory.data, data);
}

TEST(WavFile, WriterRefusesWhatItCannotWrite) {
  testing::TempDir dir;
  WaveFormat eight_bit;
  eight_bit.bits_per_sample = 8;
  WaveFormat stereo;
  stereo.channels = 2;
  const Bytes four(4, 0);
  EXPECT_FALSE(WriteWavFile(dir.File("a.wav"), eight_bit, four));
  EXPECT_FALSE(WriteWavFile(dir.File("b.wav"), stereo, Bytes(6, 0)));  // half a frame
  EXPECT_FALSE(WriteWavFile(dir.File("no/such/dir.wav"), WaveFormat{}, four));
}

struct FormatCase {
  const char* name;
  std::uint16_t tag;
  std::uint16_t bits;
  std::uint16_t channels;
  std::uint32_t rate;
  int tolerance;  // in 16-bit steps, for the coarser formats
};

TEST(WavFile, EveryCommonSampleFormatArrivesAs16BitAtItsOwnRateAndChannels) {
  const FormatCase cases[] = {
      {"8-bit", 1, 8, 1, 8000, 300},
      {"16-bit stereo", 1, 16, 2, 8000, 1},
      {"16 kHz", 1, 16, 1, 16000, 1},
      {"24-bit", 1, 24, 1, 8000, 1},
      {"32-bit", 1, 32, 1, 44100, 1},
      {"float", 3, 32, 1, 8000, 1},
      {"extensible 24-bit stereo", 0xFFFE, 24, 2, 48000, 1},
  };
  testing::TempDir dir;
  for (const FormatCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t frames = 500;
    Bytes chunks_fmt = FmtBody(c.tag, c.channels, c.rate, c.bits);
    std::vector<std::pair<const char*, Bytes>> chunks = {{"fmt ", chunks_fmt}};
    if (c.tag == 3) {
      Bytes fact;
      Put32(&fact, frames);
      chunks.push_back({"fact", fact});
    }
    chunks.push_back({"data", Encode(c.bits, c.tag == 3, c.channels, c.rate, frames)});
    const Bytes wav = Riff(chunks);
    const std::string path = dir.File(std::string(c.name) + ".wav");
    WriteBytes(path, wav);

    WavSound from_file, from_memory;
    ASSERT_TRUE(ReadWavFile(path, &from_file));
    ASSERT_TRUE(ReadWavMemory(wav, &from_memory));
    EXPECT_EQ(from_file.format, from_memory.format);
    EXPECT_EQ(from_file.data, from_memory.data);
    EXPECT_EQ(from_file.format.format_tag, 1);
    EXPECT_EQ(from_file.format.bits_per_sample, 16);
    EXPECT_EQ(from_file.format.channels, c.channels);
    EXPECT_EQ(from_file.format.samples_per_sec, c.rate);
    EXPECT_EQ(from_file.format.block_align, 2 * c.channels);
    EXPECT_EQ(from_file.format.avg_bytes_per_sec, 2u * c.channels * c.rate);
    ASSERT_EQ(from_file.data.size(), frames * c.channels * 2);
    // The level is kept: half scale stays half scale, float included.
    for (std::size_t i = 0; i < frames; ++i) {
      for (std::uint16_t ch = 0; ch < c.channels; ++ch) {
        const double want = Signal(i, c.rate) * 32767.0;
        ASSERT_NEAR(SampleAt(from_file, i * c.channels + ch), want, c.tolerance + 1)
            << "frame " << i;
      }
    }
  }
}

Bytes GoodWav() {
  return Riff({{"fmt ", FmtBody(1, 1, 8000, 16)}, {"data", Encode(16, false, 1, 8000, 400)}});
}

// Sets the 32-bit field at `offset`.
Bytes WithField(Bytes b, std::size_t offset, std::uint32_t value) {
  if (offset + 4 > b.size()) ADD_FAILURE() << "no field at " << offset;
  for (std::size_t i = 0; i < 4 && offset + i < b.size(); ++i) {
    b[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  return b;
}

Bytes WithId(Bytes b, std::size_t offset, const char* id) {
  std::memcpy(b.data() + offset, id, 4);
  return b;
}

TEST(WavFile, BrokenFilesAreRefusedWithoutCrashFromFileAndMemory) {
  const Bytes good = GoodWav();
  // In GoodWav, the "fmt " chunk sits at 12, its size at 16; "data" at 36, its size at 40.
  Bytes truncated(good.begin(), good.end() - 10);
  Bytes fmt14 = FmtBody(1, 1, 8000, 16);
  fmt14.resize(14);
  const Bytes short_fmt = Riff({{"fmt ", fmt14}, {"data", Encode(16, false, 1, 8000, 10)}});
  Bytes garbage(3000);
  std::mt19937 random(7);
  for (auto& b : garbage) b = static_cast<std::uint8_t>(random());

  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"empty", {}},
      {"header only", Bytes(good.begin(), good.begin() + 12)},
      {"header and fmt only", Bytes(good.begin(), good.begin() + 36)},
      {"truncated data", truncated},
      {"4 GB data size", WithField(good, 40, 0xFFFFFFF0u)},
      {"fmt larger than the file", WithField(good, 16, 0x7FFFFFF0u)},
      {"no fmt", Riff({{"data", Encode(16, false, 1, 8000, 10)}})},
      {"short fmt", short_fmt},
      {"no data", Riff({{"fmt ", FmtBody(1, 1, 8000, 16)}})},
      {"no frames", Riff({{"fmt ", FmtBody(1, 1, 8000, 16)}, {"data", {}}})},
      {"not RIFF", WithId(good, 0, "RIFX")},
      {"not WAVE", WithId(good, 8, "AVI ")},
      {"unknown format tag",
       Riff({{"fmt ", FmtBody(0x1234, 1, 8000, 16)}, {"data", Encode(16, false, 1, 8000, 10)}})},
      {"no channels",
       Riff({{"fmt ", FmtBody(1, 0, 8000, 16)}, {"data", Encode(16, false, 1, 8000, 10)}})},
      {"huge chunk before data",
       WithField(
           Riff({{"fmt ", FmtBody(1, 1, 8000, 16)}, {"LIST", Bytes(4, 0)}, {"data", Bytes(20, 0)}}),
           40, 0xFFFFFFFFu)},
      {"garbage", garbage},
  };
  testing::TempDir dir;
  WavSound untouched;
  untouched.data = {1, 2, 3};
  untouched.format.samples_per_sec = 12345;
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    WavSound out = untouched;
    EXPECT_FALSE(ReadWavMemory(bytes, &out));
    EXPECT_EQ(out.data, untouched.data);
    EXPECT_EQ(out.format, untouched.format);
    const std::string path = dir.File("broken.wav");
    WriteBytes(path, bytes);
    EXPECT_FALSE(ReadWavFile(path, &out));
    EXPECT_EQ(out.data, untouched.data);
  }
  WavSound out;
  EXPECT_FALSE(ReadWavFile(dir.File("missing.wav"), &out));
  EXPECT_FALSE(ReadWavFile(dir.path().string(), &out));  // a folder
}

TEST(WavFile, SamplesBeyondTheLimitAreRefused) {
  // 8-bit samples double in size on the way to 16 bits: a file of just over half the limit
  // gives more than the limit.
  const std::size_t frames = kMaxWavDataBytes / 2 + 2;
  Bytes data(frames, 128);
  const Bytes wav = Riff({{"fmt ", FmtBody(1, 1, 8000, 8)}, {"data", data}});
  WavSound out;
  EXPECT_FALSE(ReadWavMemory(wav, &out));
  // The same shape, smaller, is read.
  const Bytes small = Riff({{"fmt ", FmtBody(1, 1, 8000, 8)}, {"data", Bytes(1000, 128)}});
  ASSERT_TRUE(ReadWavMemory(small, &out));
  EXPECT_EQ(out.data.size(), 2000u);
}

TEST(WavFile, RandomDamageToAGoodFileNeverCrashes) {
  const Bytes good = GoodWav();
  std::mt19937 random(1);
  int accepted = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes b = good;
    const int flips = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < flips; ++i) {
      b[random() % 48] = static_cast<std::uint8_t>(random());  // the header and a little data
    }
    if (random() % 4 == 0) b.resize(random() % b.size());
    WavSound out;
    if (ReadWavMemory(b, &out)) {
      ++accepted;
      EXPECT_LE(out.data.size(), kMaxWavDataBytes);
      EXPECT_FALSE(out.data.empty());
    }
  }
  EXPECT_GT(accepted, 0);  // some damage (to sample bytes, say) leaves a readable file
}

}  // namespace
}  // namespace deskline::platform
