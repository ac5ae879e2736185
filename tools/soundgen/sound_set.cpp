#include "tools/soundgen/sound_set.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <utility>

namespace deskline::soundgen {
namespace {

constexpr double kPi = 3.14159265358979323846;
// Peak of every tone, the sum of its components: -12 dBFS.
const double kTonePeak = std::pow(10.0, -12.0 / 20.0);
// Edges are shaped over this long so that a tone starts and stops without a click.
constexpr int kFadeMs = 5;

int Samples(int ms) { return kRateHz * ms / 1000; }

// A sound built piece by piece, in floating point, with full scale at 1.0.
class Track {
 public:
  // Frequencies sounding together, each at an equal share of the peak, with soft edges.
  Track& Tone(std::initializer_list<double> hz, int ms) {
    const int n = Samples(ms);
    const int fade = Samples(kFadeMs);
    for (int i = 0; i < n; ++i) {
      double edge = 1.0;
      if (i < fade) edge = 0.5 - 0.5 * std::cos(kPi * i / fade);
      if (n - 1 - i < fade) edge = std::min(edge, 0.5 - 0.5 * std::cos(kPi * (n - 1 - i) / fade));
      out_.push_back(edge * Mix(hz, i));
    }
    return *this;
  }

  // A continuous tone with hard edges: `ms` holds whole periods of every component, so the
  // file repeats without a seam.
  Track& Steady(std::initializer_list<double> hz, int ms) {
    for (int i = 0; i < Samples(ms); ++i) out_.push_back(Mix(hz, i));
    return *this;
  }

  Track& Silence(int ms) {
    out_.insert(out_.end(), static_cast<std::size_t>(Samples(ms)), 0.0);
    return *this;
  }

  // Tone bursts of one set of frequencies: on, off, on, off...
  Track& Cadence(std::initializer_list<double> hz, std::initializer_list<int> on_off_ms) {
    bool on = true;
    for (int ms : on_off_ms) {
      if (on) {
        Tone(hz, ms);
      } else {
        Silence(ms);
      }
      on = !on;
    }
    return *this;
  }

  // A struck note: quick attack, exponential decay, two soft overtones (below the Nyquist
  // limit), the level set later by Normalise.
  Track& Note(double hz, int ms) {
    const int n = Samples(ms);
    const int attack = Samples(4);
    const int release = Samples(kFadeMs);
    const double decay_s = 0.45 * ms / 1000.0;
    for (int i = 0; i < n; ++i) {
      const double t = static_cast<double>(i) / kRateHz;
      double env = std::exp(-t / decay_s);
      if (i < attack) env *= static_cast<double>(i) / attack;
      if (n - 1 - i < release) env *= static_cast<double>(n - 1 - i) / release;
      double v = 0;
      const double weights[] = {1.0, 0.35, 0.12};
      for (int k = 1; k <= 3; ++k) {
        if (k * hz < kRateHz / 2 - 300) v += weights[k - 1] * std::sin(2 * kPi * k * hz * t);
      }
      out_.push_back(env * v);
    }
    return *this;
  }

  // Repeats everything so far `times` times in all.
  Track& Times(int times) {
    const std::vector<double> once = out_;
    for (int i = 1; i < times; ++i) out_.insert(out_.end(), once.begin(), once.end());
    return *this;
  }

  // Scales the track so that its peak is `peak`.
  Track& Normalise(double peak) {
    double max = 0;
    for (double v : out_) max = std::max(max, std::abs(v));
    if (max > 0) {
      for (double& v : out_) v *= peak / max;
    }
    return *this;
  }

  // Pads with silence up to `ms` in all.
  Track& PadTo(int ms) {
    const auto n = static_cast<std::size_t>(Samples(ms));
    if (out_.size() < n) out_.resize(n, 0.0);
    return *this;
  }

  std::vector<std::int16_t> Pcm() const {
    std::vector<std::int16_t> pcm;
    pcm.reserve(out_.size());
    for (double v : out_) {
      pcm.push_back(static_cast<std::int16_t>(std::lrint(std::clamp(v, -1.0, 1.0) * 32767.0)));
    }
    return pcm;
  }

 private:
  static double Mix(std::initializer_list<double> hz, int i) {
    double v = 0;
    for (double f : hz) v += std::sin(2 * kPi * f * i / kRateHz);
    return v * kTonePeak / static_cast<double>(hz.size());
  }

  std::vector<double> out_;
};

// Equal-tempered note frequency from a MIDI note number (69 is A4, 440 Hz).
double Midi(int note) { return 440.0 * std::pow(2.0, (note - 69) / 12.0); }

// A ring melody: notes of `note_ms` each, the phrase `phrases` times with a short breath
// between, then silence to fill one ring cycle of `cycle_ms`.
std::vector<std::int16_t> Melody(std::initializer_list<int> notes, int note_ms, int phrases,
                                 int cycle_ms) {
  Track phrase;
  for (int note : notes) phrase.Note(Midi(note), note_ms);
  phrase.Silence(120);
  return phrase.Times(phrases).Normalise(kTonePeak).PadTo(cycle_ms).Pcm();
}

std::string Hex2(int code) {
  char text[3];
  std::snprintf(text, sizeof text, "%02X", code);
  return text;
}

}  // namespace

std::vector<Sound> StandardSoundSet() {
  std::vector<Sound> set;
  auto add = [&set](std::string path, std::string what, std::vector<std::int16_t> samples) {
    set.push_back({std::move(path), std::move(what), std::move(samples)});
  };

  // Ring melodies (tone ids 1 to 4, 9, 10, 11; 17 shares Tone_1): one ring cycle of 2.5 s
  // each, sound first and silence after, so the gap between repetitions falls in silence.
  // MIDI numbers: 72 is C5 (523 Hz), 84 is C6 (1047 Hz).
  add("media/Tone_1.wav", "ring melody 1: C6 E6 G6 C7 arpeggio twice, 2.5 s cycle",
      Melody({84, 88, 91, 96}, 150, 2, 2500));
  add("media/Tone_2.wav", "ring melody 2: G5 D6 alternating, two bursts, 2.5 s cycle",
      Melody({79, 86, 79, 86}, 120, 2, 2500));
  add("media/Tone_3.wav", "ring melody 3: E6 C6 A5 F5 falling, twice, 2.5 s cycle",
      Melody({88, 84, 81, 77}, 160, 2, 2500));
  add("media/Tone_4.wav", "ring melody 4: A5 A5 E6, three times, 2.5 s cycle",
      Melody({81, 81, 88}, 130, 3, 2500));
  // Tone ids 5 and 6 sound in the earpiece during a call and repeat until stopped.
  add("media/Tone_5.wav", "call waiting, internal caller: 440 Hz 0.2 s, 2.8 s off",
      Track().Cadence({440}, {200, 2800}).Pcm());
  add("media/Tone_6.wav", "call waiting, external caller: 440 Hz 0.2 on 0.2 off 0.2 on, 2.4 s off",
      Track().Cadence({440}, {200, 200, 200, 2400}).Pcm());
  // Tone ids 7, 8 and 12 to 16 play once.
  add("media/Tone_7.wav", "ring splash (a call was diverted): E6 C6 chime, 0.5 s",
      Track().Note(Midi(88), 200).Note(Midi(84), 300).Normalise(kTonePeak).Pcm());
  add("media/Tone_8.wav", "reminder (a held call waits): 1000 Hz, three 0.1 s pips",
      Track().Cadence({1000}, {100, 100, 100, 100, 100, 100}).Pcm());
  add("media/Tone_9.wav", "ring melody 9: C6 D6 E6 G6 E6 D6, twice, 2.5 s cycle",
      Melody({84, 86, 88, 91, 88, 86}, 110, 2, 2500));
  add("media/Tone_A.wav", "ring melody 10: G5 B5 D6 G6 rising, twice, 2.5 s cycle",
      Melody({79, 83, 86, 91}, 140, 2, 2500));
  add("media/Tone_B.wav", "ring melody 11: D6 A5 D6 A5 F#6, twice, 2.5 s cycle",
      Melody({86, 81, 86, 81, 90}, 110, 2, 2500));
  add("media/Tone_C.wav", "page alert: C6 E6 G6 rising chime, 0.6 s",
      Track()
          .Note(Midi(84), 200)
          .Note(Midi(88), 200)
          .Note(Midi(91), 200)
          .Normalise(kTonePeak)
          .Pcm());
  add("media/Tone_D.wav", "error: 400 Hz, two 0.15 s beeps",
      Track().Cadence({400}, {150, 100, 150, 100}).Pcm());
  add("media/Tone_E.wav", "confirmation: 1000 Hz then 1500 Hz, 0.1 s each",
      Track().Tone({1000}, 100).Tone({1500}, 100).Silence(100).Pcm());
  add("media/Tone_F.wav", "attention (tone ids 15 and 16): 1400 Hz, four 80 ms pips",
      Track().Cadence({1400}, {80, 80}).Times(4).Pcm());

  // Key tones: the DTMF pair of each key, 100 ms and 20 ms of silence.
  const char keys[] = "0123456789x#";
  const double low[] = {941, 697, 697, 697, 770, 770, 770, 852, 852, 852, 941, 941};
  const double high[] = {1336, 1209, 1336, 1477, 1209, 1336, 1477, 1209, 1336, 1477, 1209, 1477};
  for (int k = 0; k < 12; ++k) {
    const std::string name = std::string("media/DTMF/Tone_DTMF") + keys[k] + ".wav";
    add(name,
        std::string("key ") + (k == 10 ? '*' : keys[k]) + ": " +
            std::to_string(static_cast<int>(low[k])) + " + " +
            std::to_string(static_cast<int>(high[k])) + " Hz, 0.1 s",
        Track().Tone({low[k], high[k]}, 100).Silence(20).Pcm());
  }
  add("media/Tone_Key.wav", "key click: 1200 Hz, 30 ms",
      Track().Tone({1200}, 30).Silence(10).Pcm());
  add("media/Tone_Rec.wav", "recording starts: 1400 Hz, two 0.15 s beeps",
      Track().Cadence({1400}, {150, 100, 150, 100}).Pcm());

  // Service tones of area 1, European style on 425 Hz. Codes 80 to 86 play once; the rest
  // repeat until stopped, so each holds one cadence cycle, tone first. 90 to 93, 96 and 97 are
  // the line-state tones: the player swallows one of them once after 80 (confirmation), so
  // that the line's tone does not cut the confirmation short.
  struct Service {
    int code;
    const char* what;
    std::vector<std::int16_t> samples;
  };
  const Service services[] = {
      {0x80, "confirmation: 425 Hz, three 0.1 s beeps",
       Track().Cadence({425}, {100, 100, 100, 100, 100, 100}).Pcm()},
      {0x81, "negative acknowledgement: 1400 Hz then 950 Hz, 0.2 s each",
       Track().Tone({1400}, 200).Tone({950}, 200).Silence(100).Pcm()},
      {0x82, "call-waiting burst: 425 Hz 0.2 on 0.2 off 0.2 on",
       Track().Cadence({425}, {200, 200, 200, 200}).Pcm()},
      {0x83, "intrusion announcement: 1400 Hz 0.3 s", Track().Cadence({1400}, {300, 100}).Pcm()},
      {0x84, "conference join: 700 Hz then 1000 Hz, 0.1 s each",
       Track().Tone({700}, 100).Tone({1000}, 100).Silence(100).Pcm()},
      {0x85, "conference leave: 1000 Hz then 700 Hz, 0.1 s each",
       Track().Tone({1000}, 100).Tone({700}, 100).Silence(100).Pcm()},
      {0x86, "time warning: 425 Hz 0.5 s", Track().Cadence({425}, {500, 100}).Pcm()},
      {0x90, "dial tone: 425 Hz continuous", Track().Steady({425}, 1000).Pcm()},
      {0x91, "ring-back: 425 Hz 1 s on, 4 s off", Track().Cadence({425}, {1000, 4000}).Pcm()},
      {0x92, "busy: 425 Hz 0.5 s on, 0.5 s off", Track().Cadence({425}, {500, 500}).Pcm()},
      {0x93, "congestion: 425 Hz 0.25 s on, 0.25 s off", Track().Cadence({425}, {250, 250}).Pcm()},
      {0x94, "call waiting: 425 Hz 0.2 on 0.2 off 0.2 on, 2.4 s off",
       Track().Cadence({425}, {200, 200, 200, 2400}).Pcm()},
      {0x95, "holding: 425 Hz 0.2 s on, 2.8 s off", Track().Cadence({425}, {200, 2800}).Pcm()},
      {0x96, "number unobtainable: 950, 1400, 1800 Hz, 0.33 s each, 1 s off",
       Track().Tone({950}, 330).Tone({1400}, 330).Tone({1800}, 330).Silence(1010).Pcm()},
      {0x97, "outside-line dial tone: 350 + 440 Hz continuous",
       Track().Steady({350, 440}, 1000).Pcm()},
      {0xA0, "special dial tone (diversion on): 425 Hz 0.4 s on, 0.04 s off",
       Track().Cadence({425}, {400, 40}).Times(2).Pcm()},
      {0xA1, "stutter dial tone (message waiting): 425 Hz 0.1 s on, 0.1 s off",
       Track().Cadence({425}, {100, 100}).Times(5).Pcm()},
      {0xA2, "external ring-back: 425 Hz 0.4 on 0.2 off 0.4 on, 2 s off",
       Track().Cadence({425}, {400, 200, 400, 2000}).Pcm()},
      {0xA3, "callback ring-back: 425 Hz 0.25 on 0.25 off 0.25 on, 1.25 s off",
       Track().Cadence({425}, {250, 250, 250, 1250}).Pcm()},
      {0xA4, "conference: 1400 Hz 0.2 s on, 1.8 s off", Track().Cadence({1400}, {200, 1800}).Pcm()},
      {0xA5, "recording warning: 1400 Hz 0.4 s on, 1.6 s off",
       Track().Cadence({1400}, {400, 1600}).Pcm()},
      {0xA6, "intrusion: 425 Hz 0.1 on 0.1 off 0.1 on, 0.7 s off",
       Track().Cadence({425}, {100, 100, 100, 700}).Pcm()},
      {0xA7, "do-not-disturb dial tone: 425 Hz 0.75 s on, 0.25 s off",
       Track().Cadence({425}, {750, 250}).Pcm()},
      {0xA8, "paging: 1000 Hz 0.5 s on, 1.5 s off", Track().Cadence({1000}, {500, 1500}).Pcm()},
      {0xA9, "off-hook warning: 1400 + 2060 + 2450 + 2600 Hz 0.1 s on, 0.1 s off",
       Track().Cadence({1400, 2060, 2450, 2600}, {100, 100}).Times(5).Pcm()},
      {0xAA, "queue: C5 E5 G5 chime, 1.5 s off",
       Track()
           .Note(Midi(72), 200)
           .Note(Midi(76), 200)
           .Note(Midi(79), 200)
           .Normalise(kTonePeak)
           .Silence(1400)
           .Pcm()},
      {0xAB, "alternative congestion: 480 + 620 Hz 0.25 s on, 0.25 s off",
       Track().Cadence({480, 620}, {250, 250}).Pcm()},
      {0xAC, "alternative busy: 480 + 620 Hz 0.5 s on, 0.5 s off",
       Track().Cadence({480, 620}, {500, 500}).Pcm()},
      {0xAD, "alternative ring-back: 440 + 480 Hz 1 s on, 2 s off",
       Track().Cadence({440, 480}, {1000, 2000}).Pcm()},
      {0xAE, "alternative dial tone: 350 + 440 Hz 0.9 s on, 0.1 s off",
       Track().Cadence({350, 440}, {900, 100}).Pcm()},
  };
  for (const Service& s : services) {
    add("media/Area1/Progress_" + Hex2(s.code) + ".wav", "service " + Hex2(s.code) + ", " + s.what,
        s.samples);
  }
  return set;
}

}  // namespace deskline::soundgen
