// The PBX's MGCP call agent: its own UDP socket on loopback, where the terminal's RSIP, NTFY
// and DLCX arrive and are answered as configured, and from where the agent sends RQNT, CRCX,
// MDCX, DLCX and AUEP, numbers them, resends what stays unanswered and keeps the terminal's
// responses. Every datagram both ways is recorded, decoded and raw, and network rules bend
// both directions as on the PTAP side.
//
// The terminal's address is learnt from every well-formed message that arrives (the latest
// sender wins), or set with SetTerminal. Its endpoint name is learnt from its commands.
//
// Thread rules: every public operation may be called from any thread. One receive thread
// handles what arrives; one scheduler thread runs late answers, delayed datagrams and resends.
// Stop (and the destructor) joins both. The print sink runs on those threads, and on the
// caller's for its own commands, with the agent's lock held: it must not call back into the
// agent.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "tools/pbxsim/mgcp_wire.h"
#include "tools/pbxsim/net_rules.h"
#include "tools/pbxsim/record.h"
#include "tools/pbxsim/scheduler.h"
#include "tools/pbxsim/sim_channel.h"

namespace deskline::sim {

// How the agent answers one kind of terminal command.
struct MgcpAnswer {
  bool answer = true;  // false: never answered
  int code = 200;      // any three-digit code
  std::chrono::milliseconds delay{0};  // late by this much, on the agent's clock
  // nullopt: "OK" behind a 2xx code, nothing behind any other.
  std::optional<std::string> commentary;
};

struct MgcpAgentAnswers {
  MgcpAnswer rsip;
  MgcpAnswer ntfy;
  MgcpAnswer dlcx{true, 250};
  // Any other command; the terminal sends none, and a call agent refuses it as unknown.
  MgcpAnswer other{true, 504};
  bool silent = false;  // answer nothing; still record, learn and match responses
};

// When an unanswered command goes out again: after `first_period`, then after twice that,
// and so on up to `max_period`, `max_resends` times. One period after the last resend the
// transaction counts as timed out. Any response, a provisional one too, stops the resends.
struct ResendPolicy {
  int max_resends = 4;  // 0: never resend
  std::chrono::milliseconds first_period{500};
  std::chrono::milliseconds max_period{4000};
};

struct MgcpAgentOptions {
  std::uint32_t ip = 0x7F000001;     // host order
  std::uint16_t port = 0;            // 0: any free port
  platform::Clock* clock = nullptr;  // null: the real clock; not owned
  std::uint64_t seed = 0;            // for rules with a probability
  std::size_t record_limit = 0;      // 0 keeps every record; else the oldest go first
  std::function<void(std::string_view line)> print;  // one line per recorded datagram
  // Where commands go until the terminal has named its endpoint in a message of its own.
  std::string endpoint;
  std::uint32_t first_tid = 1000;  // the agent's own transaction ids, 1 to 999999999
  ResendPolicy resend;
};

enum class TransactionState {
  kWaiting,      // sent, no response yet
  kProvisional,  // a 1xx came; waiting for the final one, no more resends
  kAnswered,     // a final response came
  kTimedOut,     // resent as often as allowed, and still nothing
};
const char* TransactionStateName(TransactionState state);

// One response of the terminal to one of the agent's commands.
struct TerminalResponse {
  int code = 0;
  std::uint32_t tid = 0;
  std::string commentary;
  std::string connection_id;  // I:, if the response had one
  std::optional<SdpInfo> sdp;
  std::int64_t steady_ns = 0;
};

struct MgcpTransaction {
  std::uint32_t tid = 0;
  std::string verb;
  std::string text;  // exactly what went out
  std::int64_t sent_ns = 0;
  int resends = 0;
  TransactionState state = TransactionState::kWaiting;
  std::vector<TerminalResponse> responses;  // in order of arrival, repeats included

  // The first final (2xx and above) response, or null.
  const TerminalResponse* final_response() const;
};

// The connection that the agent's last CRCX made, as far as the agent knows it.
struct AgentCall {
  std::string call_id;
  std::string connection_id;  // from the terminal's response, once it came
  std::uint32_t crcx_tid = 0;
  MediaOffer offer;
  ConnectionMode mode = ConnectionMode::kSendRecv;
};

class MgcpAgent final : public SimChannel {
 public:
  explicit MgcpAgent(MgcpAgentOptions options = {});
  ~MgcpAgent() override;  // Stop
  MgcpAgent(const MgcpAgent&) = delete;
  MgcpAgent& operator=(const MgcpAgent&) = delete;
  // Start, Stop, endpoint, SetOrigin, AddRule, Records and WaitFor come from SimChannel. Stop
  // drops late answers and resends not yet due; transactions stay. WaitFor also wakes when a
  // transaction changes.

  // --- behaviour ---
  void SetAnswers(const MgcpAgentAnswers& answers);
  MgcpAgentAnswers answers() const;
  void SetResendPolicy(const ResendPolicy& policy);
  // AddRule: a rule's `type` is an MgcpKind.
  void SetTerminal(platform::UdpEndpoint terminal);
  // Sets the terminal only when none is known yet.
  void SuggestTerminal(platform::UdpEndpoint terminal);
  std::optional<platform::UdpEndpoint> terminal() const;
  void SetEndpointName(std::string endpoint);
  // The endpoint that commands go to; empty while none is known.
  std::string endpoint_name() const;

  // --- commands; each returns the transaction id used, or 0 if nothing went out (not
  // running, no terminal or endpoint known yet, or no call for MDCX). A command that a rule
  // drops or delays counts as sent, and is resent by the policy. ---
  // RQNT with one S: line per entry of `signal_lines`, the signals of a line joined by
  // commas; an R: line when `requested_events` is not empty.
  std::uint32_t SendRqnt(const std::vector<std::vector<std::string>>& signal_lines,
                         std::string_view requested_events = {});
  // RQNT with one S: line.
  std::uint32_t SendSignals(const std::vector<std::string>& signals);
  // CRCX for a new call (a fresh call id unless one is given), with the offer as SDP.
  std::uint32_t SendCrcx(const MediaOffer& offer, ConnectionMode mode = ConnectionMode::kSendRecv,
                         std::string call_id = {});
  // MDCX of the current call, with an SDP when `offer` is given.
  std::uint32_t SendMdcx(ConnectionMode mode, const std::optional<MediaOffer>& offer = {});
  // DLCX of the current call; without one, an endpoint-wide DLCX. Ends the call.
  std::uint32_t SendDlcx();
  std::uint32_t SendAuep(std::string_view requested_info = {});
  // Any command: "VERB tid endpoint MGCP 1.0" and then `rest` exactly as given (header lines
  // with their CR LF, an SDP), tracked and resent like the others.
  std::uint32_t SendCommand(std::string_view verb, std::string_view rest);
  // Exactly these bytes, neither tracked nor resent. False if nothing went out.
  bool SendRaw(std::span<const std::byte> datagram);

  // --- recording (and Records) ---
  // Records in `direction` of `kind` (nullopt: any, malformed included), whatever their fate.
  std::size_t Count(Direction direction, std::optional<MgcpKind> kind) const;
  // The terminal's well-formed commands with this verb, in order of arrival, every copy.
  std::vector<Record> Messages(std::string_view verb) const;
  std::vector<MgcpTransaction> Transactions() const;
  std::optional<MgcpTransaction> Transaction(std::uint32_t tid) const;
  // The SDP of the latest response to `tid` that carried one; nullopt if none did.
  std::optional<SdpInfo> TerminalSdp(std::uint32_t tid) const;
  // The SDP of the latest response of all that carried one.
  std::optional<SdpInfo> LastTerminalSdp() const;
  // The O: line of the last NTFY received ("X-P/fk0200"); empty if it had none, nullopt
  // before any NTFY.
  std::optional<std::string> LastObservedEvent() const;
  // Every observed event of every NTFY handled, in order, repeats included.
  std::vector<std::string> ObservedEvents() const;
  // NTFYs that observed `event` ("X-P/fk0200", compared without regard to case) since the
  // agent was made. A resent NTFY (a tid and events seen within the last 30 s) counts once.
  // Kept apart from the records, which a record limit trims and ClearRecords empties.
  std::uint64_t EventCount(std::string_view event) const;
  // RSIPs answered with a 2xx code since the agent was made.
  std::uint64_t AcceptedRsips() const;
  // Responses whose tid names no transaction of the agent.
  std::size_t unmatched_responses() const;
  std::optional<AgentCall> call() const;
  void ClearRecords();

  bool WaitForCount(Direction direction, std::optional<MgcpKind> kind, std::size_t count,
                    std::chrono::milliseconds timeout) const;
  // Until `count` well-formed commands with this verb have come from the terminal.
  bool WaitForCommand(std::string_view verb, std::size_t count,
                      std::chrono::milliseconds timeout) const;
  // Until an NTFY with this observed event ("X-P/fk0200") has been handled.
  bool WaitForEvent(std::string_view event, std::chrono::milliseconds timeout) const;
  // Until the transaction has its final response (or has timed out: then false).
  bool WaitForFinal(std::uint32_t tid, std::chrono::milliseconds timeout) const;

 private:
  std::optional<std::uint8_t> RuleType(std::span<const std::byte> datagram) const override;
  void Decode(Record& record) const override;
  void HandleLocked(const std::vector<std::byte>& raw, platform::UdpEndpoint from) override;
  void HandleResponseLocked(const MgcpMessage& message);
  void HandleCommandLocked(const MgcpMessage& message);
  void AnswerLocked(const MgcpAnswer& answer, std::uint32_t tid);
  // Counts the events of a new NTFY; a resend of one seen lately counts nothing.
  void CountEventsLocked(const MgcpMessage& ntfy);
  // Numbers, records and sends one command built by `build` from its tid; 0 if not possible.
  std::uint32_t SendCommandLocked(std::string_view verb,
                                  const std::function<std::string(std::uint32_t)>& build);
  void ResendTick(std::uint32_t tid, std::int64_t due_ns);
  std::chrono::milliseconds PeriodLocked(int resends) const;
  std::uint32_t TakeTidLocked();

  const MgcpAgentOptions options_;
  MgcpAgentAnswers answers_;
  ResendPolicy resend_;
  std::string endpoint_name_;
  std::uint32_t next_tid_;
  std::uint32_t next_request_id_ = 1;
  std::uint32_t next_call_ = 1;
  std::map<std::uint32_t, MgcpTransaction> transactions_;
  std::optional<AgentCall> call_;
  std::optional<std::string> last_observed_;
  std::vector<std::string> observed_events_;
  std::size_t unmatched_responses_ = 0;
  // Distinct NTFYs per observed event, lower case; bounded so that a flood of made-up event
  // names cannot grow it without end.
  std::map<std::string, std::uint64_t> event_counts_;
  struct RecentNtfy {
    std::uint32_t tid = 0;
    std::vector<std::string> events;
    std::int64_t steady_ns = 0;
  };
  std::deque<RecentNtfy> recent_ntfys_;  // for telling a resend from a new NTFY
  std::uint64_t accepted_rsips_ = 0;
};

// Why a command of `agent` returned 0: "the call agent is not running", "no terminal has made
// itself known yet", "the terminal's endpoint name is not known yet", or "no call".
std::string NotSentReason(const MgcpAgent& agent);

}  // namespace deskline::sim
