// The X-P signal decoder: the walk over an RQNT and each signal's records.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgcp/mgcp_signal.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using mgcp_test::kEndpoint;
using mgcp_test::PacketOf;
using mgcp_test::StartedBlock;

// An RQNT whose S: line holds `signal_line`; without `line_end` the datagram ends right
// behind it, so that a signal can be cut short.
std::string Rqnt(std::string_view signal_line, bool line_end = true) {
  return "RQNT 12 " + std::string(kEndpoint) + " MGCP 1.0\r\nX: 1\r\nR: X-P/fk\r\nS: " +
         std::string(signal_line) + (line_end ? "\r\n" : "");
}

std::vector<SignalBuffer> Walk(MgcpControlBlock& block, const std::string& text) {
  MgcpPacket packet = PacketOf(text);
  std::vector<SignalBuffer> posts;
  WalkSignals(block, packet, [&](const SignalBuffer& signal) { posts.push_back(signal); });
  EXPECT_EQ(packet.length, text.size());  // restored after the walk
  return posts;
}

// The one buffer that a single signal gives.
SignalBuffer One(const std::string& signal_line, MgcpControlBlock* block_out = nullptr,
                 bool line_end = true) {
  MgcpControlBlock block = StartedBlock();
  const std::vector<SignalBuffer> posts = Walk(block, Rqnt(signal_line, line_end));
  if (block_out != nullptr) *block_out = block;
  EXPECT_EQ(posts.size(), 1u) << signal_line;
  return posts.empty() ? SignalBuffer{} : posts[0];
}

std::string Marker(const SignalBuffer& buffer) { return std::string(buffer.data()); }

std::string Bytes(const SignalBuffer& buffer, std::size_t from, std::size_t count) {
  return std::string(buffer.data() + from, count);
}

bool ZeroFrom(const SignalBuffer& buffer, std::size_t from) {
  for (std::size_t i = from; i < buffer.size(); ++i) {
    if (buffer[i] != 0) return false;
  }
  return true;
}

TEST(SignalWalkTest, ThreeSignalsOnOneLineGiveThreeBuffersInOrder) {
  MgcpControlBlock block = StartedBlock();
  const auto posts = Walk(block, Rqnt("X-P/ks(0201,gon),X-P/vctl(0305),X-P/ring(010203)"));
  ASSERT_EQ(posts.size(), 3u);
  EXPECT_EQ(Bytes(posts[0], 0, 2), "ks");
  EXPECT_EQ(LoadSignalU32(posts[0], kKsKeyCodeOffset), 0x0201u);
  EXPECT_EQ(LoadSignalU32(posts[0], kKsStateOffset), 1u);
  EXPECT_EQ(Marker(posts[1]), "mgcp_tone");
  EXPECT_EQ(LoadSignalI32(posts[1], kToneKindOffset), kToneKindVolume);
  EXPECT_EQ(LoadSignalI32(posts[1], kToneVolumeOffset + 12), 5);
  EXPECT_EQ(Marker(posts[2]), "mgcp_tone");
  EXPECT_EQ(LoadSignalI32(posts[2], kToneKindOffset), kToneKindRing);
  EXPECT_EQ(LoadSignalI32(posts[2], kToneRingClassOffset), 1);
  EXPECT_EQ(LoadSignalI32(posts[2], kTonePatternOffset), 2);
  EXPECT_EQ(LoadSignalI32(posts[2], kToneMelodyOffset), 3);
  EXPECT_EQ(block.ringerActive, 1);
}

TEST(SignalWalkTest, EmptyUnknownForeignAndBrokenSignals) {
  MgcpControlBlock block = StartedBlock();
  // No X-P signal at all: one empty buffer.
  auto posts = Walk(block, "RQNT 12 " + std::string(kEndpoint) + " MGCP 1.0\r\nX: 1\r\n");
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_TRUE(ZeroFrom(posts[0], 0));
  // An unknown name is skipped with an empty buffer, and the next one still decodes.
  posts = Walk(block, Rqnt("X-P/zzz(12),X-P/hset(01)"));
  ASSERT_EQ(posts.size(), 2u);
  EXPECT_TRUE(ZeroFrom(posts[0], 0));
  EXPECT_EQ(Marker(posts[1]), "hset_on");
  // A ks with a five-letter state is empty; the signal behind it still decodes.
  posts = Walk(block, Rqnt("X-P/ks(0201,gon12),X-P/hset(00)"));
  ASSERT_EQ(posts.size(), 2u);
  EXPECT_TRUE(ZeroFrom(posts[0], 0));
  EXPECT_EQ(Marker(posts[1]), "hset_off");
  // A foreign endpoint posts nothing.
  posts = Walk(block, "RQNT 12 d1@999999999999 MGCP 1.0\r\nS: X-P/hset(01)\r\n");
  EXPECT_TRUE(posts.empty());
  // A second S: line is decoded over the same buffer behind a signal that goes on.
  posts = Walk(block, Rqnt("X-P/ring(010203)\r\nS: X-P/hset(01)"));
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(Marker(posts[0]), "hset_on");
  EXPECT_EQ(block.ringerActive, 1);
}

TEST(SignalWalkTest, ReadsOnlyTheBytesOfTheDatagram) {
  const std::string text =
      Rqnt("X-P/lcdp(2201020C41034220202020),X-P/slc(010200030A0B0C0501DD),"
           "X-P/dtm(731020023040001100224142000102030F),X-P/tone(1F,1,0,1,,2A),"
           "X-P/las(000018000003414243),X-P/ks(0C2F,r24i)");
  // Every cut must decode as if the bytes behind it were not there.
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    MgcpControlBlock clean = StartedBlock();
    MgcpControlBlock dirty = StartedBlock();
    MgcpPacket a = PacketOf(text.substr(0, cut));
    MgcpPacket b = PacketOf(text);
    b.length = static_cast<std::uint32_t>(cut);
    std::vector<SignalBuffer> pa, pb;
    WalkSignals(clean, a, [&](const SignalBuffer& s) { pa.push_back(s); });
    WalkSignals(dirty, b, [&](const SignalBuffer& s) { pb.push_back(s); });
    ASSERT_EQ(pa.size(), pb.size()) << cut;
    for (std::size_t i = 0; i < pa.size(); ++i) EXPECT_EQ(pa[i], pb[i]) << cut << " post " << i;
  }
}

TEST(SignalMarkerTest, PlainMarkerRows) {
  struct Row {
    const char* signal;
    const char* marker;  // the whole buffer: this text, then zeros
  };
  const Row rows[] = {
      {"X-P/hset(00)", "hset_off"},      {"X-P/hset(01)", "hset_on"},
      {"X-P/hset(02)", ""},              {"X-P/pctl(11)", "sp_on_offhook"},
      {"X-P/pctl(01)", "bgm_mute"},      {"X-P/pctl(21)", "mute"},
      {"X-P/pctl(91)", "mute"},          {"X-P/pctl(23)", "mute"},
      {"X-P/pctl(03)", "sp_on"},         {"X-P/pctl(13)", ""},
      {"X-P/pctl(20)", "mute"},          {"X-P/pctl(00)", "sp_off"},
      {"X-P/pctl(10)", ""},              {"X-P/pctl(02)", "unmute"},
      {"X-P/pctl(19)", "unmute"},
      {"X-P/dtm(65)", "dtmx"},           {"X-P/dtm(70)", "dtmp"},
      {"X-P/dtm(72)", "dtmr"},           {"X-P/dtm(99)", ""},
      {"X-P/ring(000000)", "voff"},      {"X-P/las(0000170000020102)", ""},
      {"X-P/slc(0201)", ""},             {"X-P/slc(0101", ""},
      {"X-P/tone(1F,1,0,1", ""},         {"X-P/lcdp(30FF)", "lcd"},
  };
  for (const Row& row : rows) {
    const SignalBuffer buffer = One(row.signal);
    EXPECT_EQ(Marker(buffer), row.marker) << row.signal;
    EXPECT_TRUE(ZeroFrom(buffer, std::strlen(row.marker))) << row.signal;
  }
  // Cut short by the end of the datagram: nothing is decoded and the ringer is untouched.
  for (const char* signal : {"X-P/ring(0102", "X-P/vctl(03", "X-P/pctl(1", "X-P/hset(0"}) {
    MgcpControlBlock block;
    EXPECT_TRUE(ZeroFrom(One(signal, &block, false), 0)) << signal;
    EXPECT_EQ(block.ringerActive, 0) << signal;
  }
}

TEST(SignalKsTest, StatesAndRules) {
  struct Row {
    const char* argument;
    bool decoded;
    std::uint32_t code;
    std::uint32_t state;
  };
  const Row rows[] = {
      {"0201,off", true, 0x0201, 0},  {"0201,gon", true, 0x0201, 1},
      {"0201,g3i", true, 0x0201, 2},  {"0201,g3si", true, 0x0201, 3},
      {"0201,g6i", true, 0x0201, 4},  {"0201,g6si", true, 0x0201, 5},
      {"0201,g12i", true, 0x0201, 6}, {"0201,g24i", true, 0x0201, 7},
      {"0201,ron", true, 0x0201, 8},  {"0201,r3i", true, 0x0201, 9},
      {"0201,r3si", true, 0x0201, 10}, {"0201,r6i", true, 0x0201, 11},
      {"0201,r6si", true, 0x0201, 12}, {"0201,r12i", true, 0x0201, 13},
      {"0c2F,r24i", true, 0x0C2F, 14}, {"0201,gon12", false, 0, 0},
      {"0201,go", false, 0, 0},        {"0201,xyz", false, 0, 0},
      {"201,gon", false, 0, 0},        {"02011,gon", false, 0, 0},
  };
  for (const Row& row : rows) {
    const SignalBuffer buffer = One(std::string("X-P/ks(") + row.argument + ")");
    if (!row.decoded) {
      EXPECT_TRUE(ZeroFrom(buffer, 0)) << row.argument;
      continue;
    }
    EXPECT_EQ(Bytes(buffer, 0, 2), "ks") << row.argument;
    EXPECT_EQ(LoadSignalU32(buffer, kKsKeyCodeOffset), row.code) << row.argument;
    EXPECT_EQ(LoadSignalU32(buffer, kKsStateOffset), row.state) << row.argument;
    EXPECT_TRUE(ZeroFrom(buffer, 10)) << row.argument;
  }
  // No ")" at all.
  EXPECT_TRUE(ZeroFrom(One("X-P/ks(0201,gon"), 0));
}

TEST(SignalToneTest, RingAndVolumeSetTheRinger) {
  struct Row {
    const char* signal;
    const char* marker;  // first four bytes
    std::int32_t kind;
    std::int32_t volume[4];
    std::int32_t ring_class, pattern, melody;
    std::uint8_t ringer;
  };
  const Row rows[] = {
      {"X-P/vctl(0300)", "voff", 2, {-1, -1, -1, 0}, -1, -1, -1, 0},
      {"X-P/vctl(0100)", "mgcp", 2, {-1, 0, -1, -1}, -1, -1, -1, 1},
      {"X-P/vctl(0308)", "mgcp", 2, {-1, -1, -1, 8}, -1, -1, -1, 1},
      {"X-P/vctl(0708)", "mgcp", 2, {-1, -1, -1, -1}, -1, -1, -1, 1},
      {"X-P/ring(000100)", "mgcp", 1, {-1, -1, -1, -1}, 0, 1, 0, 1},
      {"X-P/ring(03FFa0)", "mgcp", 1, {-1, -1, -1, -1}, 3, 255, 160, 1},
  };
  for (const Row& row : rows) {
    MgcpControlBlock block;
    const SignalBuffer buffer = One(row.signal, &block);
    EXPECT_EQ(Bytes(buffer, 0, 4), row.marker) << row.signal;
    EXPECT_EQ(Bytes(buffer, 4, 6), std::string("_tone\0", 6)) << row.signal;
    EXPECT_EQ(LoadSignalI32(buffer, kToneKindOffset), row.kind) << row.signal;
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(LoadSignalI32(buffer, kToneVolumeOffset + 4 * i), row.volume[i]) << row.signal;
    }
    EXPECT_EQ(LoadSignalI32(buffer, kToneRingClassOffset), row.ring_class) << row.signal;
    EXPECT_EQ(LoadSignalI32(buffer, kTonePatternOffset), row.pattern) << row.signal;
    EXPECT_EQ(LoadSignalI32(buffer, kToneMelodyOffset), row.melody) << row.signal;
    EXPECT_EQ(block.ringerActive, row.ringer) << row.signal;
  }
  // ring with "000000" clears the ringer that an earlier ring set.
  MgcpControlBlock block = StartedBlock();
  Walk(block, Rqnt("X-P/ring(010203),X-P/ring(000000)"));
  EXPECT_EQ(block.ringerActive, 0);
}

TEST(SignalSettingTest, PgmmAndCspc) {
  SignalBuffer buffer = One("X-P/pgmm(05)");
  EXPECT_EQ(Marker(buffer), "pbx_setting");
  EXPECT_EQ(LoadSignalI32(buffer, kPbxProgramModeOffset), 5);
  EXPECT_EQ(LoadSignalI32(buffer, kPbxKeyPadModeOffset), -1);
  // Count 10: "0102" steps 4, "0003" is a zero item carrying mode 3, "0405" steps 4.
  buffer = One("X-P/cspc(0A010200030405)");
  EXPECT_EQ(Marker(buffer), "pbx_setting");
  EXPECT_EQ(LoadSignalI32(buffer, kPbxProgramModeOffset), -1);
  EXPECT_EQ(LoadSignalI32(buffer, kPbxKeyPadModeOffset), 3);
  // The last zero item wins; a list cut by the datagram keeps what was read.
  buffer = One("X-P/cspc(100001000701020009)");
  EXPECT_EQ(LoadSignalI32(buffer, kPbxKeyPadModeOffset), 9);
  buffer = One("X-P/cspc(FF");
  EXPECT_EQ(LoadSignalI32(buffer, kPbxKeyPadModeOffset), -1);
}

TEST(SignalToneRecordTest, FixedPositionsUpToTheParenthesis) {
  struct Row {
    const char* argument;
    std::uint32_t value1, value2;
    std::uint8_t flags[3];
  };
  const Row rows[] = {
      {"1F,1,0,1,,2A)", 0x1F, 0x2A, {1, 0, 1}},
      {"1F,0,9,0,,2A)", 0x1F, 0x2A, {0, 1, 0}},
      {"1F,1,1,1)", 0x1F, 0, {1, 1, 1}},  // stops before position 10
      {"1F,1)", 0x1F, 0, {1, 0, 0}},
      {")", 0, 0, {0, 0, 0}},
  };
  for (const Row& row : rows) {
    const SignalBuffer buffer = One(std::string("X-P/tone(") + row.argument);
    EXPECT_EQ(Bytes(buffer, 0, 4), "tone") << row.argument;
    EXPECT_EQ(LoadSignalU32(buffer, kToneRecordValue1Offset), row.value1) << row.argument;
    EXPECT_EQ(LoadSignalU32(buffer, kToneRecordValue2Offset), row.value2) << row.argument;
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(buffer[kToneRecordFlagsOffset + i], row.flags[i]) << row.argument << " " << i;
    }
    EXPECT_TRUE(ZeroFrom(buffer, 15)) << row.argument;
  }
}

std::uint32_t SlcBytes(const SignalBuffer& buffer, std::size_t index) {
  return LoadSignalU32(buffer, kSlcEntriesOffset + kSlcEntrySize * index);
}
std::uint8_t SlcByte(const SignalBuffer& buffer, std::size_t index, std::size_t i) {
  return static_cast<std::uint8_t>(buffer[kSlcEntriesOffset + kSlcEntrySize * index + 4 + i]);
}

TEST(SignalSlcTest, EntriesMaskAndCap) {
  // Two entries: index 0 with three bytes, index 37 with one; index 0x40 is skipped whole.
  SignalBuffer buffer = One("X-P/slc(010300" "03AABBCC" "4002EEEE" "2501DD)");
  EXPECT_EQ(Bytes(buffer, 0, 3), "slc");
  EXPECT_EQ(LoadSignalI32(buffer, kSlcEntryCountOffset), 3);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), 1u);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset + 4), 1u << 5);
  EXPECT_EQ(SlcBytes(buffer, 0), 3u);
  EXPECT_EQ(SlcByte(buffer, 0, 0), 0xAA);
  EXPECT_EQ(SlcByte(buffer, 0, 2), 0xCC);
  EXPECT_EQ(SlcBytes(buffer, 37), 1u);
  EXPECT_EQ(SlcByte(buffer, 37, 0), 0xDD);
  EXPECT_TRUE(ZeroFrom(buffer, 3 + kSlcRecordSize));

  // Count 0: the marker and a zero record.
  buffer = One("X-P/slc(0100)");
  EXPECT_EQ(Bytes(buffer, 0, 3), "slc");
  EXPECT_TRUE(ZeroFrom(buffer, 3));

  // 49 announced entries: only 48 are read; the 49th would have given entry 0 a byte.
  std::string entries;
  for (int i = 0; i < 48; ++i) {
    char item[8];
    std::snprintf(item, sizeof(item), "%02X00", i);
    entries += item;
  }
  buffer = One("X-P/slc(0131" + entries + "0001FF)");
  EXPECT_EQ(LoadSignalI32(buffer, kSlcEntryCountOffset), 48);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), 0xFFFFFFFFu);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset + 4), 0xFFFFu);
  EXPECT_EQ(SlcBytes(buffer, 0), 0u);

  // A byte count above 12 keeps 12, and the walk steps over only those: the two bytes left
  // over are read as the next entry's index (0x01) and count (0x00).
  buffer = One("X-P/slc(010202" "0E" "0102030405060708090A0B0C" "0100)");
  EXPECT_EQ(SlcBytes(buffer, 2), 12u);
  EXPECT_EQ(SlcByte(buffer, 2, 11), 0x0C);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), (1u << 2) | (1u << 1));
}

TEST(SignalLasTest, KeyRecord) {
  SignalBuffer buffer = One("X-P/las(000018000003414243)");
  EXPECT_EQ(Bytes(buffer, 0, 7), std::string("key\x03" "ABC"));
  EXPECT_TRUE(ZeroFrom(buffer, 7));
  buffer = One("X-P/las(0000180000FF41", nullptr, false);  // cut short: what is there
  EXPECT_EQ(Bytes(buffer, 0, 5), std::string("key\xff" "A"));
  EXPECT_TRUE(ZeroFrom(buffer, 5));
}

TEST(SignalDtmsTest, HeaderMasksAndText) {
  // Bytes 0..8: 10 20 02 30 40 | 00 11 00 22; text "AB"; tail 00 01 02 03 05.
  const SignalBuffer buffer = One("X-P/dtm(73" "102002304000110022" "4142" "0001020305)");
  const std::uint8_t expected[] = {'d', 't', 'm', 's', 0x11, 0x21, 0x31, 0x41, 0x06, 0xFA,
                                   0x01, 0x11, 0x01, 0x22, 0xF8, 0x01, 0x01, 0x02, 0x03, 'A',
                                   'B'};
  for (std::size_t i = 0; i < sizeof(expected); ++i) {
    EXPECT_EQ(static_cast<std::uint8_t>(buffer[i]), expected[i]) << "position " << i;
  }
  EXPECT_TRUE(ZeroFrom(buffer, sizeof(expected)));
}

TEST(SignalLcdpTest, OpeningRows) {
  using namespace std::string_literals;
  struct Row {
    const char* argument;
    std::string buffer;  // the whole buffer: these bytes, then zeros
  };
  const Row rows[] = {
      {"3201000000000000", "lcdnavend"},
      {"300100000000", "lcdcls"},
      {"220500030A0A04", "lcdcls"},  // a clear, although it begins with "22"
      {"300A05", "lcdcll\x06"},
      {"300700001807", "lcdkey\x01\x07"},
      {"3003000018", "lcdrkey"},
      {"3008000018", "lcdrkey"},
      {"3004010203", "lcdlcdb1\x03\x02\x04"},
      {"3005", "lcdlcdb0"},
      {"300B07", "lcdlcdb2\x08"},
      {"300C07", "lcdlcdb3\x08"},
      {"3009010203", "lcdclp\0\0\x03\x02\x04"s},
      {"30FF", "lcd"},
  };
  for (const Row& row : rows) {
    const std::string& expected = row.buffer;
    const SignalBuffer buffer = One(std::string("X-P/lcdp(") + row.argument + ")");
    EXPECT_EQ(Bytes(buffer, 0, expected.size()), expected) << row.argument;
    EXPECT_TRUE(ZeroFrom(buffer, expected.size())) << row.argument;
  }
}

TEST(SignalLcdpTest, DisplayWrites) {
  const std::string header_blanks(6, ' ');
  struct Row {
    const char* argument;
    std::string buffer;
  };
  const Row rows[] = {
      // "22": a text byte below 31 stands for that many blanks.
      {"2201020341" "03" "42", "lcd\x02\x03" + header_blanks + "A   B"},
      {"2201020341" "00" "42", "lcd\x02\x03" + header_blanks + "AB"},
      {"22010203" "41" "1F" "80", "lcd\x02\x03" + header_blanks + "A\x1F\x80"},
      // Any other first byte stores every byte as it is.
      {"2101020341" "03" "42", "lcd\x02\x03" + header_blanks + "A\x03" "B"},
      {"32000000" "0506" "0708", "lcd\x01\x01\x01\x05\x06\x08\x09 "},
      {"3201", "lcd\x01\x01" + header_blanks},
      {"330002", "lcd\x01\x01     *"},
      {"330000", "lcd\x01\x01     ~"},
      {"330001", "lcd\x01\x01     >"},
      {"330003", "lcd\x01\x01     #"},
      {"330009", "lcd\x01\x01" + header_blanks},
      {"330100", "lcd\x01\x01" + header_blanks},
  };
  for (const Row& row : rows) {
    const SignalBuffer buffer = One(std::string("X-P/lcdp(") + row.argument + ")");
    EXPECT_EQ(Bytes(buffer, 0, row.buffer.size()), row.buffer) << row.argument;
    EXPECT_TRUE(ZeroFrom(buffer, row.buffer.size())) << row.argument;
  }
}

TEST(SignalLcdpTest, BlankRunsStopAtTheEndOfTheBuffer) {
  // 255 bytes of 30 blanks each ask for 7650 bytes.
  std::string argument = "220000FF";
  for (int i = 0; i < 255; ++i) argument += "1E";
  const SignalBuffer buffer = One("X-P/lcdp(" + argument + ")");
  EXPECT_EQ(buffer[kSignalBufferSize - 2], ' ');
  EXPECT_EQ(buffer[kSignalBufferSize - 1], '\0');  // always terminated
}

}  // namespace
}  // namespace deskline
