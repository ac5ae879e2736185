#include <gtest/gtest.h>

#include <cstring>

#include "tools/phone/phone_view.h"
#include "tools/phone/records.h"

namespace deskline::phone {
namespace {

// Bytes as the engine lays them out; only as many as the record has, so a read past them is
// an out-of-bounds read under the sanitizers.
std::vector<std::byte> Bytes(std::initializer_list<int> values) {
  std::vector<std::byte> bytes;
  for (int v : values) bytes.push_back(static_cast<std::byte>(v));
  return bytes;
}

std::vector<std::byte> Text(std::string_view text, bool terminate = true) {
  std::vector<std::byte> bytes;
  for (char c : text) bytes.push_back(static_cast<std::byte>(c));
  if (terminate) bytes.push_back(std::byte{0});
  return bytes;
}

std::vector<std::byte> Join(std::vector<std::byte> a, const std::vector<std::byte>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

void PutI32(std::vector<std::byte>& buffer, std::size_t at, std::int32_t value) {
  std::memcpy(buffer.data() + at, &value, sizeof(value));
}

TEST(PhoneDisplayTest, MarkersAndWrites) {
  struct Row {
    const char* name;
    std::vector<std::byte> bytes;
    DisplayKind kind;
    int row;
    int column;
    std::string text;
    std::vector<std::uint8_t> values;
  };
  const std::vector<Row> rows = {
      {"empty", Bytes({0, 0}), DisplayKind::kNothing, -1, -1, "", {}},
      {"nothing at all", {}, DisplayKind::kNothing, -1, -1, "", {}},
      {"clear", Text("cls"), DisplayKind::kClear, -1, -1, "", {}},
      {"navend", Text("navend"), DisplayKind::kNavEnd, -1, -1, "", {}},
      {"clear row 2", Join(Text("cll", false), Bytes({3, 0})), DisplayKind::kClearLine, 2, -1, "", {}},
      {"key", Join(Text("key", false), Bytes({1, 0x42, 0})), DisplayKind::kKey, -1, -1, "", {0x42}},
      {"key count past the end", Join(Text("key", false), Bytes({9, 7})), DisplayKind::kKey, -1, -1, "", {7}},
      {"rkey", Text("rkey"), DisplayKind::kReleaseKey, -1, -1, "", {}},
      {"lcdb0", Text("lcdb0"), DisplayKind::kMode, -1, -1, "", {}},
      {"lcdb1 in arrival order", Join(Text("lcdb1", false), Bytes({0x0b, 0x0a, 0x0c, 0})),
       DisplayKind::kMode, -1, -1, "", {9, 10, 11}},
      {"clp", Join(Text("clp", false), Bytes({0, 0, 2, 1, 3, 0})), DisplayKind::kMode, -1, -1, "", {0, 1, 2}},
      {"lcdb2", Join(Text("lcdb2", false), Bytes({5, 0})), DisplayKind::kMode, -1, -1, "", {4}},
      {"text at row 1 column 4", Join(Bytes({2, 5, ' ', ' ', ' ', ' ', ' ', ' '}), Text("Hello")),
       DisplayKind::kText, 1, 4, "Hello", {}},
      {"text running to the end unterminated", Join(Bytes({1, 1, ' ', ' ', ' ', ' ', ' ', ' '}), Text("ABC", false)),
       DisplayKind::kText, 0, 0, "ABC", {}},
      {"text bytes kept as sent", Join(Bytes({1, 1, ' ', ' ', ' ', ' ', ' ', ' '}), Bytes({'A', 3, 0xe9, 0})),
       DisplayKind::kText, 0, 0, "A\x03\xe9", {}},
      {"cursor", Bytes({1, 1, ' ', ' ', ' ', ' ', ' ', '>', 0}), DisplayKind::kCursor, 0, 0, "", {}},
      {"attributes", Bytes({1, 1, 1, 0, 5, 3, 4, ' ', 0}), DisplayKind::kAttributes, 0, 0, "", {0, 5, 2, 3}},
      {"short header", Bytes({1, 1, ' '}), DisplayKind::kUnknown, -1, -1, "", {}},
      {"garbage", Bytes({'z', 'z', 'z', 'z', 'z', 'z', 'z', 'z', 0}), DisplayKind::kUnknown, -1, -1, "", {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const DisplayRecord record = DecodeDisplay(row.bytes);
    EXPECT_EQ(record.kind, row.kind);
    EXPECT_EQ(record.row, row.row);
    EXPECT_EQ(record.column, row.column);
    EXPECT_EQ(record.text, row.text);
    EXPECT_EQ(record.values, row.values);
    EXPECT_FALSE(DescribeDisplay(record).empty());
  }
}

TEST(PhoneDisplayTest, DtmsRecordRestoresMaskedZeros) {
  std::vector<std::byte> bytes = Text("dtms", false);
  for (int v : {2, 3, 4, 5, 6}) bytes.push_back(static_cast<std::byte>(v));  // 1..5 plus one
  // Mask 0xF0 | 0b1010: the first and third bytes were 0 and stand as 1.
  for (int v : {0xFA, 1, 7, 1, 8}) bytes.push_back(static_cast<std::byte>(v));
  for (int v : {0xF0, 9, 10, 11, 12}) bytes.push_back(static_cast<std::byte>(v));
  bytes = Join(bytes, Text("Bob"));
  const DisplayRecord record = DecodeDisplay(bytes);
  EXPECT_EQ(record.kind, DisplayKind::kDtmf);
  EXPECT_EQ(record.values, (std::vector<std::uint8_t>{1, 2, 3, 4, 5, 0, 7, 0, 8, 9, 10, 11, 12}));
  EXPECT_EQ(record.text, "Bob");
}

TEST(PhoneDisplayTest, ModelDrawsClearsAndEscapes) {
  DisplayModel model;
  auto write = [&](int row, int column, std::string_view text) {
    model.Apply(DecodeDisplay(Join(Bytes({row + 1, column + 1, ' ', ' ', ' ', ' ', ' ', ' '}), Text(text))));
  };
  write(0, 0, "Line 1  idle");
  write(0, 8, "busy");
  write(2, 3, "x\x01");
  EXPECT_EQ(model.Render(), (std::vector<std::string>{"row 0: Line 1  busy", "row 2:    x\\x01"}));
  model.Apply(DecodeDisplay(Join(Text("cll", false), Bytes({1, 0}))));
  EXPECT_EQ(model.Render(), (std::vector<std::string>{"row 2:    x\\x01"}));
  model.Apply(DecodeDisplay(Text("cls")));
  EXPECT_TRUE(model.Render().empty());
}

TEST(PhoneEventTest, RecordsBehindTheMarkers) {
  std::vector<std::byte> ring(1024);
  std::memcpy(ring.data(), "mgcp_tone", 10);
  const std::int32_t fields[8] = {1, -1, -1, -1, -1, 1, 2, 3};
  std::memcpy(ring.data() + 10, fields, sizeof(fields));
  const auto tone = DecodeToneRequest(ring);
  ASSERT_TRUE(tone);
  EXPECT_EQ(tone->kind, 1);
  EXPECT_EQ(tone->ring_class, 1);
  EXPECT_EQ(tone->pattern, 2);
  EXPECT_EQ(tone->melody, 3);
  EXPECT_EQ(DescribeEvent(kEventRing, ring), "ring pattern 2 melody 3 (class 1)");
  PutI32(ring, 10, 2);   // a volume record: ringer 5 in slot 3
  PutI32(ring, 26, 5);
  EXPECT_EQ(DescribeEvent(kEventTone, ring), "volume ringer 5 (slots -1 -1 -1)");
  // The record is cut short: no fields are made up.
  EXPECT_FALSE(DecodeToneRequest(std::span(ring).first(41)));
  EXPECT_EQ(DescribeEvent(kEventRing, std::span(ring).first(20)), "ring (no tone record)");

  std::vector<std::byte> setting = Join(Text("pbx_setting"), std::vector<std::byte>(8));
  PutI32(setting, 12, 4);
  PutI32(setting, 16, -1);
  EXPECT_EQ(DescribeEvent(kEventPbxSetting, setting), "pbx setting program mode 4");

  std::vector<std::byte> tone_record = Join(Text("tone", false), std::vector<std::byte>(12));
  PutI32(tone_record, 4, 0x21);
  PutI32(tone_record, 8, 0x0a);
  tone_record[12] = std::byte{1};
  tone_record[14] = std::byte{1};
  EXPECT_EQ(DescribeEvent(kEventToneRecord, tone_record), "tone record 33 10 flags 1 0 1");
  EXPECT_EQ(DescribeEvent(kEventToneRecord, std::span(tone_record).first(15)), "tone record (short)");

  const std::string codec = "G.729";
  EXPECT_EQ(DescribeEvent(kEventCodec, std::as_bytes(std::span(codec))), "codec G.729");
  EXPECT_EQ(DescribeEvent(kEventCodec, {}), "codec (none)");
  EXPECT_EQ(DescribeEvent(99, {}), "event 99 (0 bytes)");
}

TEST(PhoneEventTest, SlcEntriesByMaskWithCountsCapped) {
  std::vector<std::byte> slc = Join(Text("slc", false), std::vector<std::byte>(972));
  PutI32(slc, 3, 49);
  PutI32(slc, 7, 1u << 1);       // entry 1
  PutI32(slc, 11, 1u << (47 - 32));  // entry 47
  PutI32(slc, 3 + 12 + 1 * 20, 2);
  slc[3 + 12 + 1 * 20 + 4] = std::byte{0xab};
  slc[3 + 12 + 1 * 20 + 5] = std::byte{0xcd};
  PutI32(slc, 3 + 12 + 47 * 20, 1000);  // more than an entry holds
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
  EXPECT_EQ(view.OnLamp(0x0200, 99), "lamp   0x0200 unknown");
  EXPECT_EQ(view.OnSystem(kSystemConnectionLost), "system the PBX fell silent: connection lost");
  EXPECT_TRUE(view.connection_lost());
  EXPECT_EQ(view.OnSystem(kSystemRestartDemanded), "system the PBX demands a restart");
  EXPECT_TRUE(view.restart_demanded());
  EXPECT_EQ(view.OnSystem(static_cast<std::uint32_t>(-3)), "system code -3 from the PBX");
}

}  // namespace
}  // namespace deskline::phone
