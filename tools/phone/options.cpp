#include "tools/phone/options.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

namespace deskline::phone {
namespace {

constexpr std::size_t kIdentityBytes = 12;

std::optional<unsigned> ParseUnsigned(std::string_view text, unsigned max, int base = 10) {
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value > max) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<std::uint32_t> ParseIpv4(std::string_view text) {
  std::uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = part < 3 ? text.find('.') : text.size();
    if (dot == std::string_view::npos || dot == 0 || dot > 3) return std::nullopt;
    const auto value = ParseUnsigned(text.substr(0, dot), 255);
    if (!value) return std::nullopt;
    address = (address << 8) | *value;
    text.remove_prefix(part < 3 ? dot + 1 : dot);
  }
  return address;
}

std::string FormatIpv4(std::uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
         std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

bool ParseMac(std::string_view text, std::uint8_t out[6]) {
  if (text.size() != 17) return false;
  std::uint8_t bytes[6];
  for (int i = 0; i < 6; ++i) {
    if (i < 5 && text[static_cast<std::size_t>(i) * 3 + 2] != ':') return false;
    const auto value = ParseUnsigned(text.substr(static_cast<std::size_t>(i) * 3, 2), 255, 16);
    if (!value) return false;
    bytes[i] = static_cast<std::uint8_t>(*value);
  }
  std::memcpy(out, bytes, sizeof(bytes));
  return true;
}

bool ParsePhoneOptions(std::span<const std::string> args, PhoneOptions* options, std::string* error) {
  std::string script_file;
  std::string script_text;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& option = args[i];
    if (option == "--help" || option == "-h") {
      options->help = true;
      continue;
    }
    if (option == "--no-stdin") {
      options->read_stdin = false;
      continue;
    }
    if (option == "--speech") {
      options->speech = true;
      continue;
    }
    if (i + 1 >= args.size()) {
      *error = option.rfind("--", 0) == 0 ? option + " needs a value" : "unknown argument " + option;
      return false;
    }
    const std::string& value = args[++i];
    auto bad = [&](const char* what) {
      *error = option + ": " + what + ", not '" + value + "'";
      return false;
    };
    if (option == "--pbx" || option == "--local") {
      const auto address = ParseIpv4(value);
      if (!address) return bad("an IPv4 address like 192.0.2.10");
      (option == "--pbx" ? options->pbx_ip : options->local_ip) = *address;
    } else if (option == "--mac") {
      if (!ParseMac(value, options->mac)) return bad("a hardware address like 02:00:00:00:00:01");
    } else if (option == "--identity") {
      if (value.size() > kIdentityBytes) return bad("at most 12 characters");
      options->identity = value;
    } else if (option == "--start-code") {
      const auto code = ParseUnsigned(value, 255);
      if (!code) return bad("a number 0-255");
      options->start_code = static_cast<std::uint8_t>(*code);
    } else if (option == "--start-mode") {
      if (value == "basic") {
        options->start_mode = 0;
      } else if (value == "extended") {
        options->start_mode = 1;
      } else {
        const auto mode = ParseUnsigned(value, 255);
        if (!mode) return bad("basic, extended or a number 0-255");
        options->start_mode = static_cast<std::uint8_t>(*mode);
      }
    } else if (option == "--library") {
      options->library = value;
    } else if (option == "--trace") {
      options->trace = value;
    } else if (option == "--script") {
      script_text = value;
    } else if (option == "--script-file") {
      script_file = value;
    } else if (option == "--mic") {
      options->mic_path = value;
    } else if (option == "--tone") {
      const auto hz = ParseUnsigned(value, 3999);
      if (!hz || *hz == 0) return bad("a frequency 1-3999 Hz");
      options->tone_hz = *hz;
    } else if (option == "--record") {
      options->record_path = value;
    } else if (option == "--summary") {
      options->summary_path = value;
    } else if (option == "--audio") {
      if (value == "virtual") {
        options->audio = AudioMode::kVirtual;
      } else if (value == "system") {
        options->audio = AudioMode::kSystem;
      } else {
        return bad("virtual or system");
      }
    } else if (option == "--dial-rules") {
      options->dial_rules_path = value;
    } else if (option == "--in" || option == "--out") {
      if (value.empty()) return bad("a device name");
      (option == "--in" ? options->in_device : options->out_device) = value;
    } else {
      *error = "unknown option " + option;
      return false;
    }
  }
  if (int(!options->mic_path.empty()) + int(options->tone_hz > 0) + int(options->speech) > 1) {
    *error = "--mic, --tone and --speech exclude each other";
    return false;
  }
  if (options->audio == AudioMode::kOwn && (!options->in_device.empty() || !options->out_device.empty())) {
    *error = "--in and --out pick the devices of --audio virtual|system";
    return false;
  }
  // The virtual sound card plays a file or a rendered tone or talker as its microphone; real
  // devices have a person behind them.
  if (options->audio == AudioMode::kSystem &&
      (!options->mic_path.empty() || options->tone_hz > 0 || options->speech)) {
    *error = "--audio system takes its sound from the microphone: no --mic, --tone or --speech";
    return false;
  }
  if (!script_file.empty()) {
    std::ifstream file(script_file);
    if (!file) {
      *error = "cannot read script file " + script_file;
      return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    options->script = text.str();
  }
  if (!script_text.empty()) {
    if (!options->script.empty()) options->script += '\n';
    options->script += script_text;
  }
  return true;
}

const char* AudioModeName(AudioMode mode) {
  switch (mode) {
    case AudioMode::kVirtual:
      return "virtual";
    case AudioMode::kSystem:
      return "system";
    case AudioMode::kOwn:
      break;
  }
  return "own";
}

void FillInitData(const PhoneOptions& options, NetworkInitData* data) {
  std::memset(data, 0, sizeof(*data));
  data->start_code = options.start_code;
  std::memcpy(data->terminal_identity, options.identity.data(),
              std::min(options.identity.size(), sizeof(data->terminal_identity)));
  data->local_ip = options.local_ip;
  std::memcpy(data->mac_address, options.mac, sizeof(data->mac_address));
  data->pbx_ip = options.pbx_ip;
  data->start_mode = options.start_mode;
}

const char* PhoneUsage() {
  return "usage: deskline-phone [options]\n"
         "  --pbx A.B.C.D          the PBX (default 127.0.0.1)\n"
         "  --local A.B.C.D        this terminal's address (default 127.0.0.1)\n"
         "  --mac XX:XX:XX:XX:XX:XX  hardware address (default 02:00:00:00:00:01)\n"
         "  --identity TEXT        terminal identity, up to 12 characters\n"
         "  --start-code N         start code, 0-255 (default 0)\n"
         "  --start-mode MODE      basic or extended (default basic)\n"
         "  --library PATH         libdeskline.so to load (default: the loader's search)\n"
         "  --trace FILE           the engine's trace file (default trace.log)\n"
         "  --script \"CMD; CMD\"    run these commands, then hang up and exit\n"
         "  --script-file FILE     the same from a file, one command a line\n"
         "  --no-stdin             without a script: read no commands, run until Ctrl-C\n"
         "  --mic FILE             a sound file as the microphone (any rate, played in a loop)\n"
         "  --tone HZ              a sine tone as the microphone\n"
         "  --speech               a synthetic talker as the microphone\n"
         "  --record FILE          write received sound to FILE (WAV, 8 kHz mono 16-bit)\n"
         "  --summary FILE         also write the closing summary to FILE, key=value lines\n"
         "  --audio virtual|system sound through the library's Audio module: the virtual\n"
         "                         sound card, or this machine's devices (a headset)\n"
         "  --dial-rules FILE      the number formatter's variables and rules (an ini file,\n"
         "                         see docs/number.md); dial formats numbers with blanks,\n"
         "                         brackets or + through them\n"
         "  --in NAME, --out NAME  with --audio: the microphone and speaker to use (see the\n"
         "                         devices command); kept in the settings store\n";
}

}  // namespace deskline::phone
