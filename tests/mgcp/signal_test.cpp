// The X-P signal decoder: the walk over an RQNT and each signal's records.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mgcp/mgcp_signal.h"
#include "mgcp_test_util.h"

namespace deskline {
namespace {

using namespace mgcp_test;
using namespace std::string_literals;

// An RQNT whose S: line holds `signals`; without `line_end` the datagram ends right behind it.
std::string Rqnt(std::string_view signals, bool line_end = true) {
  return "RQNT 12" + kHead + "X: 1\r\nR: X-P/fk\r\nS: " + std::string(signals) +
         (line_end ? "\r\n" : "");
}

std::vector<SignalBuffer> Walk(MgcpControlBlock& block, MgcpPacket packet) {
  const std::uint32_t length = packet.length;
  std::vector<SignalBuffer> posts;
  WalkSignals(block, packet, [&](const SignalBuffer& signal) { posts.push_back(signal); });
  EXPECT_EQ(packet.length, length);  // restored after the walk
  return posts;
}
std::vector<SignalBuffer> Walk(MgcpControlBlock& block, const std::string& text) {
  return Walk(block, PacketOf(text));
}

// The one buffer that a single signal gives; `ringer` gets the block's ringer afterwards.
SignalBuffer One(const std::string& signal, bool line_end = true, std::uint8_t* ringer = nullptr) {
  MgcpControlBlock block = StartedBlock();
  const std::vector<SignalBuffer> posts = Walk(block, Rqnt(signal, line_end));
  if (ringer != nullptr) *ringer = block.ringerActive;
  EXPECT_EQ(posts.size(), 1u) << signal;
  return posts.empty() ? SignalBuffer{} : posts[0];
}

// The buffer up to its last non-zero byte: equal strings mean equal buffers.
std::string Content(const SignalBuffer& buffer) {
  std::size_t n = buffer.size();
  while (n > 0 && buffer[n - 1] == 0) --n;
  return std::string(buffer.data(), n);
}

TEST(MgcpSignalTest, WalkPostsEachSignalInOrder) {
  MgcpControlBlock block = StartedBlock();
  auto posts = Walk(block, Rqnt("X-P/ks(0201,gon),X-P/vctl(0305),X-P/ring(010203)"));
  ASSERT_EQ(posts.size(), 3u);
  EXPECT_EQ(Content(posts[0]).substr(0, 2), "ks");
  EXPECT_EQ(LoadSignalI32(posts[1], kToneVolumeOffset + 12), 5);
  EXPECT_EQ(LoadSignalI32(posts[2], kToneKindOffset), kToneKindRing);
  EXPECT_EQ(block.ringerActive, 1);
  // ring "000000" clears the ringer that an earlier ring set.
  Walk(block, Rqnt("X-P/ring(010203),X-P/ring(000000)"));
  EXPECT_EQ(block.ringerActive, 0);

  // No signal, an unknown name, a broken ks: an empty buffer each, and the next still decodes.
  posts = Walk(block, "RQNT 12" + kHead + "X: 1\r\n");
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(Content(posts[0]), "");
  posts = Walk(block, Rqnt("X-P/zzz(12),X-P/ks(0201,gon12),X-P/hset(01)"));
  ASSERT_EQ(posts.size(), 3u);
  EXPECT_EQ(Content(posts[0]) + Content(posts[1]) + "|" + Content(posts[2]), "|hset_on");
  // A foreign endpoint posts nothing.
  EXPECT_TRUE(Walk(block, "RQNT 12 d1@999999999999 MGCP 1.0\r\nS: X-P/hset(01)\r\n").empty());
  // A second S: line is decoded over the same buffer; the marker's terminator keeps it whole.
  posts = Walk(block, Rqnt("X-P/ring(010203)\r\nS: X-P/hset(01)"));
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(std::string(posts[0].data()), "hset_on");
}

TEST(MgcpSignalTest, ReadsOnlyTheBytesOfTheDatagram) {
  const std::string text =
      Rqnt("X-P/lcdp(2201020C41034220202020),X-P/slc(010200030A0B0C0501DD),"
           "X-P/dtm(731020023040001100224142000102030F),X-P/tone(1F,1,0,1,,2A),"
           "X-P/las(000018000003414243),X-P/ks(0C2F,r24i),X-P/cspc(0A010200030405)");
  // Every cut decodes as if the bytes behind it were not there.
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    MgcpControlBlock clean = StartedBlock(), dirty = StartedBlock();
    MgcpPacket whole = PacketOf(text);
    whole.length = static_cast<std::uint32_t>(cut);
    EXPECT_EQ(Walk(clean, text.substr(0, cut)), Walk(dirty, whole)) << cut;
  }
  // Cut inside a fixed-size argument: nothing decoded, the ringer untouched.
  for (const char* signal :
       {"X-P/ring(0102", "X-P/vctl(03", "X-P/pctl(1", "X-P/hset(0", "X-P/ks(0201,gon"}) {
    std::uint8_t ringer = 9;
    EXPECT_EQ(Content(One(signal, false, &ringer)), "") << signal;
    EXPECT_EQ(ringer, 0) << signal;
  }
}

TEST(MgcpSignalTest, MarkerRows) {
  struct Row { const char* signal; std::string content; };
  const Row rows[] = {
      {"X-P/hset(00)", "hset_off"}, {"X-P/hset(01)", "hset_on"}, {"X-P/hset(02)", ""},
      // pctl: x then y.
      {"X-P/pctl(11)", "sp_on_offhook"}, {"X-P/pctl(01)", "bgm_mute"}, {"X-P/pctl(21)", "mute"},
      {"X-P/pctl(23)", "mute"}, {"X-P/pctl(03)", "sp_on"}, {"X-P/pctl(13)", ""},
      {"X-P/pctl(20)", "mute"}, {"X-P/pctl(00)", "sp_off"}, {"X-P/pctl(10)", ""},
      {"X-P/pctl(02)", "unmute"}, {"X-P/pctl(19)", "unmute"}, {"X-P/dtm(65)", "dtmx"},
      {"X-P/dtm(70)", "dtmp"}, {"X-P/dtm(72)", "dtmr"}, {"X-P/dtm(99)", ""},
      {"X-P/las(0000170000020102)", ""}, {"X-P/slc(0201)", ""}, {"X-P/slc(0101", ""},
      {"X-P/tone(1F,1,0,1", ""}, {"X-P/las(000018000003414243)", "key\x03" "ABC"},
      {"X-P/dtm(73" "102002304000110022" "4142" "0001020305)",  // header, masks, text "AB"
       "dtms\x11\x21\x31\x41\x06\xFA\x01\x11\x01\x22\xF8\x01\x01\x02\x03" "AB"},
      // lcdp openings; a clear although it begins with "22".
      {"X-P/lcdp(3201000000000000)", "lcdnavend"}, {"X-P/lcdp(300100000000)", "lcdcls"},
      {"X-P/lcdp(220500030A0A04)", "lcdcls"}, {"X-P/lcdp(300A05)", "lcdcll\x06"},
      {"X-P/lcdp(300700001807)", "lcdkey\x01\x07"}, {"X-P/lcdp(3003000018)", "lcdrkey"},
      {"X-P/lcdp(3008000018)", "lcdrkey"}, {"X-P/lcdp(3004010203)", "lcdlcdb1\x03\x02\x04"},
      {"X-P/lcdp(3005)", "lcdlcdb0"}, {"X-P/lcdp(300B07)", "lcdlcdb2\x08"},
      {"X-P/lcdp(300C07)", "lcdlcdb3\x08"}, {"X-P/lcdp(3009010203)", "lcdclp\0\0\x03\x02\x04"s},
      // Display writes: after "22" a byte below 31 stands for that many blanks.
      {"X-P/lcdp(2201020341" "03" "42)", "lcd\x02\x03      A   B"},
      {"X-P/lcdp(2201020341" "00" "42)", "lcd\x02\x03      AB"},
      {"X-P/lcdp(22010203" "41" "1F" "80)", "lcd\x02\x03      A\x1F\x80"},
      {"X-P/lcdp(2101020341" "03" "42)", "lcd\x02\x03      A\x03" "B"},
      {"X-P/lcdp(32000000" "0506" "0708)", "lcd\x01\x01\x01\x05\x06\x08\x09 "},
      {"X-P/lcdp(3201)", "lcd\x01\x01      "}, {"X-P/lcdp(330000)", "lcd\x01\x01     ~"},
      {"X-P/lcdp(330001)", "lcd\x01\x01     >"}, {"X-P/lcdp(330002)", "lcd\x01\x01     *"},
      {"X-P/lcdp(330003)", "lcd\x01\x01     #"}, {"X-P/lcdp(330009)", "lcd\x01\x01      "},
      {"X-P/lcdp(330100)", "lcd\x01\x01      "}, {"X-P/lcdp(30FF)", "lcd"},
  };
  for (const Row& row : rows) EXPECT_EQ(Content(One(row.signal)), row.content) << row.signal;
  // A display write whose blank runs ask for 7650 bytes stops at the end of the buffer.
  std::string argument = "X-P/lcdp(220000FF";
  for (int i = 0; i < 255; ++i) argument += "1E";
  const SignalBuffer buffer = One(argument + ")");
  EXPECT_EQ(buffer[kSignalBufferSize - 2], ' ');
  EXPECT_EQ(buffer[kSignalBufferSize - 1], '\0');
  // A key record cut short keeps what is there.
  EXPECT_EQ(Content(One("X-P/las(0000180000FF41", false)), "key\xff" "A");
}

TEST(MgcpSignalTest, KeyStates) {
  const char* states[] = {"off", "gon", "g3i", "g3si", "g6i", "g6si", "g12i", "g24i",
                          "ron", "r3i", "r3si", "r6i", "r6si", "r12i", "r24i"};
  for (std::uint32_t state = 0; state < 15; ++state) {
    const SignalBuffer buffer = One("X-P/ks(0c2F," + std::string(states[state]) + ")");
    EXPECT_EQ(Content(buffer).substr(0, 2), "ks") << states[state];
    EXPECT_LE(Content(buffer).size(), 10u);
    EXPECT_EQ(LoadSignalU32(buffer, kKsKeyCodeOffset), 0x0C2Fu);
    EXPECT_EQ(LoadSignalU32(buffer, kKsStateOffset), state) << states[state];
  }
  for (const char* bad : {"0201,gon12", "0201,go", "0201,xyz", "201,gon", "02011,gon"}) {
    EXPECT_EQ(Content(One("X-P/ks(" + std::string(bad) + ")")), "") << bad;
  }
}

// kind, four volumes, ring class, pattern, melody.
std::vector<std::int32_t> ToneFields(const SignalBuffer& b) {
  std::vector<std::int32_t> v{LoadSignalI32(b, kToneKindOffset)};
  for (std::size_t i = 0; i < 4; ++i) v.push_back(LoadSignalI32(b, kToneVolumeOffset + 4 * i));
  for (std::size_t offset : {kToneRingClassOffset, kTonePatternOffset, kToneMelodyOffset}) {
    v.push_back(LoadSignalI32(b, offset));
  }
  return v;
}

TEST(MgcpSignalTest, ToneRecords) {
  struct Row { const char *signal, *marker; std::vector<std::int32_t> fields; int ringer; };
  const Row rows[] = {
      {"X-P/vctl(0300)", "voff_tone", {2, -1, -1, -1, 0, -1, -1, -1}, 0},
      {"X-P/vctl(0100)", "mgcp_tone", {2, -1, 0, -1, -1, -1, -1, -1}, 1},
      {"X-P/vctl(0308)", "mgcp_tone", {2, -1, -1, -1, 8, -1, -1, -1}, 1},
      {"X-P/vctl(0708)", "mgcp_tone", {2, -1, -1, -1, -1, -1, -1, -1}, 1},
      {"X-P/ring(000000)", "voff", {0, 0, 0, 0, 0, 0, 0, 0}, 0},
      {"X-P/ring(000100)", "mgcp_tone", {1, -1, -1, -1, -1, 0, 1, 0}, 1},
      {"X-P/ring(03FFa0)", "mgcp_tone", {1, -1, -1, -1, -1, 3, 255, 160}, 1},
  };
  for (const Row& row : rows) {
    std::uint8_t ringer = 9;
    const SignalBuffer buffer = One(row.signal, true, &ringer);
    EXPECT_EQ(std::string(buffer.data()), row.marker) << row.signal;
    EXPECT_EQ(ToneFields(buffer), row.fields) << row.signal;
    EXPECT_EQ(ringer, row.ringer) << row.signal;
  }
  // tone: fixed positions up to the parenthesis: value 1, value 2 and three flags.
  struct ToneRow { const char* argument; std::vector<std::uint32_t> fields; };
  const ToneRow tones[] = {
      {"1F,1,0,1,,2A)", {0x1F, 0x2A, 1, 0, 1}}, {"1F,0,9,0,,2A)", {0x1F, 0x2A, 0, 1, 0}},
      {"1F,1,1,1)", {0x1F, 0, 1, 1, 1}}, {"1F,1)", {0x1F, 0, 1, 0, 0}}, {")", {0, 0, 0, 0, 0}},
  };
  for (const ToneRow& row : tones) {
    const SignalBuffer buffer = One("X-P/tone("s + row.argument);
    EXPECT_EQ(Content(buffer).substr(0, 4), "tone") << row.argument;
    EXPECT_LE(Content(buffer).size(), 15u) << row.argument;
    std::vector<std::uint32_t> fields{LoadSignalU32(buffer, kToneRecordValue1Offset),
                                      LoadSignalU32(buffer, kToneRecordValue2Offset)};
    for (std::size_t i = 0; i < 3; ++i) fields.push_back(buffer[kToneRecordFlagsOffset + i]);
    EXPECT_EQ(fields, row.fields) << row.argument;
  }
}

TEST(MgcpSignalTest, PbxSettings) {
  // Marker | program mode | key pad mode. cspc count 10: "0102" steps 4, "0003" is a zero item
  // carrying mode 3, "0405" steps 4. The last zero item wins; a cut list keeps what was read.
  const std::pair<const char*, const char*> rows[] = {
      {"X-P/pgmm(05)", "pbx_setting|5|-1"}, {"X-P/cspc(0A010200030405)", "pbx_setting|-1|3"},
      {"X-P/cspc(100001000701020009)", "pbx_setting|-1|9"}, {"X-P/cspc(FF", "pbx_setting|-1|-1"}};
  for (auto [signal, fields] : rows) {
    const SignalBuffer b = One(signal);
    const std::int32_t program = LoadSignalI32(b, kPbxProgramModeOffset);
    const std::int32_t keypad = LoadSignalI32(b, kPbxKeyPadModeOffset);
    EXPECT_EQ(std::string(b.data()) + "|" + std::to_string(program) + "|" + std::to_string(keypad),
              fields) << signal;
  }
}

std::uint32_t SlcCount(const SignalBuffer& buffer, std::size_t index) {
  return LoadSignalU32(buffer, kSlcEntriesOffset + kSlcEntrySize * index);
}
std::uint8_t SlcByte(const SignalBuffer& buffer, std::size_t index, std::size_t i) {
  return static_cast<std::uint8_t>(buffer[kSlcEntriesOffset + kSlcEntrySize * index + 4 + i]);
}

TEST(MgcpSignalTest, LampEntriesMaskAndCaps) {
  // Index 0 with three bytes, index 37 with one; index 0x40 is skipped whole.
  SignalBuffer buffer = One("X-P/slc(010300" "03AABBCC" "4002EEEE" "2501DD)");
  EXPECT_EQ(Content(buffer).substr(0, 3), "slc");
  EXPECT_LE(Content(buffer).size(), 3 + kSlcRecordSize);
  EXPECT_EQ(LoadSignalI32(buffer, kSlcEntryCountOffset), 3);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), 1u);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset + 4), 1u << 5);
  EXPECT_EQ(SlcCount(buffer, 0), 3u);
  EXPECT_EQ(SlcByte(buffer, 0, 2), 0xCC);
  EXPECT_EQ(SlcCount(buffer, 37), 1u);
  EXPECT_EQ(SlcByte(buffer, 37, 0), 0xDD);
  EXPECT_EQ(Content(One("X-P/slc(0100)")), "slc");

  // 49 announced entries: only 48 are read; the 49th would have given entry 0 a byte.
  std::string entries;
  const char* hex = "0123456789ABCDEF";
  for (int i = 0; i < 48; ++i) entries += {hex[i / 16], hex[i % 16], '0', '0'};
  buffer = One("X-P/slc(0131" + entries + "0001FF)");
  EXPECT_EQ(LoadSignalI32(buffer, kSlcEntryCountOffset), 48);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), 0xFFFFFFFFu);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset + 4), 0xFFFFu);
  EXPECT_EQ(SlcCount(buffer, 0), 0u);

  // A byte count above 12 keeps 12, and the walk steps over only those: the two bytes left
  // over are read as the next entry's index (0x01) and count (0x00).
  buffer = One("X-P/slc(010202" "0E" "0102030405060708090A0B0C" "0100)");
  EXPECT_EQ(SlcCount(buffer, 2), 12u);
  EXPECT_EQ(SlcByte(buffer, 2, 11), 0x0C);
  EXPECT_EQ(LoadSignalU32(buffer, kSlcPresentMaskOffset), (1u << 2) | (1u << 1));
}

}  // namespace
}  // namespace deskline
