// The PBX on the far side of PTAP, for integration tests and the demo: a server socket on
// loopback that answers START and OP_BEGIN as configured, acknowledges the terminal's
// packets, sends keepalives, events and restarts on command, bends the network by rule, and
// records every datagram both ways. With PbxOptions::mgcp set it also runs an MGCP call agent
// (mgcp_agent.h) on a socket of its own, started and stopped with the PTAP side, whose port
// the START answer delivers.
//
// Thread rules: every public operation may be called from any thread. One receive thread
// handles what arrives; one scheduler thread runs delayed datagrams and periodic keepalives.
// Stop (and the destructor) joins both. The print sink of PbxOptions runs on those threads
// with the simulator's lock held: it must not call back into the simulator.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "tools/pbxsim/mgcp_agent.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/ptap_wire.h"
#include "tools/pbxsim/record.h"
#include "tools/pbxsim/scheduler.h"
#include "tools/pbxsim/sim_channel.h"

namespace deskline::sim {

inline constexpr std::uint32_t kLoopbackIp = 0x7F000001;
inline constexpr std::uint16_t kDefaultPtapPort = 9300;

// The parameters meant for the host (tags 0x0F, 0x18, 0x19, 0x1B-0x1E, 0x21, 0x24-0x26). Their
// meaning belongs to the host; the defaults are merely distinct, so that a test sees which
// value landed where.
struct HostParameters {
  std::uint16_t param_0f = 8000;
  std::uint8_t param_18 = 0x18;
  std::uint8_t param_19 = 0x19;
  std::uint8_t param_1b = 0x1B;
  std::uint8_t param_1c = 0x1C;
  std::uint8_t param_1d = 0x1D;
  std::uint8_t param_1e = 0x1E;
  std::vector<std::uint8_t> param_21 = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                                        12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                                        23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
  std::uint8_t param_24 = 0x24;
  std::uint8_t param_25 = 0x25;
  std::uint8_t param_26 = 0x26;
};

// Element 0x22, the answer to a START in extended start mode.
enum class ExtendedAnswer {
  kAuto,  // a good one when the START was in extended mode, none in basic mode
  kNone,
  kGood,       // always, whatever the mode
  kWrongKind,  // 32 bytes whose kind marker (bytes 16-18) is not 06 00 42
  kShort,      // 31 bytes: too short to judge
};

// When to follow the START answer with an Extended request (type 60).
enum class ExtendedRequest { kNever, kWhenExtended, kAlways };

struct StartAnswer {
  bool answer = true;            // false: STARTs get no reply at all
  std::uint8_t result_code = 0;  // element 0x20, any wire code
  // false: the answer carries the result (and element 0x22, if chosen) and nothing else.
  bool with_parameters = true;
  std::optional<std::uint8_t> keepalive_timeout_s = 30;    // 0x1A
  std::optional<std::uint16_t> mgcp_pbx_port = 2727;       // 0x10
  // With a call agent running, 0x10 carries the agent's bound port instead of the number
  // above (unless that is nullopt, which leaves the element out).
  bool mgcp_pbx_port_from_agent = true;
  std::optional<std::uint16_t> mgcp_terminal_port = 2427;  // 0x11
  std::optional<HostParameters> host_parameters = HostParameters{};
  std::optional<std::uint8_t> ptap_punch_s;  // 0xA1
  std::optional<std::uint8_t> mgcp_punch_s;  // 0xA2
  std::optional<std::uint8_t> rtp_punch_s;   // 0xA3
  ExtendedAnswer extended = ExtendedAnswer::kAuto;
  std::uint16_t extended_value = 0x0001;  // announced by 0x09 at byte 25 of element 0x22
  std::uint16_t pbx_class_code = 0x0002;  // announced by 0x0A at byte 28
  ExtendedRequest extended_request = ExtendedRequest::kNever;
  std::vector<WireElement> extra;  // appended last, as given
};

enum class OpBeginAnswer {
  kAnswer,   // an ACK carrying element 0x20 with `op_begin_result`
  kAckOnly,  // an ACK without elements, which acknowledges but does not release the terminal
  kIgnore,   // no reply
};

struct PtapAnswers {
  StartAnswer start;
  OpBeginAnswer op_begin = OpBeginAnswer::kAnswer;
  std::uint8_t op_begin_result = 0;
  // Elements of the plain ACK given to every other packet; by default only the end mark.
  std::vector<WireElement> ack_elements;
  bool silent = false;  // answer nothing and acknowledge nothing; still record
};

// What the terminal said about itself in its last START.
struct TerminalStart {
  std::uint32_t tid = 0;
  bool extended = false;  // capability descriptor with lead byte 03
  std::uint8_t start_code = 0;
  std::vector<std::byte> capabilities;  // element 0x01
  std::vector<std::byte> version;       // element 0x02
  std::vector<std::byte> identity;      // element 0x05
  std::array<std::byte, 6> mac{};       // element 0x07
  std::uint32_t ip = 0;                 // element 0x06, host order
};

struct PbxOptions {
  std::uint32_t ip = kLoopbackIp;    // host order
  std::uint16_t port = 0;            // 0: any free port
  platform::Clock* clock = nullptr;  // null: the real clock; not owned
  std::uint64_t seed = 0;            // for rules with a probability
  std::size_t record_limit = 0;      // 0 keeps every record; else the oldest go first
  // When set, one readable line per recorded datagram (see FormatRecord).
  std::function<void(std::string_view line)> print;
  // When set, an MGCP call agent runs beside PTAP. Its clock, print sink, record limit and
  // seed default to the ones above where left unset (null, empty or 0).
  std::optional<MgcpAgentOptions> mgcp;
};

class PbxSimulator final : public SimChannel {
 public:
  explicit PbxSimulator(PbxOptions options = {});
  ~PbxSimulator() override;  // Stop
  PbxSimulator(const PbxSimulator&) = delete;
  PbxSimulator& operator=(const PbxSimulator&) = delete;

  // Start, Stop, endpoint, AddRule, Records and WaitFor come from SimChannel; the call agent
  // starts and stops with the PTAP side. AddRule: a rule's `type` is a PTAP type.
  // The MGCP call agent, or null when PbxOptions::mgcp was not set. It lives as long as the
  // simulator; its own operations are thread-safe.
  MgcpAgent* mgcp() const { return agent_.get(); }

  // --- behaviour ---
  void SetAnswers(const PtapAnswers& answers);
  PtapAnswers answers() const;
  void SetSilent(bool silent);
  // Where the PBX sends; otherwise learnt from every well-formed datagram that arrives.
  void SetTerminal(platform::UdpEndpoint terminal);
  std::optional<platform::UdpEndpoint> terminal() const;
  // The PBX numbers its own packets from 1 and keeps the top byte 0, since the terminal
  // refuses tids of 0x01000000 and above; after 0x00FFFFFF it goes on at 1.
  void SetNextTid(std::uint32_t tid);

  // --- commands; each returns the tid used, or 0 if nothing went out (not running, no
  // terminal known yet, or the elements cannot be encoded). A datagram that a rule drops or
  // delays counts as sent. ---
  std::uint32_t SendKeepalive();
  // Sends a keepalive at once and then every `period` until StopKeepalives or Stop.
  // False if not running or the period is not positive.
  bool StartKeepalives(std::chrono::milliseconds period);
  void StopKeepalives();
  // Type 21; `payload` goes out exactly as given (elements and end mark are the caller's).
  std::uint32_t SendEvent(std::span<const std::byte> payload);
  std::uint32_t SendCompulsionRestart();
  std::uint32_t SendExtendedRequest();
  // Any type with the given elements and the end mark, under the next tid.
  std::uint32_t SendPacket(std::uint8_t type, std::span<const WireElement> elements);
  // Exactly these bytes. False if nothing went out (not running, no terminal).
  bool SendRaw(std::span<const std::byte> datagram);

  // --- recording ---
  // Records in `direction` of `type` (nullopt: any, malformed included), whatever their fate.
  std::size_t Count(Direction direction, std::optional<std::uint8_t> type) const;
  // The tids of the terminal's ACKs, in order of arrival, repeats included.
  std::vector<std::uint32_t> TerminalAcks() const;
  bool Acknowledged(std::uint32_t tid) const;
  std::optional<TerminalStart> LastStart() const;
  // Well-formed datagrams of `type` that reached the PBX (past the rules) since it was made.
  // Kept apart from the records, which a record limit trims and ClearRecords empties.
  std::uint64_t Handled(std::uint8_t type) const;
  // Clears the PTAP records, and the call agent's (MgcpAgent::ClearRecords) if there is one.
  void ClearRecords();

  bool WaitForCount(Direction direction, std::optional<std::uint8_t> type, std::size_t count,
                    std::chrono::milliseconds timeout) const;

 private:
  std::optional<std::uint8_t> RuleType(std::span<const std::byte> datagram) const override;
  void Decode(Record& record) const override;
  // The PBX's reaction to one datagram that reached it. Lock held.
  void HandleLocked(const std::vector<std::byte>& raw, platform::UdpEndpoint from) override;
  void TrimLocked(std::size_t record_limit) override;
  bool StartNeighbours() override;
  void StopNeighbours() override;
  void StoppingLocked() override;
  void AnswerStartLocked(const PtapDatagram& start);
  std::vector<WireElement> StartAnswerElementsLocked(bool terminal_extended) const;
  std::uint32_t SendNumberedLocked(std::uint8_t type, std::span<const WireElement> elements);
  std::uint32_t TakeTidLocked();
  void KeepaliveTick(std::uint64_t series, std::int64_t due_ns);

  const PbxOptions options_;
  // Locked after mutex_ where both are held, never before: the agent never calls back here.
  const std::unique_ptr<MgcpAgent> agent_;
  std::uint16_t agent_port_ = 0;  // the call agent's bound port while running
  PtapAnswers answers_;
  std::uint32_t next_tid_ = 1;
  std::uint64_t keepalive_series_ = 0;  // a new number stops the previous periodic series
  std::chrono::milliseconds keepalive_period_{0};
  std::vector<std::uint32_t> terminal_acks_;
  std::array<std::uint64_t, 256> handled_{};  // by PTAP type
  std::optional<TerminalStart> last_start_;
};

}  // namespace deskline::sim
