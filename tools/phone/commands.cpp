#include "tools/phone/commands.h"

#include "tools/phone/dial_rules.h"

#include <cctype>
#include <charconv>

namespace deskline::phone {
namespace {

constexpr std::chrono::milliseconds kDefaultWaitTimeout{60'000};
// Longer waits are almost certainly a typo ("wait 3000s"); refuse them clearly.
constexpr std::chrono::milliseconds kMaxDuration{24LL * 3600 * 1000};

std::string_view Trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

std::vector<std::string_view> Words(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    const std::size_t start = i;
    while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i > start) words.push_back(text.substr(start, i - start));
  }
  return words;
}

// Decimal, or hexadecimal behind "0x"; the whole word, at most `max`.
std::optional<std::uint32_t> ParseNumber(std::string_view word, std::uint32_t max) {
  int base = 10;
  if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
    word.remove_prefix(2);
    base = 16;
  }
  if (word.empty()) return std::nullopt;
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), value, base);
  if (ec != std::errc() || end != word.data() + word.size() || value > max) return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

ParseResult Fail(std::string error) { return ParseResult{std::nullopt, std::move(error)}; }

ParseResult Ok(Command command) { return ParseResult{std::move(command), {}}; }

struct NamedKey {
  std::string_view name;
  std::uint32_t key;
};
constexpr NamedKey kNamedKeys[] = {
    {"offhook", kKeyOffHook}, {"onhook", kKeyOnHook},   {"hold", kKeyHold},
    {"transfer", kKeyTransfer}, {"pause", kKeyPause}, {"speaker", kKeySpeaker},
};

ParseResult ParseWaitFor(CommandKind kind, const std::vector<std::string_view>& words,
                         Command command) {
  command.kind = kind;
  command.duration = kDefaultWaitTimeout;
  if (words.size() > 2) return Fail(std::string(words[0]) + ": at most one timeout, e.g. 30s");
  if (words.size() == 2) {
    const auto timeout = ParseDuration(words[1]);
    if (!timeout) return Fail(std::string(words[0]) + ": bad timeout '" + std::string(words[1]) + "'");
    command.duration = *timeout;
  }
  return Ok(std::move(command));
}

}  // namespace

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
  double scale = 0;
  if (text.size() > 2 && text.substr(text.size() - 2) == "ms") {
    scale = 1;
    text.remove_suffix(2);
  } else if (text.size() > 1 && text.back() == 's') {
    scale = 1000;
    text.remove_suffix(1);
  } else if (text.size() > 1 && text.back() == 'm') {
    scale = 60'000;
    text.remove_suffix(1);
  } else {
    return std::nullopt;
  }
  // Digits with at most one decimal point; no signs, no exponents.
  std::uint64_t whole = 0;
  std::uint64_t fraction = 0;
  std::uint64_t fraction_scale = 1;
  bool point = false;
  bool digits = false;
  for (char c : text) {
    if (c == '.' && !point) {
      point = true;
      continue;
    }
    if (c < '0' || c > '9') return std::nullopt;
    digits = true;
    if (!point) {
      whole = whole * 10 + static_cast<std::uint64_t>(c - '0');
      if (whole > 1'000'000'000) return std::nullopt;
    } else if (fraction_scale < 1'000'000) {
      fraction = fraction * 10 + static_cast<std::uint64_t>(c - '0');
      fraction_scale *= 10;
    }
  }
  if (!digits) return std::nullopt;
  const double ms = (static_cast<double>(whole) +
                     static_cast<double>(fraction) / static_cast<double>(fraction_scale)) * scale;
  if (ms > static_cast<double>(kMaxDuration.count())) return std::nullopt;
  return std::chrono::milliseconds(static_cast<std::int64_t>(ms + 0.5));
}

std::optional<std::uint32_t> LineKeyCode(int index) {
  if (index == 0) return kKeyLine0;
  if (index >= 1 && index < kLineKeyCount) return 0x0bffu + static_cast<std::uint32_t>(index);
  return std::nullopt;
}

int LineKeyIndex(std::uint32_t key) {
  if (key == kKeyLine0) return 0;
  if (key >= 0x0c00 && key <= 0x0c2f) return static_cast<int>(key - 0x0bff);
  return -1;
}

bool IsDialString(std::string_view text) {
  if (text.empty() || text.size() > kMaxDialLength) return false;
  for (char c : text) {
    const bool ok = (c >= '0' && c <= '9') || c == '*' || c == '#' || c == 'P' || c == 'W';
    if (!ok) return false;
  }
  return true;
}

std::vector<std::string> SplitScript(std::string_view script) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= script.size(); ++i) {
    if (i == script.size() || script[i] == ';' || script[i] == '\n') {
      const std::string_view piece = Trim(script.substr(start, i - start));
      if (!piece.empty()) pieces.emplace_back(piece);
      start = i + 1;
    }
  }
  return pieces;
}

ParseResult ParseCommand(std::string_view line) {
  line = Trim(line);
  Command command;
  command.source = std::string(line);
  if (line.empty() || line.front() == '#') return Ok(std::move(command));
  const std::vector<std::string_view> words = Words(line);
  const std::string_view verb = words[0];
  const std::string verb_text(verb);

  for (const NamedKey& named : kNamedKeys) {
    if (verb == named.name) {
      if (words.size() != 1) return Fail(verb_text + " takes no argument");
      command.kind = CommandKind::kKey;
      command.key = named.key;
      return Ok(std::move(command));
    }
  }
  if (verb == "resume") {
    if (words.size() != 1) return Fail("resume takes no argument");
    command.kind = CommandKind::kResume;
    return Ok(std::move(command));
  }
  if (verb == "line") {
    const auto index = words.size() == 2 ? ParseNumber(words[1], kLineKeyCount - 1) : std::nullopt;
    if (!index) return Fail("usage: line N (0-48)");
    command.kind = CommandKind::kKey;
    command.key = *LineKeyCode(static_cast<int>(*index));
    return Ok(std::move(command));
  }
  if (verb == "key") {
    const auto key = words.size() == 2 ? ParseNumber(words[1], 0xffff) : std::nullopt;
    if (!key) return Fail("usage: key CODE (e.g. 0x0c01)");
    command.kind = CommandKind::kKey;
    command.key = *key;
    return Ok(std::move(command));
  }
  // A contact-list number keeps its blanks: everything after the verb is the number.
  const std::string_view rest = Trim(line.substr(verb.size()));
  if (verb == "format") {
    if (rest.empty()) return Fail("usage: format NUMBER");
    command.kind = CommandKind::kFormat;
    command.text = std::string(rest);
    return Ok(std::move(command));
  }
  if (verb == "dial" || IsDialString(verb)) {
    const std::string_view number = verb == "dial" ? rest : verb;
    if (verb != "dial" && words.size() != 1) return Fail("usage: dial NUMBER");
    if (number.empty()) return Fail("usage: dial NUMBER");
    command.kind = CommandKind::kDial;
    command.text = std::string(number);
    if (IsDialString(number)) return Ok(std::move(command));
    if (verb == "dial" && NeedsFormatting(number)) {
      command.format = true;
      return Ok(std::move(command));
    }
    return Fail("not a dial string: '" + std::string(number) +
                "' (1 to 40 of 0-9 * # P W, or a number with blanks, brackets or + to format)");
  }
  if (verb == "error") {
    const auto code = words.size() == 2 ? ParseNumber(words[1], 0xff) : std::nullopt;
    if (!code) return Fail("usage: error CODE (0-255)");
    command.kind = CommandKind::kSendError;
    command.number = *code;
    return Ok(std::move(command));
  }
  if (verb == "wait") {
    if (words.size() != 2) return Fail("usage: wait DURATION (e.g. 3s, 500ms)");
    const auto duration = ParseDuration(words[1]);
    if (!duration) {
      return Fail("wait: bad duration '" + std::string(words[1]) + "' (give a unit: 3s, 500ms)");
    }
    command.kind = CommandKind::kWait;
    command.duration = *duration;
    return Ok(std::move(command));
  }
  if (verb == "wait-ring") return ParseWaitFor(CommandKind::kWaitRing, words, std::move(command));
  if (verb == "wait-media") return ParseWaitFor(CommandKind::kWaitMedia, words, std::move(command));
  if (verb == "wait-end") return ParseWaitFor(CommandKind::kWaitEnd, words, std::move(command));
  if (words.size() == 1) {
    if (verb == "status") command.kind = CommandKind::kStatus;
    if (verb == "devices") command.kind = CommandKind::kDevices;
    if (verb == "help") command.kind = CommandKind::kHelp;
    if (verb == "quit" || verb == "exit") command.kind = CommandKind::kQuit;
    if (command.kind != CommandKind::kNone) return Ok(std::move(command));
  }
  return Fail("unknown command '" + verb_text + "' (try help)");
}

const char* CommandHelp() {
  return "commands (one a line, or ';' between them in a script):\n"
         "  offhook | onhook | hold | resume | transfer | speaker | pause\n"
         "  line N                 press line key N (0-48)\n"
         "  key CODE               press any key by code, e.g. key 0x0c01\n"
         "  dial NUMBER | NUMBER   dial 0-9 * # P W, up to 40 characters; a number with\n"
         "                         blanks, brackets or + is formatted first\n"
         "  format NUMBER          show what the number formatter makes of NUMBER\n"
         "  error CODE             send an error code to the PBX (0-255)\n"
         "  wait DURATION          pause, e.g. wait 3s, wait 500ms\n"
         "  wait-ring [TIMEOUT]    wait for a ring (default 60s)\n"
         "  wait-media [TIMEOUT]   wait until the voice path opens\n"
         "  wait-end [TIMEOUT]     wait until the call ends or its voice path closes\n"
         "  devices                list the sound devices (with --audio)\n"
         "  status | help | quit\n";
}

}  // namespace deskline::phone
