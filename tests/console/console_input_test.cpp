// Standard input as the programs read it: chunks that split lines anywhere, silences, the end.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/console_input.h"
#include "testing/eventually.h"

namespace deskline::platform {
namespace {

// Hands out the chunks (at most 512 bytes each, the reader's read size) in order; "" stands for a read that found nothing in time. After the
// last chunk: the end of input, or silence for ever when `endless`.
ConsoleInput::Read Script(std::vector<std::string> chunks, bool endless = false) {
  auto next = std::make_shared<std::size_t>(0);
  return [chunks = std::move(chunks), next, endless](char* buffer, std::size_t size, int) -> long {
    if (*next >= chunks.size()) return endless ? -1 : 0;
    const std::string& chunk = chunks[(*next)++];
    if (chunk.empty()) return -1;
    const std::size_t n = std::min(size, chunk.size());
    std::memcpy(buffer, chunk.data(), n);
    return static_cast<long>(n);
  };
}

std::vector<std::string> TakeAll(ConsoleInput& input) {
  std::vector<std::string> lines;
  EXPECT_TRUE(testing::Eventually([&] {
    for (std::string line; input.Take(&line);) lines.push_back(line);
    return input.ended();
  }));
  return lines;
}

TEST(ConsoleInputTest, LinesAcrossChunksSilencesAndTheEnd) {
  ConsoleInput input(Script({"off", "hook\nline 1\nqu", "", "", "it"}));
  ASSERT_TRUE(input.Start());
  EXPECT_EQ(TakeAll(input), (std::vector<std::string>{"offhook", "line 1", "quit"}))
      << "a last line without its end still counts";
  EXPECT_EQ(input.lines_read(), 3u);
}

TEST(ConsoleInputTest, AnEndlessLineIsCutSoMemoryStaysBounded) {
  // Twelve reads of 512 bytes without a newline, then one.
  std::vector<std::string> chunks(12, std::string(512, 'x'));
  chunks.push_back("\n");
  const std::size_t flood = 12 * 512;
  ConsoleInput input(Script(chunks));
  ASSERT_TRUE(input.Start());
  const std::vector<std::string> lines = TakeAll(input);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_GT(lines[0].size(), ConsoleInput::kMaxLineBytes);
  EXPECT_LE(lines[0].size(), ConsoleInput::kMaxLineBytes + 512);
  EXPECT_EQ(lines[0].size() + lines[1].size(), flood);
}

TEST(ConsoleInputTest, QuitTakenOnlyFromLinesReadSinceAWaitBegan) {
  ConsoleInput input(Script({"quit\nring\n", "", "quit\n"}, /*endless=*/true));
  ASSERT_TRUE(input.Start());
  ASSERT_TRUE(testing::Eventually([&] { return input.lines_read() == 3; }));
  auto is_quit = [](const std::string& line) { return line == "quit"; };
  EXPECT_TRUE(input.TakeFirstSince(1, is_quit)) << "line 2 is a quit";
  EXPECT_FALSE(input.TakeFirstSince(1, is_quit)) << "line 0 is before the wait";
  std::string line;
  ASSERT_TRUE(input.Take(&line));
  EXPECT_EQ(line, "quit");
  ASSERT_TRUE(input.Take(&line));
  EXPECT_EQ(line, "ring");
  EXPECT_FALSE(input.ended()) << "input that never ends";
  input.Stop();  // returns although nobody types
}

}  // namespace
}  // namespace deskline::platform
