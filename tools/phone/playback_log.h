// What the virtual sound card's outputs played, from the log it keeps when DESKLINE_AUDIO_RECORD
// names a folder: one line per output stream as it closes, tab-separated: sequence, device,
// rate, channels, bits, writes, bytes played, peak dBFS, the stream's WAV in the folder.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace deskline::phone {

struct PlaybackStream {
  std::uint64_t sequence = 0;
  std::string device;
  std::uint32_t rate = 0;
  std::uint32_t channels = 0;
  std::uint32_t bits = 0;
  std::uint64_t writes = 0;
  std::uint64_t bytes = 0;
  std::string peak_dbfs;  // as logged: "-12.0", "-inf"
  std::string file;       // "-" when the WAV could not be written

  double seconds() const;
  bool silent() const { return peak_dbfs == "-inf"; }
};

// The well-formed lines of `text`; others are skipped.
std::vector<PlaybackStream> ParsePlaybackLog(std::string_view text);

// The speaker's voice and the other sounds. The voice output is opened first, when the sound
// card starts, in the voice format (8 kHz mono 16-bit); every later output stream is a played
// file or tone: the ring, key tones.
struct PlaybackSummary {
  bool voice_found = false;
  std::uint64_t voice_frames = 0;  // 20 ms frames the voice output played
  std::string voice_file;
  int sound_streams = 0;
  std::uint64_t sound_plays = 0;   // each repetition of a file is one write
  double sound_seconds = 0;
  bool sound_audible = false;      // some sound stream played more than silence
};
PlaybackSummary SummarisePlayback(std::span<const PlaybackStream> streams);

// The sounding part of a recording, measured as a person would describe it: 20 ms frames
// above -45 dBFS, their median level (a full-scale sine is 0 dBFS) and the frequency of their
// zero crossings (good for a tone, rough for speech).
struct SoundMeasure {
  std::size_t sounding_frames = 0;
  double level_dbfs = -120;
  double frequency_hz = 0;
};
SoundMeasure MeasureSound(std::span<const std::int16_t> samples);

}  // namespace deskline::phone
