// The phone's command language: one command per line typed on stdin, or several in a script
// separated by ';' or newlines. Parsing is pure: nothing here touches the library.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace deskline::phone {

// Key codes the phone's buttons send. The PBX gives them their meaning; these are the ones
// this host assigns to its named buttons.
inline constexpr std::uint32_t kKeyOnHook = 0x0100;
inline constexpr std::uint32_t kKeyOffHook = 0x0200;
inline constexpr std::uint32_t kKeyHold = 0x0b00;
inline constexpr std::uint32_t kKeyTransfer = 0x0b01;
inline constexpr std::uint32_t kKeyPause = 0x0b08;
inline constexpr std::uint32_t kKeySpeaker = 0x1100;
inline constexpr std::uint32_t kKeyLine0 = 0x0a05;  // line key 0; 1..48 are 0x0c00..0x0c2f
inline constexpr int kLineKeyCount = 49;
// The engine refuses longer dial strings.
inline constexpr std::size_t kMaxDialLength = 40;

enum class CommandKind {
  kNone,        // blank line or comment
  kKey,         // put_key(key)
  kResume,      // put_key of the held line's key (chosen when run, from the lamps)
  kDial,        // make_call(text), formatted first when `format` is set
  kFormat,      // print what the number formatter makes of `text`
  kSendError,   // send_error(number)
  kWait,        // pause for `duration`
  kWaitRing,    // wait until a ring arrives
  kWaitMedia,   // wait until the voice path opens
  kWaitEnd,     // wait until the call ends
  kStatus,      // print the summary so far
  kDevices,     // list the sound card's input and output devices
  kHelp,
  kQuit,
};

struct Command {
  CommandKind kind = CommandKind::kNone;
  std::uint32_t key = 0;               // kKey
  std::uint32_t number = 0;            // kSendError
  std::string text;                    // kDial, kFormat
  bool format = false;                 // kDial: a contact-list number to format first
  std::chrono::milliseconds duration{0};  // kWait; the timeout of the kWait* kinds
  std::string source;                  // the words as written, for messages
};

struct ParseResult {
  std::optional<Command> command;  // empty: `error` says why
  std::string error;
};

// Parses one command. Unknown words, bad numbers and out-of-range keys give a clear error.
ParseResult ParseCommand(std::string_view line);

// Splits a script at ';' and newlines into trimmed, non-empty pieces.
std::vector<std::string> SplitScript(std::string_view script);

// "3s", "1.5s", "250ms", "2m". A bare number has no unit and is refused.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

// Key code of line key `index` (0..48), or nullopt.
std::optional<std::uint32_t> LineKeyCode(int index);
// Line key index of a key code, or -1 when the key is no line key.
int LineKeyIndex(std::uint32_t key);

// True when `text` is a dial string the engine takes: 1 to 40 of 0-9 * # P W.
bool IsDialString(std::string_view text);

const char* CommandHelp();

}  // namespace deskline::phone
