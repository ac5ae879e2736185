#include "tools/pbxsim/agent_script.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <vector>

#include "tools/pbxsim/media_channel.h"

namespace deskline::sim {
namespace {

constexpr std::uint16_t kDefaultRtpPort = 40000;
constexpr long kMaxWaitMs = 600'000;
constexpr std::int64_t kMaxDurationMs = 24LL * 3600 * 1000;
constexpr long kMaxMediaPackets = 100'000'000;

// Lamp states that the terminal knows.
constexpr std::string_view kLampStates[] = {"off",  "gon",  "g3i", "g3si", "g6i",
                                            "g6si", "g12i", "g24i", "ron", "r3i",
                                            "r3si", "r6i",  "r6si", "r12i", "r24i"};

std::vector<std::string_view> Words(std::string_view text) {
  std::vector<std::string_view> words;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    const std::size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
    if (i > start) words.push_back(text.substr(start, i - start));
  }
  return words;
}

// Decimal, or hexadecimal behind "0x"; the whole word, within [0, max].
bool Number(std::string_view word, long max, long* out) {
  int base = 10;
  if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
    base = 16;
    word.remove_prefix(2);
  }
  long value = 0;
  const auto result = std::from_chars(word.data(), word.data() + word.size(), value, base);
  if (word.empty() || result.ec != std::errc{} || result.ptr != word.data() + word.size() ||
      value < 0 || value > max) {
    return false;
  }
  *out = value;
  return true;
}

bool Hex(std::string_view word, long max, long* out) {
  long value = 0;
  const auto result = std::from_chars(word.data(), word.data() + word.size(), value, 16);
  if (word.empty() || result.ec != std::errc{} || result.ptr != word.data() + word.size() ||
      value < 0 || value > max) {
    return false;
  }
  *out = value;
  return true;
}

ScriptStep Fail(std::string message) { return ScriptStep{false, std::move(message), {}, false}; }

ScriptStep BadWait(std::string message) {
  ScriptStep step = Fail(std::move(message));
  step.bad_wait = true;
  return step;
}

ScriptStep FromMedia(const MediaResult& result) {
  return ScriptStep{result.ok, result.message, {}, false};
}

// The optional TIMEOUT word at `index`; false if it is there and is no duration.
bool Timeout(const std::vector<std::string_view>& w, std::size_t index,
             std::chrono::milliseconds* out) {
  if (w.size() <= index) return true;
  const std::optional<std::chrono::milliseconds> duration = ParseDuration(w[index]);
  if (!duration) return false;
  *out = *duration;
  return true;
}

ScriptStep Sent(const MgcpAgent& agent, std::string_view verb, std::uint32_t tid) {
  if (tid != 0) {
    return ScriptStep{true, std::string(verb) + " " + std::to_string(tid) + " sent", {}, false};
  }
  return Fail(std::string(verb) + " not sent: " + NotSentReason(agent));
}

// A codec by name or payload type number.
bool Codec(std::string_view word, int* payload_type) {
  static constexpr std::pair<std::string_view, int> kNames[] = {
      {"pcmu", 0}, {"pcma", 8}, {"g722", 9}, {"g729", 18}, {"g711u", 0}, {"g711a", 8}};
  for (const auto& [name, type] : kNames) {
    if (word == name) {
      *payload_type = type;
      return true;
    }
  }
  long number = 0;
  if (!Number(word, 127, &number)) return false;
  *payload_type = static_cast<int>(number);
  return true;
}

std::string Describe(const MgcpAgent& agent) {
  std::string text;
  const std::optional<platform::UdpEndpoint> terminal = agent.terminal();
  char address[16] = "none";
  if (terminal) platform::FormatIpv4(terminal->ip, address);
  text += "agent port " + std::to_string(agent.port()) + ", terminal ";
  text += terminal ? std::string(address) + ":" + std::to_string(terminal->port) : "unknown";
  const std::string endpoint = agent.endpoint_name();
  text += ", endpoint " + (endpoint.empty() ? std::string("unknown") : endpoint);
  if (const std::optional<AgentCall> call = agent.call()) {
    text += ", call " + call->call_id + " connection " +
            (call->connection_id.empty() ? std::string("?") : call->connection_id) + " " +
            ConnectionModeName(call->mode);
  } else {
    text += ", no call";
  }
  return text;
}

}  // namespace

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
  double scale_ms = 0;
  if (text.size() > 2 && text.substr(text.size() - 2) == "ms") {
    scale_ms = 1;
    text.remove_suffix(2);
  } else if (text.size() > 1 && text.back() == 's') {
    scale_ms = 1000;
    text.remove_suffix(1);
  } else if (text.size() > 1 && text.back() == 'm') {
    scale_ms = 60'000;
    text.remove_suffix(1);
  } else {
    return std::nullopt;
  }
  // Digits with at most one point; no sign, no exponent, nothing else.
  const std::size_t point = text.find('.');
  const std::string_view whole = text.substr(0, point);
  const std::string_view fraction =
      point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
  auto digits = [](std::string_view part) {
    return part.find_first_not_of("0123456789") == std::string_view::npos;
  };
  if (text.empty() || !digits(whole) || !digits(fraction) || (whole.empty() && fraction.empty()) ||
      whole.size() > 9 || fraction.size() > 6) {
    return std::nullopt;
  }
  double value = 0;
  for (const char c : whole) value = value * 10 + (c - '0');
  double step = 0.1;
  for (const char c : fraction) {
    value += (c - '0') * step;
    step /= 10;
  }
  const double ms = std::round(value * scale_ms);
  if (ms > static_cast<double>(kMaxDurationMs)) return std::nullopt;
  return std::chrono::milliseconds(static_cast<std::int64_t>(ms));
}

const char* AgentScript::Help() {
  return "call agent commands:\n"
         "  ring [PATTERN [MELODY [CLASS]]]   ring the terminal (defaults 1 1 1)\n"
         "  ring off                          stop the ringer\n"
         "  lamp KEY STATE                    key lamp, KEY in hex (0201), STATE off/gon/ron/r3i...\n"
         "  display ROW COL TEXT...           write TEXT on the display\n"
         "  display clear                     clear the display\n"
         "  tone VALUE1 VALUE2 [FLAGS]        tone record, FLAGS three digits 0/1 (default 000)\n"
         "  volume SLOT VALUE                 vctl; slot 3 is the ringer\n"
         "  signal SIGNAL...                  raw X-P signals on one S: line\n"
         "  connect [CODEC [PORT]]            CRCX sendrecv; CODEC pcmu pcma g722 g729 or a\n"
         "                                    payload type (default pcmu), RTP port (40000,\n"
         "                                    0 = any); media flows once the terminal answers\n"
         "  hold | resume                     MDCX inactive | sendrecv; media stops | goes on\n"
         "  release                           DLCX; media stops, the recording is written\n"
         "  audit                             AUEP\n"
         "  wait MS | wait DURATION           pause (wait 1500, wait 1.5s, wait 500ms)\n"
         "  wait-register [TIMEOUT]           until the terminal's RSIP was accepted and its\n"
         "                                    PTAP OP_BEGIN came\n"
         "  wait-key KEY [TIMEOUT]            until an NTFY observed X-P/fkKEY (KEY four hex\n"
         "                                    digits, 0200); one since the last wait-key for\n"
         "                                    KEY counts, also one that came before\n"
         "  wait-media N [TIMEOUT]            until the call's RTP peer received N packets\n"
         "                                    TIMEOUT such as 10s, 500ms, 2m (default 60s); a\n"
         "                                    wait that times out fails the script\n"
         "  status | help | quit\n";
}

ScriptStep AgentScript::Run(std::string_view line) {
  const std::vector<std::string_view> w = Words(line);
  if (w.empty() || w[0].front() == '#') return {};
  const std::string_view command = w[0];
  long a = 0;
  long b = 0;
  long c = 0;

  if (command == "ring") {
    if (w.size() == 2 && w[1] == "off") return Sent(agent_, "RQNT", agent_.SendSignals({xp::RingOff()}));
    long pattern = 1;
    long melody = 1;
    long ring_class = 1;
    if ((w.size() > 1 && !Number(w[1], 255, &pattern)) ||
        (w.size() > 2 && !Number(w[2], 255, &melody)) ||
        (w.size() > 3 && !Number(w[3], 255, &ring_class)) || w.size() > 4) {
      return Fail("usage: ring [PATTERN [MELODY [CLASS]]] (numbers 0-255) | ring off");
    }
    return Sent(agent_, "RQNT", agent_.SendSignals({xp::Ring(static_cast<std::uint8_t>(ring_class),
                                                     static_cast<std::uint8_t>(pattern),
                                                     static_cast<std::uint8_t>(melody))}));
  }
  if (command == "lamp") {
    if (w.size() != 3 || !Hex(w[1], 0xFFFF, &a) ||
        std::find(std::begin(kLampStates), std::end(kLampStates), w[2]) ==
            std::end(kLampStates)) {
      return Fail("usage: lamp KEY STATE (KEY in hex up to FFFF; STATE off gon g3i g3si g6i "
                  "g6si g12i g24i ron r3i r3si r6i r6si r12i r24i)");
    }
    return Sent(agent_, "RQNT", agent_.SendSignals({xp::Lamp(static_cast<std::uint16_t>(a), w[2])}));
  }
  if (command == "display") {
    if (w.size() == 2 && w[1] == "clear") {
      return Sent(agent_, "RQNT", agent_.SendSignals({xp::DisplayClear()}));
    }
    if (w.size() < 4 || !Number(w[1], 254, &a) || !Number(w[2], 254, &b)) {
      return Fail("usage: display ROW COL TEXT... (ROW and COL 0-254) | display clear");
    }
    // The text runs from the fourth word to the end of the line, blanks included.
    const std::size_t text_start = static_cast<std::size_t>(w[3].data() - line.data());
    std::string_view text = line.substr(text_start);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
      text.remove_suffix(1);
    }
    return Sent(agent_, "RQNT", agent_.SendSignals({xp::Display(static_cast<std::uint8_t>(a),
                                                        static_cast<std::uint8_t>(b), text)}));
  }
  if (command == "tone") {
    std::string_view flags = "000";
    if (w.size() < 3 || w.size() > 4 || !Number(w[1], 255, &a) || !Number(w[2], 255, &b) ||
        (w.size() == 4 && (w[3].size() != 3 || w[3].find_first_not_of("01") !=
                                                   std::string_view::npos))) {
      return Fail("usage: tone VALUE1 VALUE2 [FLAGS] (values 0-255, FLAGS such as 101)");
    }
    if (w.size() == 4) flags = w[3];
    return Sent(agent_, "RQNT", agent_.SendSignals({xp::Tone(static_cast<std::uint8_t>(a), flags[0] == '1',
                                                     flags[1] == '1', flags[2] == '1',
                                                     static_cast<std::uint8_t>(b))}));
  }
  if (command == "volume") {
    if (w.size() != 3 || !Number(w[1], 255, &a) || !Number(w[2], 255, &b)) {
      return Fail("usage: volume SLOT VALUE (0-255 each)");
    }
    return Sent(agent_, "RQNT", agent_.SendSignals({xp::Volume(static_cast<std::uint8_t>(a),
                                                       static_cast<std::uint8_t>(b))}));
  }
  if (command == "signal") {
    if (w.size() < 2) return Fail("usage: signal SIGNAL... (such as X-P/ks(0201,ron))");
    std::vector<std::string> signals;
    for (std::size_t i = 1; i < w.size(); ++i) {
      std::string signal(w[i]);
      if (signal.rfind("X-P/", 0) != 0) signal = "X-P/" + signal;
      signals.push_back(std::move(signal));
    }
    return Sent(agent_, "RQNT", agent_.SendSignals(signals));
  }
  if (command == "connect") {
    int payload_type = 0;
    c = kDefaultRtpPort;
    if (w.size() > 3 || (w.size() > 1 && !Codec(w[1], &payload_type)) ||
        (w.size() > 2 && !Number(w[2], 65535, &c))) {
      return Fail("usage: connect [CODEC [PORT]] (CODEC pcmu pcma g722 g729 or 0-127)");
    }
    if (media_) return FromMedia(media_->Connect(payload_type, static_cast<std::uint16_t>(c)));
    MediaOffer offer;
    offer.port = static_cast<std::uint16_t>(c);
    offer.payload_types = {payload_type};
    return Sent(agent_, "CRCX", agent_.SendCrcx(offer));
  }
  if (command == "hold" || command == "resume") {
    if (w.size() != 1) return Fail("usage: " + std::string(command));
    if (media_) return FromMedia(command == "hold" ? media_->Hold() : media_->Resume());
    if (!agent_.call()) return Fail(std::string(command) + ": no call; connect first");
    return Sent(agent_, "MDCX", agent_.SendMdcx(command == "hold" ? ConnectionMode::kInactive
                                                          : ConnectionMode::kSendRecv));
  }
  if (command == "release") {
    if (w.size() != 1) return Fail("usage: release");
    if (media_) return FromMedia(media_->Release());
    return Sent(agent_, "DLCX", agent_.SendDlcx());
  }
  if (command == "audit") {
    if (w.size() != 1) return Fail("usage: audit");
    return Sent(agent_, "AUEP", agent_.SendAuep());
  }
  if (command == "wait") {
    if (w.size() == 2 && Number(w[1], kMaxWaitMs, &a)) {
      return ScriptStep{true, "", std::chrono::milliseconds(a), false};
    }
    const std::optional<std::chrono::milliseconds> pause =
        w.size() == 2 ? ParseDuration(w[1]) : std::nullopt;
    if (!pause || pause->count() > kMaxWaitMs) {
      return Fail("usage: wait MS (0-600000) or wait DURATION (such as 1.5s, up to 10m)");
    }
    return ScriptStep{true, "", *pause, false};
  }
  if (command == "wait-register" || command == "wait-key" || command == "wait-media") {
    WaitRequest request;
    std::size_t timeout_index = 1;
    if (command == "wait-key") {
      request.kind = WaitRequest::Kind::kKey;
      // Four digits, as the terminal writes the key in its NTFY.
      if (w.size() < 2 || w[1].size() != 4 || !Hex(w[1], 0xFFFF, &a)) {
        return BadWait("usage: wait-key KEY [TIMEOUT] (KEY four hex digits, such as 0200)");
      }
      request.key = static_cast<std::uint16_t>(a);
      timeout_index = 2;
    } else if (command == "wait-media") {
      request.kind = WaitRequest::Kind::kMedia;
      if (w.size() < 2 || !Number(w[1], kMaxMediaPackets, &a) || a == 0) {
        return BadWait("usage: wait-media N [TIMEOUT] (N packets, 1 or more)");
      }
      request.count = static_cast<std::uint64_t>(a);
      timeout_index = 2;
    }
    if (w.size() > timeout_index + 1 || !Timeout(w, timeout_index, &request.timeout)) {
      return BadWait("usage: " + std::string(command) +
                     (command == "wait-key" ? " KEY" : command == "wait-media" ? " N" : "") +
                     " [TIMEOUT] (TIMEOUT such as 10s, 500ms, 2m; default 60s)");
    }
    ScriptStep step;
    step.await = request;
    return step;
  }
  if (command == "status") return ScriptStep{true, Describe(agent_), {}, false};
  if (command == "help") return ScriptStep{true, Help(), {}, false};
  if (command == "quit" || command == "exit") return ScriptStep{true, "", {}, true};
  return Fail("unknown command '" + std::string(command) + "'; try help");
}

}  // namespace deskline::sim
