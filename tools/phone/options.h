// The phone's command line, and the start record built from it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "deskline/deskline.h"

namespace deskline::phone {

// Where the phone's sound goes. kOwn: its own WAV microphone and recorder, paced by its own
// clock. kVirtual and kSystem: the library's Audio module, as a telephone GUI uses it, over the
// virtual sound card or the system's devices.
enum class AudioMode { kOwn, kVirtual, kSystem };

struct PhoneOptions {
  std::string library = "libdeskline.so";
  std::string trace = "trace.log";
  std::uint32_t pbx_ip = 0x7f000001;    // host order
  std::uint32_t local_ip = 0x7f000001;  // host order
  std::uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
  std::string identity;  // at most 12 bytes
  std::uint8_t start_code = 0;
  std::uint8_t start_mode = 0;  // 1 extended, else basic
  std::string script;           // commands, ';' or newline between them
  std::string mic_path;         // a sound file as the microphone
  double tone_hz = 0;           // or a generated tone
  bool speech = false;          // or a synthetic talker; none of the three: silence
  std::string record_path;      // where received sound goes
  std::string summary_path;     // the closing summary as key=value lines
  AudioMode audio = AudioMode::kOwn;
  std::string in_device;   // with --audio: the microphone's name for the settings store
  std::string out_device;  // with --audio: the speaker's
  std::string dial_rules_path;  // the number formatter's variables and rules (ini)
  bool read_stdin = true;
  bool help = false;
};

const char* AudioModeName(AudioMode mode);  // "own", "virtual", "system"

// Parses argv without the program name. False with `error` set for an unknown option, a
// missing value or a bad one; --script-file is read here.
bool ParsePhoneOptions(std::span<const std::string> args, PhoneOptions* options, std::string* error);

std::optional<std::uint32_t> ParseIpv4(std::string_view text);  // host order
bool ParseMac(std::string_view text, std::uint8_t out[6]);
std::string FormatIpv4(std::uint32_t address);

// The start record without callbacks: addresses, hardware address, identity, codes.
void FillInitData(const PhoneOptions& options, NetworkInitData* data);

const char* PhoneUsage();

}  // namespace deskline::phone
