// Ini files: the PTAP port file's integers and the settings store's documents.
#include "platform/ini.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

using Int = std::optional<int>;

TEST(IniTest, ReadIniIntFindsOnlyWholeDecimalValuesUnderExactNames) {
  testing::TempDir dir;
  const std::string path = dir.File("PTAP_Conf");
  const auto read = [&](const std::string& content, const char* section, const char* key) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return ReadIniInt(path, section, key);
  };
  const std::string windows =
      "\xEF\xBB\xBF; ports\r\n[PTAP_PORT]\r\nClientPort = 19301\r\nServerPort=19300\r\n";
  const std::string dotted = "[Soft\\Deskline.v2]\nPort of the.phone=5\n[Soft]\nDeskline=6\n";
  const struct { std::string file; const char *section, *key; Int expected; } rows[] = {
      {windows, "PTAP_PORT", "ClientPort", 19301},
      {windows, "PTAP_PORT", "ServerPort", 19300},
      {dotted, "Soft\\Deskline.v2", "Port of the.phone", 5},
      {dotted, "Soft", "Deskline", 6},
      {dotted, "Soft", "Deskline.v2", std::nullopt},  // a dot is not a path separator
      {windows, "ptap_port", "ClientPort", std::nullopt},
      {"ClientPort=1\n", "PTAP_PORT", "ClientPort", std::nullopt},
      // Malformed anywhere means unreadable.
      {"[PTAP_PORT]\nClientPort=1\nno equals\n", "PTAP_PORT", "ClientPort", std::nullopt},
      {"[PTAP_PORT\nClientPort=1\n", "PTAP_PORT", "ClientPort", std::nullopt},
      {"[PTAP_PORT]\nClientPort=1\nClientPort=2\n", "PTAP_PORT", "ClientPort", std::nullopt},
      {"[PTAP_PORT]\nClientPort=1\n[PTAP_PORT]\nX=2\n", "PTAP_PORT", "ClientPort", std::nullopt},
      {"[PTAP_PORT]\n=1\nClientPort=1\n", "PTAP_PORT", "ClientPort", std::nullopt},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.file + r.section + "/" + r.key);
    EXPECT_EQ(read(r.file, r.section, r.key), r.expected);
  }
  const std::pair<const char*, Int> values[] = {
      {"\t9301 ", 9301}, {"+17", 17}, {"-0", 0}, {"0009", 9}, {"\"9301\"", 9301},
      {"2147483647", 2147483647}, {"-2147483648", -2147483647 - 1},
      {"2147483648", std::nullopt}, {"99999999999999999999", std::nullopt},
      {"", std::nullopt}, {"-", std::nullopt}, {"+-1", std::nullopt}, {"12abc", std::nullopt},
      {"1 2", std::nullopt}, {"0x10", std::nullopt}, {"1e3", std::nullopt},
      {"9301 ; comment", std::nullopt},
  };
  for (const auto& [value, expected] : values) {
    SCOPED_TRACE(value);
    EXPECT_EQ(read(std::string("[P]\nC=") + value + "\n", "P", "C"), expected);
  }
  EXPECT_EQ(ReadIniInt(dir.File("missing"), "P", "C"), std::nullopt);
}

TEST(IniTest, DocumentValuesReadBackExactlyAndSetKeepsTheRest) {
  const char* const values[] = {"System Default", "", " leading", "trailing ", "  ",
                                "\"quoted\"", "\"", "half \"quoted", "a=b;c#d [e]",
                                "Kopfh\xc3\xb6rer \xe2\x99\xab", "tab\tinside"};
  IniDocument document;
  ASSERT_TRUE(document.Load("top=1\n[A]\nx=1\ny=2\n[B]\nz=3\n"));
  ASSERT_TRUE(document.Set("A", "x", "changed"));
  ASSERT_TRUE(document.Set("C", "w", "4"));
  EXPECT_EQ(document.Serialize(),
            std::optional<std::string>("top=1\n[A]\nx=changed\ny=2\n[B]\nz=3\n[C]\nw=4\n"));
  for (int i = 0; i < std::ssize(values); ++i) {
    ASSERT_TRUE(document.Set("Soft\\Deskline.v2", "Value " + std::to_string(i), values[i]));
  }
  IniDocument loaded;
  ASSERT_TRUE(loaded.Load(document.Serialize().value_or("")));
  for (int i = 0; i < std::ssize(values); ++i) {
    EXPECT_EQ(loaded.Get("Soft\\Deskline.v2", "Value " + std::to_string(i)),
              std::optional<std::string>(values[i]));
  }
}

// Found by the settings fuzz target: a first key whose name begins with the bytes of a byte
// order mark lost them on the next write and read, as if they were the file's mark.
TEST(IniTest, AFirstNameThatBeginsWithAByteOrderMarkSurvivesAWriteAndARead) {
  const std::string bom = "\xEF\xBB\xBF";
  for (const std::string& text : {bom + bom + "\x02k=v\n", bom + "k=v\n", bom + "[" + bom + "s]\nk=v\n"}) {
    SCOPED_TRACE(text);
    IniDocument document;
    ASSERT_TRUE(document.Load(text));
    const std::optional<std::string> written = document.Serialize();
    ASSERT_TRUE(written.has_value());
    IniDocument again;
    ASSERT_TRUE(again.Load(*written));
    EXPECT_EQ(again.Serialize(), written);
  }
  // The name's own mark stays behind a file mark; a plain file is written without one.
  IniDocument document;
  ASSERT_TRUE(document.Load(bom + bom + "\x02k=v\n"));
  EXPECT_EQ(document.Serialize(), std::optional<std::string>(bom + bom + "\x02k=v\n"));
  ASSERT_TRUE(document.Load(bom + "k=v\n"));
  EXPECT_EQ(document.Serialize(), std::optional<std::string>("k=v\n"));
}

TEST(IniTest, DocumentRefusesWhatWouldNotReadBackAndDropsMalformedText) {
  const std::array<std::string_view, 3> refused[] = {
      {"", "k", "v"},     {" S", "k", "v"},   {"S ", "k", "v"},  {"S]x", "k", "v"},
      {"S\n", "k", "v"},  {"S", "", "v"},     {"S", " k", "v"},  {"S", "k\t", "v"},
      {"S", "k=1", "v"},  {"S", ";k", "v"},   {"S", "#k", "v"},  {"S", "[k", "v"},
      {"S", "k\r", "v"},  {"S", "k", "a\nb"}, {"S", "k", "a\rb"},
      {"S", "k", std::string_view("a\0b", 3)},
      {"top", "k", "v"},  // already a key outside any section
  };
  IniDocument document;
  ASSERT_TRUE(document.Load("top=1\n[S]\nk=old\n"));
  for (const auto& [section, key, value] : refused) {
    EXPECT_FALSE(document.Set(section, key, value)) << section << "|" << key << "|" << value;
  }
  EXPECT_EQ(document.Serialize(), std::optional<std::string>("top=1\n[S]\nk=old\n"));
  EXPECT_TRUE(document.Set("[S", "k]", "v")) << "']' and '=' where they do no harm";
  EXPECT_TRUE(document.Set("S=", "k", "v"));

  EXPECT_FALSE(document.Load("[A]\nx=1\nno equals sign\n"));
  EXPECT_EQ(document.Get("A", "x"), std::nullopt);
  EXPECT_EQ(document.Serialize(), std::optional<std::string>(""));
  EXPECT_TRUE(document.Load("; only a comment\n# and another\n\n"));
}

}  // namespace
}  // namespace deskline::platform
