// Ini files: the PTAP port file's integers and the settings store's documents.
#include "platform/ini.h"

#include <gtest/gtest.h>

#include <fstream>

#include "testing/temp_dir.h"

namespace deskline::platform {
namespace {

using testing::TempDir;

class ReadIniIntTest : public ::testing::Test {
 protected:
  std::optional<int> Read(const std::string& content, const std::string& section,
                          const std::string& key) {
    {
      std::ofstream out(path_, std::ios::binary | std::ios::trunc);
      out << content;
    }
    return ReadIniInt(path_, section, key);
  }
  // The value of ClientPort in a one-line PTAP_PORT section.
  std::optional<int> Port(const std::string& value) {
    return Read("[PTAP_PORT]\nClientPort=" + value + "\n", "PTAP_PORT", "ClientPort");
  }

  TempDir dir_;
  std::string path_ = dir_.File("PTAP_Conf");
};

TEST_F(ReadIniIntTest, ReadsBothPortsOfAWindowsStyleFile) {
  const std::string file =
      "\xEF\xBB\xBF; ports of the terminal protocol\r\n"
      "[PTAP_PORT]\r\n"
      "ClientPort = 19301\r\n"
      "ServerPort=19300\r\n";
  EXPECT_EQ(Read(file, "PTAP_PORT", "ClientPort"), std::optional<int>(19301));
  EXPECT_EQ(Read(file, "PTAP_PORT", "ServerPort"), std::optional<int>(19300));
}

TEST_F(ReadIniIntTest, ValueMustBeADecimalIntegerThatFits) {
  const struct {
    const char* value;
    std::optional<int> expected;
  } cases[] = {
      {"9301", 9301},
      {"   9301", 9301},
      {"9301\t", 9301},
      {"+17", 17},
      {"-42", -42},
      {"-0", 0},
      {"0009", 9},
      {"\"9301\"", 9301},  // quotes are not part of a value
      {"2147483647", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"2147483648", std::nullopt},
      {"99999999999999999999", std::nullopt},
      {"", std::nullopt},
      {"+", std::nullopt},
      {"-", std::nullopt},
      {"+-1", std::nullopt},
      {"--1", std::nullopt},
      {"12abc", std::nullopt},
      {"1 2", std::nullopt},
      {"0x10", std::nullopt},
      {"1e3", std::nullopt},
      {"9301 ; comment", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(Port(c.value), c.expected) << "'" << c.value << "'";
}

TEST_F(ReadIniIntTest, MissingOrMalformedGivesNothing) {
  EXPECT_EQ(ReadIniInt(dir_.File("missing"), "PTAP_PORT", "ClientPort"), std::nullopt);
  EXPECT_EQ(ReadIniInt(dir_.path().string(), "PTAP_PORT", "ClientPort"), std::nullopt);
  const std::string good = "[PTAP_PORT]\nClientPort=1\n";
  EXPECT_EQ(Read(good, "OTHER", "ClientPort"), std::nullopt);
  EXPECT_EQ(Read(good, "PTAP_PORT", "ServerPort"), std::nullopt);
  EXPECT_EQ(Read(good, "ptap_port", "ClientPort"), std::nullopt) << "names are exact";
  EXPECT_EQ(Read("ClientPort=1\n", "PTAP_PORT", "ClientPort"), std::nullopt)
      << "a key outside any section";
  EXPECT_EQ(Read("ClientPort=1\n", "ClientPort", ""), std::nullopt);
  // Each of these makes the whole file unreadable.
  for (const char* bad : {"[PTAP_PORT]\nClientPort\n", "[PTAP_PORT\nClientPort=1\n",
                          "[PTAP_PORT]\nClientPort=1\nClientPort=2\n",
                          "[PTAP_PORT]\nClientPort=1\n[PTAP_PORT]\nServerPort=2\n",
                          "[PTAP_PORT]\n=1\nClientPort=1\n"}) {
    EXPECT_EQ(Read(bad, "PTAP_PORT", "ClientPort"), std::nullopt) << bad;
  }
}

TEST_F(ReadIniIntTest, NamesWithDotsBackslashesAndBlanksAreNotSplit) {
  const std::string file =
      "[Software\\Halvoreen\\Deskline.v2\\Settings]\n"
      "Port of the.phone=5\n"
      "[Software]\n"
      "Halvoreen=6\n";
  EXPECT_EQ(Read(file, "Software\\Halvoreen\\Deskline.v2\\Settings", "Port of the.phone"),
            std::optional<int>(5));
  EXPECT_EQ(Read(file, "Software", "Halvoreen"), std::optional<int>(6));
  EXPECT_EQ(Read(file, "Software", "Halvoreen.Deskline"), std::nullopt);
}

TEST(IniDocumentTest, ValuesReadBackExactlyAfterSerializeAndLoad) {
  const char* const values[] = {
      "System Default",
      "",
      " leading blank",
      "trailing blank ",
      "  ",
      "\"quoted\"",
      "\"",
      "\"\"",
      "half \"quoted",
      "a=b;c#d [e]",
      "Kopfh\xc3\xb6rer (USB) \xe2\x99\xab",
      "tab\tinside",
  };
  IniDocument document;
  int index = 0;
  for (const char* value : values) {
    ASSERT_TRUE(document.Set("Software\\Halvoreen\\Deskline\\Settings",
                             "Value " + std::to_string(index++), value))
        << value;
  }
  const std::optional<std::string> text = document.Serialize();
  ASSERT_TRUE(text.has_value());
  IniDocument loaded;
  ASSERT_TRUE(loaded.Load(*text)) << *text;
  index = 0;
  for (const char* value : values) {
    EXPECT_EQ(loaded.Get("Software\\Halvoreen\\Deskline\\Settings",
                         "Value " + std::to_string(index++)),
              std::optional<std::string>(value));
  }
}

TEST(IniDocumentTest, SetReplacesInPlaceAndKeepsEverythingElse) {
  IniDocument document;
  ASSERT_TRUE(document.Load("top=1\n[A]\nx=1\ny=2\n[B]\nz=3\n"));
  ASSERT_TRUE(document.Set("A", "x", "changed"));
  ASSERT_TRUE(document.Set("C", "w", "4"));
  EXPECT_EQ(document.Serialize(),
            std::optional<std::string>("top=1\n[A]\nx=changed\ny=2\n[B]\nz=3\n[C]\nw=4\n"));
}

TEST(IniDocumentTest, SetRefusesWhatWouldNotReadBackTheSame) {
  const struct {
    const char* section;
    const char* key;
    const char* value;
  } refused[] = {
      {"", "k", "v"},        {" S", "k", "v"},      {"S ", "k", "v"},
      {"S]x", "k", "v"},     {"S\n", "k", "v"},     {"S", "", "v"},
      {"S", " k", "v"},      {"S", "k\t", "v"},     {"S", "k=1", "v"},
      {"S", ";k", "v"},      {"S", "#k", "v"},      {"S", "[k", "v"},
      {"S", "k\r", "v"},     {"S", "k", "line\nbreak"},
      {"S", "k", "carriage\rreturn"},
      {"top", "k", "v"},  // already a key outside any section
  };
  IniDocument document;
  ASSERT_TRUE(document.Load("top=1\n[S]\nk=old\n"));
  for (const auto& r : refused) {
    EXPECT_FALSE(document.Set(r.section, r.key, r.value))
        << "[" << r.section << "] " << r.key << "=" << r.value;
  }
  EXPECT_FALSE(document.Set("S", "k", std::string_view("nul\0inside", 10)));
  EXPECT_EQ(document.Serialize(), std::optional<std::string>("top=1\n[S]\nk=old\n"));
  // Allowed, though unusual: ']' and '=' where they do no harm.
  EXPECT_TRUE(document.Set("[S", "k]", "v"));
  EXPECT_TRUE(document.Set("S=", "k", "v"));
}

TEST(IniDocumentTest, MalformedTextLeavesAnEmptyDocument) {
  IniDocument document;
  ASSERT_TRUE(document.Load("[A]\nx=1\n"));
  EXPECT_FALSE(document.Load("[A]\nx=1\nno equals sign\n"));
  EXPECT_EQ(document.Get("A", "x"), std::nullopt);
  EXPECT_EQ(document.Serialize(), std::optional<std::string>(""));
  EXPECT_TRUE(document.Load(""));
  EXPECT_TRUE(document.Load("; only a comment\n# and another\n\n"));
}

}  // namespace
}  // namespace deskline::platform
