// Voice through a whole session over loopback, each payload type both ways: what goes on the
// wire, and what the host is given to play.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "codec/codec_lib.h"
#include "voice/g711.h"
#include "wave_fixture.h"

namespace deskline::wavetest {
namespace {

struct CodecCase {
  const char* name;
  std::uint32_t payload_type;
  std::size_t payload_bytes;
};

// The far end's own coder for one payload type: G.711 sample by sample, G.729 through its own
// codec handles, independent of the session's.
class FarEnd {
 public:
  explicit FarEnd(std::uint32_t payload_type) : pt_(payload_type) {
    if (pt_ == kRtpPayloadG729) {
      EXPECT_EQ(codecLibOpen(&encoder_, kCodecG729, kCodecEncode, 0), 0);
      EXPECT_EQ(codecLibOpen(&decoder_, kCodecG729, kCodecDecode, 0), 0);
    }
  }
  ~FarEnd() {
    if (encoder_) codecLibClose(encoder_, 0);
    if (decoder_) codecLibClose(decoder_, 0);
  }
  Bytes Encode(std::span<const std::int16_t> frame) {
    Bytes out;
    if (pt_ == kRtpPayloadG729) {
      out.resize(20);
      std::uint32_t in = kFrame, room = 20;
      EXPECT_EQ(codecLibEncode(encoder_, frame.data(), &in, out.data(), &room, nullptr, 0), 0);
      EXPECT_EQ(room, 20u);
      return out;
    }
    for (std::int16_t s : frame) {
      out.push_back(pt_ == kRtpPayloadPcmu ? CG711::LinearToUlaw(s) : CG711::LinearToAlaw(s));
    }
    return out;
  }
  // `alaw_shift` 4 is the standard expansion.
  Samples Decode(std::span<const std::uint8_t> payload, std::int32_t alaw_shift = 4) {
    Samples out(kFrame);
    if (pt_ == kRtpPayloadG729) {
      std::uint32_t in = static_cast<std::uint32_t>(payload.size()), room = kFrame;
      EXPECT_EQ(codecLibDecode(decoder_, payload.data(), &in, out.data(), &room, nullptr, 0), 0);
      return out;
    }
    for (std::size_t i = 0; i < kFrame; ++i) {
      out[i] = pt_ == kRtpPayloadPcmu ? CG711::UlawToLinear(payload[i])
                                      : CG711::AlawToLinear(payload[i], alaw_shift);
    }
    return out;
  }

 private:
  std::uint32_t pt_;
  CodecHandle* encoder_ = nullptr;
  CodecHandle* decoder_ = nullptr;
};

class WaveCodec : public WaveSession, public ::testing::WithParamInterface<CodecCase> {};

// The session encodes a 1 kHz tone; the far end sees numbered packets of the right size and
// type, and decodes a 1 kHz tone at the expected level (A-law goes out 6 dB down).
TEST_P(WaveCodec, SendsAToneThePeerDecodes) {
  const CodecCase c = GetParam();
  wave.SetPayloadType(c.payload_type);
  const Samples tone = Tone(12);
  for (std::size_t f = 0; f < 12; ++f) {
    ASSERT_EQ(wave.SendFrame(tone.data() + f * kFrame, kVoiceFrameBytes), 0);
  }
  FarEnd far(c.payload_type);
  Samples heard;
  std::optional<RtpHeaderView> previous;
  for (int f = 0; f < 12; ++f) {
    const auto d = peer.Receive();
    ASSERT_TRUE(d) << "packet " << f;
    ASSERT_EQ(d->size(), kRtpHeaderBytes + c.payload_bytes);
    RtpHeaderView view;
    ASSERT_EQ(CheckRtpDatagram(*d, &view), RtpReject::kNone);
    EXPECT_EQ(view.payload_type, c.payload_type);
    EXPECT_FALSE(view.marker);
    if (previous) {
      EXPECT_EQ(view.sequence, static_cast<std::uint16_t>(previous->sequence + 1));
      EXPECT_EQ(view.timestamp, previous->timestamp + 160);
      EXPECT_EQ(view.ssrc, previous->ssrc);
    }
    previous = view;
    const Samples frame = far.Decode(std::span(*d).subspan(kRtpHeaderBytes));
    heard.insert(heard.end(), frame.begin(), frame.end());
  }
  // G.729 needs a few frames to settle.
  const std::span<const std::int16_t> steady = std::span(heard).subspan(4 * kFrame);
  const double expected_rms = Rms(tone) * (c.payload_type == kRtpPayloadPcma ? 0.5 : 1.0);
  EXPECT_NEAR(ZeroCrossingHz(steady), 1000.0, 50.0);
  EXPECT_NEAR(Rms(steady), expected_rms, expected_rms * (c.payload_type == kRtpPayloadG729 ? 0.4 : 0.05));
}

// The far end sends a 1 kHz tone; the host plays it 75 samples late (the concealment's
// delay). G.711 is exact: the played sound is the decoded sound, sample for sample.
TEST_P(WaveCodec, PlaysAToneThePeerSends) {
  const CodecCase c = GetParam();
  wave.SetPayloadType(c.payload_type);
  wave.SetReceiving(true);
  FarEnd far(c.payload_type);
  const Samples tone = Tone(10);
  std::vector<Bytes> payloads;
  for (std::size_t f = 0; f < 10; ++f) {
    payloads.push_back(far.Encode(std::span(tone).subspan(f * kFrame, kFrame)));
  }
  SendFrames(static_cast<std::uint8_t>(c.payload_type), 500, payloads);
  ASSERT_TRUE(AwaitDecoded(10));

  const Samples played = PlayOut();
  ASSERT_GE(played.size(), 8 * kFrame);
  if (c.payload_type != kRtpPayloadG729) {
    FarEnd reference(c.payload_type);
    Samples decoded;
    for (const Bytes& p : payloads) {
      const Samples f = reference.Decode(p, static_cast<std::int32_t>(wave.alaw_shift()));
      decoded.insert(decoded.end(), f.begin(), f.end());
    }
    for (std::size_t i = 0; i < played.size(); ++i) {
      const std::int16_t expected = i < CPlc::kDelay ? 0 : decoded[i - CPlc::kDelay];
      ASSERT_EQ(played[i], expected) << "sample " << i;
    }
  }
  const std::span<const std::int16_t> steady = std::span(played).subspan(3 * kFrame);
  EXPECT_NEAR(ZeroCrossingHz(steady), 1000.0, 50.0);
  EXPECT_GT(Rms(steady), Rms(tone) * (c.payload_type == kRtpPayloadPcma ? 0.2 : 0.6));
  EXPECT_LT(Rms(steady), Rms(tone) * 1.4);
}

INSTANTIATE_TEST_SUITE_P(PayloadTypes, WaveCodec,
                         ::testing::Values(CodecCase{"Pcmu", kRtpPayloadPcmu, 160},
                                           CodecCase{"Pcma", kRtpPayloadPcma, 160},
                                           CodecCase{"G729", kRtpPayloadG729, 20}),
                         [](const auto& param_info) { return std::string(param_info.param.name); });

// G.722 is signalled only: whatever the host captured goes out as 160 bytes of 0xFA, and
// whatever the peer sends plays as the fixed 20-sample pattern.
TEST_F(WaveSession, G722SendsAFixedPayloadAndPlaysTheFixedPattern) {
  wave.SetPayloadType(kRtpPayloadG722);
  const Samples tone = Tone(1);
  ASSERT_EQ(wave.SendFrame(tone.data(), kVoiceFrameBytes), 0);
  const auto d = peer.Receive();
  ASSERT_TRUE(d);
  ASSERT_EQ(d->size(), kRtpHeaderBytes + 160);
  EXPECT_EQ((*d)[1], kRtpPayloadG722);
  EXPECT_TRUE(std::all_of(d->begin() + kRtpHeaderBytes, d->end(),
                          [](std::uint8_t b) { return b == 0xFA; }));

  wave.SetReceiving(true);
  // Payloads of any content and length: three bytes, a tone's worth, noise.
  std::vector<Bytes> payloads = {{1, 2, 3}, Bytes(160, 0x55), Bytes(20, 0xFF), Bytes(7, 0),
                                 Bytes(160, 0x00), Bytes(33, 0x80)};
  SendFrames(kRtpPayloadG722, 65533, payloads);  // across the sequence wrap
  ASSERT_TRUE(AwaitDecoded(payloads.size()));
  const Samples played = PlayOut();
  ASSERT_GE(played.size(), 4 * kFrame);
  for (std::size_t i = CPlc::kDelay; i < played.size(); ++i) {
    ASSERT_EQ(played[i], kG722Pattern[(i - CPlc::kDelay) % kG722Pattern.size()]) << i;
  }
}

// An unknown payload type mutes the path both ways, while the socket is still read.
TEST_F(WaveSession, UnknownPayloadTypeMutesBothWaysButKeepsReading) {
  wave.SetPayloadType(96);
  wave.SetReceiving(true);
  const Samples tone = Tone(1);
  EXPECT_EQ(wave.SendFrame(tone.data(), kVoiceFrameBytes), 1);
  EXPECT_TRUE(peer.Quiet());

  SendFrames(96, 10, std::vector<Bytes>(5, Bytes(160, 0xFF)));
  ASSERT_TRUE(AwaitRead(5));
  EXPECT_EQ(wave.packets_decoded(), 0u);
  std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
  std::uint32_t status = 0;
  EXPECT_EQ(wave.ReceiveVoice(0, pcm, &status), 0u);
  EXPECT_EQ(status, 601u) << "nothing reached the buffer";

  // A known type brings the same path back without a restart.
  wave.SetPayloadType(kRtpPayloadPcmu);
  SendFrames(96, 15, std::vector<Bytes>(5, Bytes(160, 0xFF)));
  ASSERT_TRUE(AwaitDecoded(5)) << "the session's type decides, not the packet's";
  EXPECT_FALSE(PlayOut().empty());
}

// With receiving clear, packets are read and decoded and the buffer stays empty.
TEST_F(WaveSession, ReceivingClearLeavesTheBufferEmpty) {
  wave.SetPayloadType(kRtpPayloadPcmu);
  SendFrames(0, 200, std::vector<Bytes>(6, Bytes(160, 0x20)));
  ASSERT_TRUE(AwaitDecoded(6));
  std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
  std::uint32_t status = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(wave.ReceiveVoice(0, pcm, &status), 0u);
    EXPECT_EQ(status, 601u);
  }
  wave.SetReceiving(true);
  SendFrames(0, 206, std::vector<Bytes>(6, Bytes(160, 0x20)));
  ASSERT_TRUE(AwaitDecoded(12));
  EXPECT_GE(PlayOut().size(), 3 * kFrame);
}

// Before the first packet of a voice path the host gets status 601 and no bytes, and the
// first frame of its area is silence that went into the concealment history.
TEST_F(WaveSession, BeforeTheFirstPacketStatusIs601) {
  std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
  std::fill(std::begin(pcm), std::end(pcm), std::int16_t{0x1111});
  std::uint32_t status = 0;
  EXPECT_EQ(wave.ReceiveVoice(0, pcm, &status), 0u);
  EXPECT_EQ(status, 601u);
  EXPECT_TRUE(std::all_of(pcm, pcm + kFrame, [](std::int16_t s) { return s == 0; }));
  EXPECT_TRUE(std::all_of(pcm + kFrame, std::end(pcm), [](std::int16_t s) { return s == 0x1111; }))
      << "nothing past the first frame is written";
  EXPECT_EQ(wave.ReceiveVoice(0, pcm, nullptr), 0u) << "status pointer may be null";

  // One packet does not start playout.
  wave.SetReceiving(true);
  SendFrames(0, 1, {Bytes(160, 0x20)});
  ASSERT_TRUE(AwaitDecoded(1));
  EXPECT_EQ(wave.ReceiveVoice(0, pcm, &status), 0u);
  EXPECT_EQ(status, 601u);
}

// A new payload type applies from the next packet on, within one run of playout: the buffer
// is not reset. Sending switches at the same moment.
TEST_F(WaveSession, PayloadTypeChangeTakesEffectFromTheNextPacket) {
  wave.SetPayloadType(kRtpPayloadPcmu);
  wave.SetReceiving(true);
  FarEnd far(kRtpPayloadPcmu);
  const Samples tone = Tone(6);
  std::vector<Bytes> payloads;
  for (std::size_t f = 0; f < 6; ++f) {
    payloads.push_back(far.Encode(std::span(tone).subspan(f * kFrame, kFrame)));
  }
  SendFrames(0, 40, {payloads.begin(), payloads.begin() + 3});
  ASSERT_TRUE(AwaitDecoded(3));
  wave.SetPayloadType(kRtpPayloadG722);
  SendFrames(0, 43, {payloads.begin() + 3, payloads.end()});
  ASSERT_TRUE(AwaitDecoded(6));

  const Samples played = PlayOut();
  // One unbroken run; the last frame comes after it, held back once.
  ASSERT_EQ(played.size(), 5 * kFrame);
  const std::size_t switch_at = 3 * kFrame + CPlc::kDelay;
  EXPECT_NEAR(ZeroCrossingHz(std::span(played).subspan(kFrame, 2 * kFrame)), 1000.0, 50.0);
  for (std::size_t i = switch_at; i < played.size(); ++i) {
    ASSERT_EQ(played[i], kG722Pattern[(i - switch_at) % kG722Pattern.size()]) << i;
  }

  ASSERT_EQ(wave.SendFrame(tone.data(), kVoiceFrameBytes), 0);
  const auto d = peer.Receive();
  ASSERT_TRUE(d);
  EXPECT_EQ((*d)[1], kRtpPayloadG722);
}

// A missing frame inside a burst arrives as the lost-frame marker and is concealed from the
// tone before it; a frame that is due but missing at the end is concealed with status 600.
TEST_F(WaveSession, LostFramesAreConcealed) {
  wave.SetPayloadType(kRtpPayloadPcmu);
  wave.SetReceiving(true);
  FarEnd far(kRtpPayloadPcmu);
  const Samples tone = Tone(10);
  for (std::uint16_t f = 0; f < 10; ++f) {
    if (f == 5) continue;  // lost on the way
    SendFrames(0, static_cast<std::uint16_t>(300 + f),
               {far.Encode(std::span(tone).subspan(f * kFrame, kFrame))});
  }
  ASSERT_TRUE(AwaitDecoded(9));

  // Pull as the host does: a run of delivered frames, then the last frame held back once,
  // for which the host gets a concealed frame.
  Samples played;
  std::int16_t pcm[CWave::kMaxFramesPerPull * kFrame];
  std::uint32_t status = 0;
  std::uint32_t bytes = 0;
  for (int i = 0; i < 20; ++i) {
    bytes = wave.ReceiveVoice(0, pcm, &status);
    if (status == 0) played.insert(played.end(), pcm, pcm + bytes / 2);
    if (status != 0 && !played.empty()) break;
  }
  EXPECT_EQ(status, 600u);
  EXPECT_EQ(bytes, kVoiceFrameBytes);
  EXPECT_GT(Rms(std::span(pcm, kFrame)), 0.0) << "the tone carried on";

  ASSERT_GE(played.size(), 8 * kFrame);
  // The lost frame's place (played 75 samples late) carries the tone on, not the marker.
  const auto lost = std::span(played).subspan(5 * kFrame + CPlc::kDelay, kFrame - CPlc::kDelay);
  EXPECT_NEAR(ZeroCrossingHz(lost), 1000.0, 80.0);
  EXPECT_GT(Rms(lost), Rms(tone) * 0.5);
  EXPECT_NE(std::memcmp(played.data() + 5 * kFrame, FrameLostMarker.data(), 8), 0);
}

}  // namespace
}  // namespace deskline::wavetest
