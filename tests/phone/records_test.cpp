#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "tools/phone/phone_view.h"
#include "tools/phone/records.h"

namespace deskline::phone {
namespace {

using namespace std::string_view_literals;

// Exactly the bytes of `s` (zeros included), so a read past them trips the sanitizers.
std::vector<std::byte> B(std::string_view s) {
  const auto* p = reinterpret_cast<const std::byte*>(s.data());
  return {p, p + s.size()};
}

// `head`, zero-filled to `size` bytes, with 32-bit `fields` in this machine's order from `at`.
std::vector<std::byte> Record(std::string_view head, std::size_t size, std::size_t at = 0,
                              std::initializer_list<std::int32_t> fields = {}) {
  std::vector<std::byte> bytes = B(head);
  bytes.resize(size);
  for (std::int32_t v : fields) std::memcpy(bytes.data() + std::exchange(at, at + 4), &v, 4);
  return bytes;
}

// Each record decoded and shown as the phone prints it.
TEST(PhoneDisplayTest, MarkersAndWrites) {
  const std::pair<std::vector<std::byte>, const char*> rows[] = {
      {B("\0\0"sv), "display (nothing)"},
      {{}, "display (nothing)"},
      {B("cls\0"sv), "display clear"},
      {B("navend\0"sv), "display navigation end"},
      {B("rkey\0"sv), "display rkey"},
      {B("lcdb0\0"sv), "display lcdb0"},
      {B("cll\3\0"sv), "display clear row 2"},
      {B("key\1\x42\0"sv), "display key 66"},
      {B("key\x09\7"sv), "display key 7"},  // the count runs past the end
      {B("lcdb1\x0b\x0a\x0c\0"sv), "display lcdb1 9 10 11"},  // in arrival order
      {B("clp\0\0\2\1\3\0"sv), "display clp 0 1 2"},
      {B("lcdb2\5\0"sv), "display lcdb2 4"},
      // Values 1..5 plus one; masks 0xFA and 0xF0 mark, bit 3 first, which bytes were 0.
      {B("dtms\2\3\4\5\6\xFA\1\7\1\x08\xF0\x09\x0a\x0b\x0c" "Bob\0"sv),
       "display dtms 1 2 3 4 5 0 7 0 8 9 10 11 12 \"Bob\""},
      {B("\2\5      Hello\0"sv), "display row 1 col 4: \"Hello\""},
      {B("\1\1      ABC"sv), "display row 0 col 0: \"ABC\""},  // unterminated
      {B("\1\1      A\3\xe9\\\0"sv), "display row 0 col 0: \"A\\x03\\xe9\\x5c\""},
      {B("\1\1     >\0"sv), "display cursor '>' row 0 col 0"},
      {B("\3\1\1\0\5\3\4 \0"sv), "display attributes row 2 0 5 2 3"},
      {B("\1\1 "sv), "display (unrecognised record)"},  // short header
      {B("zzzzzzzz\0"sv), "display (unrecognised record)"},
  };
  for (const auto& [bytes, line] : rows) {
    SCOPED_TRACE(line);
    EXPECT_EQ(DescribeDisplay(DecodeDisplay(bytes)), line);
  }
}

TEST(PhoneDisplayTest, ModelDrawsClearsAndEscapes) {
  DisplayModel model;
  for (const auto write : {"\1\1      Line 1  idle\0"sv, "\1\x09      busy\0"sv, "\3\4      x\1\0"sv}) {
    model.Apply(DecodeDisplay(B(write)));
  }
  EXPECT_EQ(model.Render(), (std::vector<std::string>{"row 0: Line 1  busy", "row 2:    x\\x01"}));
  model.Apply(DecodeDisplay(B("cll\1\0"sv)));
  EXPECT_EQ(model.Render(), (std::vector<std::string>{"row 2:    x\\x01"}));
  model.Apply(DecodeDisplay(B("cls\0"sv)));
  EXPECT_TRUE(model.Render().empty());
}

TEST(PhoneEventTest, RecordsBehindTheMarkers) {
  // Ring: kind 1, four volume slots, class, pattern, melody.
  const auto ring = Record("mgcp_tone\0"sv, 1024, 10, {1, -1, -1, -1, -1, 1, 2, 3});
  EXPECT_EQ(DescribeEvent(kEventRing, ring), "ring pattern 2 melody 3 (class 1)");
  const auto volume = Record("mgcp_tone\0"sv, 1024, 10, {2, -1, -1, -1, 5, 1, 2, 3});
  EXPECT_EQ(DescribeEvent(kEventTone, volume), "volume ringer 5 (slots -1 -1 -1)");
  // The record is cut short: no fields are made up.
  EXPECT_FALSE(DecodeToneRequest(std::span(ring).first(41)));
  EXPECT_EQ(DescribeEvent(kEventRing, std::span(ring).first(20)), "ring (no tone record)");

  EXPECT_EQ(DescribeEvent(kEventPbxSetting, Record("pbx_setting\0"sv, 20, 12, {4, -1})),
            "pbx setting program mode 4");
  // Two 32-bit values (little-endian here) and three flag bytes.
  const auto tone_record = B("tone\x21\0\0\0\x0a\0\0\0\1\0\1\0"sv);
  EXPECT_EQ(DescribeEvent(kEventToneRecord, tone_record), "tone record 33 10 flags 1 0 1");
  EXPECT_EQ(DescribeEvent(kEventToneRecord, std::span(tone_record).first(15)), "tone record (short)");

  EXPECT_EQ(DescribeEvent(kEventCodec, B("G.729")), "codec G.729");
  EXPECT_EQ(DescribeEvent(kEventCodec, {}), "codec (none)");
  EXPECT_EQ(DescribeEvent(99, {}), "event 99 (0 bytes)");
}

TEST(PhoneEventTest, SlcEntriesByMaskWithCountsCapped) {
  // 49 announced; the mask holds entries 1 and 47; each entry is a count and up to 12 bytes.
  auto slc = Record("slc", 975, 3, {49, 1 << 1, 1 << (47 - 32)});
  std::memcpy(slc.data() + 15 + 1 * 20, "\2\0\0\0\xab\xcd", 6);
  std::memcpy(slc.data() + 15 + 47 * 20, "\xe8\3\0\0", 4);  // 1000: more than an entry holds
  const auto record = DecodeSlcRecord(slc);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->announced, 49);
  ASSERT_EQ(record->entries.size(), 2u);
  EXPECT_EQ(record->entries[0].index, 1);
  EXPECT_EQ(record->entries[0].bytes, (std::vector<std::uint8_t>{0xab, 0xcd}));
  EXPECT_EQ(record->entries[1].index, 47);
  EXPECT_EQ(record->entries[1].bytes.size(), 12u);
  EXPECT_FALSE(DecodeSlcRecord(std::span(slc).first(974)));
}

TEST(PhoneEventTest, ReadableBytesFollowTheCode) {
  EXPECT_EQ(ReadableEventBytes(kEventRing, 9), kSignalBufferBytes);
  EXPECT_EQ(ReadableEventBytes(kEventTone, 9), kSignalBufferBytes);
  EXPECT_EQ(ReadableEventBytes(kEventPbxSetting, 11), kSignalBufferBytes);
  EXPECT_EQ(ReadableEventBytes(kEventEnd, 3), 3u);  // may be a bare "end"
  EXPECT_EQ(ReadableEventBytes(kEventToneRecord, 16), 16u);
  EXPECT_EQ(ReadableEventBytes(kEventSlcRecord, 975), 975u);
  EXPECT_EQ(ReadableEventBytes(kEventMediaClosed, 0), 0u);
}

TEST(PhoneViewTest, LampsAndSystemCodesRead) {
  PhoneView view;
  EXPECT_EQ(view.OnLamp(0x0c00, 1), "lamp   0x0c00 (line 1) gon");
  EXPECT_EQ(view.OnLamp(0x0a05, 14), "lamp   0x0a05 (line 0) r24i");
  EXPECT_EQ(view.OnLamp(0x0c30, 5), "lamp   0x0c30 g6si");
  EXPECT_EQ(view.OnLamp(0x0200, 15), "lamp   0x0200 unknown");  // one past the last state
  EXPECT_EQ(view.OnSystem(kSystemConnectionLost), "system the PBX fell silent: connection lost");
  EXPECT_TRUE(view.connection_lost());
  EXPECT_EQ(view.OnSystem(kSystemRestartDemanded), "system the PBX demands a restart");
  EXPECT_TRUE(view.restart_demanded());
  EXPECT_EQ(view.OnSystem(static_cast<std::uint32_t>(-3)), "system code -3 from the PBX");
}

}  // namespace
}  // namespace deskline::phone
