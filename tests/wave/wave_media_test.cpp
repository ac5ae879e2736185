#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "codec/codec_lib.h"
#include "voice/g711.h"
#include "wave_fixture.h"

namespace deskline::wavetest {
namespace {

// The far end's own coder: G.711 sample by sample, G.729 through handles of its own.
struct FarEnd {
  explicit FarEnd(std::uint32_t payload_type) : pt(payload_type) {
    if (pt != kRtpPayloadG729) return;
    EXPECT_EQ(codecLibOpen(&encoder, kCodecG729, kCodecEncode, 0), 0);
    EXPECT_EQ(codecLibOpen(&decoder, kCodecG729, kCodecDecode, 0), 0);
  }
  ~FarEnd() {
    if (encoder) codecLibClose(encoder, 0);
    if (decoder) codecLibClose(decoder, 0);
  }
  std::vector<Bytes> EncodeAll(const Samples& sound) {
    std::vector<Bytes> out(sound.size() / kFrame, Bytes(pt == kRtpPayloadG729 ? 20 : kFrame));
    for (std::size_t f = 0; f < out.size(); ++f) {
      const std::int16_t* frame = &sound[f * kFrame];
      std::uint32_t in = kFrame, room = 20;
      if (pt == kRtpPayloadG729) {
        EXPECT_EQ(codecLibEncode(encoder, frame, &in, out[f].data(), &room, nullptr, 0), 0);
      }
      for (std::size_t i = 0; pt != kRtpPayloadG729 && i < kFrame; ++i) {
        out[f][i] = pt == kRtpPayloadPcmu ? CG711::LinearToUlaw(frame[i])
                                          : CG711::LinearToAlaw(frame[i]);
      }
    }
    return out;
  }
  Samples Decode(std::span<const std::uint8_t> payload, std::int32_t alaw_shift = 4) {
    Samples out(kFrame);
    std::uint32_t in = std::uint32_t(payload.size()), room = kFrame;
    if (pt == kRtpPayloadG729) {
      EXPECT_EQ(codecLibDecode(decoder, payload.data(), &in, out.data(), &room, nullptr, 0), 0);
    }
    for (std::size_t i = 0; pt != kRtpPayloadG729 && i < kFrame; ++i) {
      out[i] = pt == kRtpPayloadPcmu ? CG711::UlawToLinear(payload[i])
                                     : CG711::AlawToLinear(payload[i], alaw_shift);
    }
    return out;
  }

  std::uint32_t pt;
  CodecHandle* encoder = nullptr;
  CodecHandle* decoder = nullptr;
};

class WaveCodec : public WaveSession, public ::testing::WithParamInterface<std::uint32_t> {};

// The far end sees numbered packets of the right size and type, and decodes a 1 kHz tone at
// the expected level (A-law goes out 6 dB down). Then the far end sends a tone and the host
// plays it 75 samples late; G.711 plays the decoded sound sample for sample.
TEST_P(WaveCodec, ToneGoesBothWays) {
  const std::uint32_t pt = GetParam();
  const bool g729 = pt == kRtpPayloadG729;
  wave.SetPayloadType(pt);
  const Samples tone = Tone(12);
  for (std::size_t f = 0; f < 12; ++f) ASSERT_EQ(wave.SendFrame(&tone[f * kFrame], kVoiceFrameBytes), 0);
  FarEnd far(pt);
  Samples heard;
  RtpHeaderView first, view;
  for (std::uint16_t f = 0; f < 12; ++f) {
    const auto d = peer.Receive();
    ASSERT_TRUE(d) << "packet " << f;
    ASSERT_EQ(d->size(), kRtpHeaderBytes + (g729 ? 20 : 160));
    ASSERT_EQ(CheckRtpDatagram(*d, &view), RtpReject::kNone);
    if (f == 0) first = view;
    EXPECT_EQ(view.payload_type, pt);
    EXPECT_FALSE(view.marker);
    EXPECT_EQ(view.sequence, std::uint16_t(first.sequence + f));
    EXPECT_EQ(view.timestamp, first.timestamp + 160u * f);
    EXPECT_EQ(view.ssrc, first.ssrc);
    const Samples frame = far.Decode(std::span(*d).subspan(kRtpHeaderBytes));
    heard.insert(heard.end(), frame.begin(), frame.end());
  }
  const auto sent = std::span(heard).subspan(4 * kFrame);  // G.729 needs a few frames to settle
  const double level = Rms(tone) * (pt == kRtpPayloadPcma ? 0.5 : 1.0);
  EXPECT_NEAR(ZeroCrossingHz(sent), 1000.0, 50.0);
  EXPECT_NEAR(Rms(sent), level, level * (g729 ? 0.4 : 0.05));

  wave.SetReceiving(true);
  const std::vector<Bytes> payloads = FarEnd(pt).EncodeAll(Tone(10));
  SendFrames(std::uint8_t(pt), 500, payloads);
  ASSERT_TRUE(AwaitDecoded(10));
  const Samples played = PlayOut();
  ASSERT_GE(played.size(), 8 * kFrame);
  const auto shift = std::int32_t(wave.alaw_shift());
  for (std::size_t i = 0; !g729 && i < played.size(); ++i) {
    const std::size_t t = i - CPlc::kDelay;  // unused below the delay, where silence plays
    ASSERT_EQ(played[i], i < CPlc::kDelay ? 0 : far.Decode(payloads[t / kFrame], shift)[t % kFrame])
        << "sample " << i;
  }
  const auto steady = std::span(played).subspan(3 * kFrame);
  EXPECT_NEAR(ZeroCrossingHz(steady), 1000.0, 50.0);
  EXPECT_GT(Rms(steady), Rms(tone) * (pt == kRtpPayloadPcma ? 0.2 : 0.6));
  EXPECT_LT(Rms(steady), Rms(tone) * 1.4);
}

INSTANTIATE_TEST_SUITE_P(PayloadTypes, WaveCodec,
                         ::testing::Values(kRtpPayloadPcmu, kRtpPayloadPcma, kRtpPayloadG729));

// G.722 is signalled only: any sound goes out as 160 bytes of 0xFA, and any payload, of any
// length, plays as the fixed 20-sample pattern. A change of type applies from the next packet
// without resetting the buffer, and sending switches at the same moment.
TEST_F(WaveSession, G722SendsAFixedPayloadAndPlaysTheFixedPatternFromTheNextPacket) {
  wave.SetReceiving(true);
  const Samples tone = Tone(6);
  const std::vector<Bytes> pcmu = FarEnd(kRtpPayloadPcmu).EncodeAll(tone);
  SendFrames(0, 65533, {pcmu.begin(), pcmu.begin() + 3});  // across the sequence wrap
  ASSERT_TRUE(AwaitDecoded(3));
  wave.SetPayloadType(kRtpPayloadG722);
  SendFrames(0, 65536, {{1, 2, 3}, Bytes(160, 0x55), Bytes(7, 0)});
  ASSERT_TRUE(AwaitDecoded(6));
  const Samples played = PlayOut();
  ASSERT_EQ(played.size(), 5 * kFrame) << "one run; the last frame is held back once";
  EXPECT_NEAR(ZeroCrossingHz(std::span(played).subspan(kFrame, 2 * kFrame)), 1000.0, 50.0);
  const std::size_t switch_at = 3 * kFrame + CPlc::kDelay;
  for (std::size_t i = switch_at; i < played.size(); ++i) {
    ASSERT_EQ(played[i], kG722Pattern[(i - switch_at) % kG722Pattern.size()]) << i;
  }

  ASSERT_EQ(wave.SendFrame(tone.data(), kVoiceFrameBytes), 0);
  const auto d = peer.Receive();
  ASSERT_TRUE(d);
  ASSERT_EQ(d->size(), kRtpHeaderBytes + 160);
  EXPECT_EQ((*d)[1], kRtpPayloadG722);
  EXPECT_TRUE(std::all_of(d->begin() + kRtpHeaderBytes, d->end(), [](auto b) { return b == 0xFA; }));
}

// An unknown payload type mutes both ways while the socket is still read; the session's type
// decides, not the packet's. With receiving clear, packets are decoded and thrown away. Before
// playout: 601, no bytes, only the area's first frame written (silence); one packet is not enough.
TEST_F(WaveSession, UnknownTypeMutesAndNothingPlaysBeforePlayoutBegins) {
  wave.SetPayloadType(96);
  wave.SetReceiving(true);
  EXPECT_EQ(wave.SendFrame(Tone(1).data(), kVoiceFrameBytes), 1);
  EXPECT_TRUE(peer.Quiet());
  SendFrames(96, 10, std::vector<Bytes>(5, Bytes(160, 0xFF)));
  ASSERT_TRUE(AwaitRead(5));
  EXPECT_EQ(wave.packets_decoded(), 0u);
  std::fill(std::begin(pcm), std::end(pcm), std::int16_t{0x1111});
  EXPECT_EQ(Pull(), 0u);
  EXPECT_EQ(status, 601u) << "nothing reached the buffer";
  EXPECT_TRUE(std::all_of(pcm, pcm + kFrame, [](std::int16_t s) { return s == 0; }));
  EXPECT_TRUE(std::all_of(pcm + kFrame, std::end(pcm), [](std::int16_t s) { return s == 0x1111; }));
  EXPECT_EQ(wave.ReceiveVoice(0, pcm, nullptr), 0u) << "the status pointer may be null";

  wave.SetPayloadType(kRtpPayloadPcmu);
  wave.SetReceiving(false);
  SendFrames(96, 15, std::vector<Bytes>(6, Bytes(160, 0x20)));
  ASSERT_TRUE(AwaitDecoded(6));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Pull(), 0u);
    EXPECT_EQ(status, 601u);
  }
  wave.SetReceiving(true);
  SendFrames(0, 21, {Bytes(160, 0x20)});
  ASSERT_TRUE(AwaitDecoded(7));
  EXPECT_EQ(Pull(), 0u);
  EXPECT_EQ(status, 601u);
  SendFrames(0, 22, std::vector<Bytes>(5, Bytes(160, 0x20)));
  ASSERT_TRUE(AwaitDecoded(12));
  EXPECT_GE(PlayOut().size(), 3 * kFrame);
}

// A frame missing inside a burst comes as the lost-frame marker and is concealed from the tone
// before it; a frame due but missing at the end is concealed with status 600.
TEST_F(WaveSession, LostFramesAreConcealed) {
  wave.SetReceiving(true);
  const Samples tone = Tone(10);
  std::vector<Bytes> payloads = FarEnd(kRtpPayloadPcmu).EncodeAll(tone);
  SendFrames(0, 300, {payloads.begin(), payloads.begin() + 5});
  SendFrames(0, 306, {payloads.begin() + 6, payloads.end()});  // 305 lost on the way
  ASSERT_TRUE(AwaitDecoded(9));
  const Samples played = PlayOut();
  EXPECT_EQ(status, 600u);
  EXPECT_EQ(bytes, kVoiceFrameBytes);
  EXPECT_GT(Rms(std::span(pcm, kFrame)), 0.0) << "the tone carried on";
  ASSERT_GE(played.size(), 8 * kFrame);
  const auto lost = std::span(played).subspan(5 * kFrame + CPlc::kDelay, kFrame - CPlc::kDelay);
  EXPECT_NEAR(ZeroCrossingHz(lost), 1000.0, 80.0);
  EXPECT_GT(Rms(lost), Rms(tone) * 0.5);
  EXPECT_NE(std::memcmp(played.data() + 5 * kFrame, FrameLostMarker.data(), 8), 0);
}

}  // namespace
}  // namespace deskline::wavetest
