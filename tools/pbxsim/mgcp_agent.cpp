#include "tools/pbxsim/mgcp_agent.h"

#include <algorithm>
#include <cstdio>

namespace deskline::sim {
namespace {

constexpr std::uint32_t kMaxTid = 999'999'999;
// How long a terminal may resend one transaction (the protocol's transaction history).
constexpr std::int64_t kRepeatWindowNs = 30'000'000'000;
constexpr std::size_t kMaxRecentNtfys = 256;
constexpr std::size_t kMaxEventNames = 1024;

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string Commentary(const MgcpAnswer& answer) {
  if (answer.commentary) return *answer.commentary;
  return answer.code >= 200 && answer.code <= 299 ? "OK" : "";
}

std::uint32_t ValidTid(std::uint32_t tid) { return tid == 0 || tid > kMaxTid ? 1 : tid; }

}  // namespace

const char* TransactionStateName(TransactionState state) {
  switch (state) {
    case TransactionState::kWaiting:
      return "waiting";
    case TransactionState::kProvisional:
      return "provisional";
    case TransactionState::kAnswered:
      return "answered";
    case TransactionState::kTimedOut:
      return "timed out";
  }
  return "unknown";
}

const TerminalResponse* MgcpTransaction::final_response() const {
  for (const TerminalResponse& response : responses) {
    if (response.code >= 200) return &response;
  }
  return nullptr;
}

namespace {

SimChannelSetup ChannelSetup(const MgcpAgentOptions& options) {
  return SimChannelSetup{Channel::kMgcp, "pbxsim-mgcp", options.ip, options.port, options.clock,
                         options.seed, options.record_limit, options.print};
}

}  // namespace

MgcpAgent::MgcpAgent(MgcpAgentOptions options)
    : SimChannel(ChannelSetup(options)),
      options_(std::move(options)),
      resend_(options_.resend),
      endpoint_name_(options_.endpoint),
      next_tid_(ValidTid(options_.first_tid)) {}

MgcpAgent::~MgcpAgent() { Stop(); }


void MgcpAgent::SetAnswers(const MgcpAgentAnswers& answers) {
  std::lock_guard lock(mutex_);
  answers_ = answers;
}

MgcpAgentAnswers MgcpAgent::answers() const {
  std::lock_guard lock(mutex_);
  return answers_;
}

void MgcpAgent::SetResendPolicy(const ResendPolicy& policy) {
  std::lock_guard lock(mutex_);
  resend_ = policy;
}


void MgcpAgent::SetTerminal(platform::UdpEndpoint terminal) {
  std::lock_guard lock(mutex_);
  terminal_ = terminal;
}

void MgcpAgent::SuggestTerminal(platform::UdpEndpoint terminal) {
  std::lock_guard lock(mutex_);
  if (!terminal_) terminal_ = terminal;
}

std::optional<platform::UdpEndpoint> MgcpAgent::terminal() const {
  std::lock_guard lock(mutex_);
  return terminal_;
}

void MgcpAgent::SetEndpointName(std::string endpoint) {
  std::lock_guard lock(mutex_);
  endpoint_name_ = std::move(endpoint);
}

std::string MgcpAgent::endpoint_name() const {
  std::lock_guard lock(mutex_);
  return endpoint_name_;
}

// --- commands ---

std::uint32_t MgcpAgent::SendRqnt(const std::vector<std::vector<std::string>>& signal_lines,
                                  std::string_view requested_events) {
  std::lock_guard lock(mutex_);
  RqntText rqnt;
  rqnt.endpoint = endpoint_name_;
  rqnt.requested_events = std::string(requested_events);
  rqnt.signal_lines = signal_lines;
  const std::uint32_t request_id = next_request_id_;
  rqnt.request_id = request_id;
  const std::uint32_t tid = SendCommandLocked("RQNT", [&](std::uint32_t t) {
    rqnt.tid = t;
    return BuildRqnt(rqnt);
  });
  if (tid != 0) ++next_request_id_;
  return tid;
}

std::uint32_t MgcpAgent::SendSignals(const std::vector<std::string>& signals) {
  return SendRqnt({signals});
}

std::uint32_t MgcpAgent::SendCrcx(const MediaOffer& offer, ConnectionMode mode,
                                  std::string call_id) {
  std::lock_guard lock(mutex_);
  if (call_id.empty()) {
    char text[12];
    std::snprintf(text, sizeof(text), "%08X", static_cast<unsigned>(next_call_));
    call_id = text;
  }
  ConnectionText crcx;
  crcx.endpoint = endpoint_name_;
  crcx.call_id = call_id;
  crcx.mode = mode;
  crcx.sdp = offer;
  const std::uint32_t tid = SendCommandLocked("CRCX", [&](std::uint32_t t) {
    crcx.tid = t;
    return BuildCrcx(crcx);
  });
  if (tid == 0) return 0;
  ++next_call_;
  call_ = AgentCall{call_id, "", tid, offer, mode};
  ChangedLocked();
  return tid;
}

std::uint32_t MgcpAgent::SendMdcx(ConnectionMode mode, const std::optional<MediaOffer>& offer) {
  std::lock_guard lock(mutex_);
  if (!call_) return 0;
  ConnectionText mdcx;
  mdcx.endpoint = endpoint_name_;
  mdcx.call_id = call_->call_id;
  mdcx.connection_id = call_->connection_id;
  mdcx.mode = mode;
  mdcx.sdp = offer;
  const std::uint32_t tid = SendCommandLocked("MDCX", [&](std::uint32_t t) {
    mdcx.tid = t;
    return BuildMdcx(mdcx);
  });
  if (tid == 0) return 0;
  call_->mode = mode;
  if (offer) call_->offer = *offer;
  ChangedLocked();
  return tid;
}

std::uint32_t MgcpAgent::SendDlcx() {
  std::lock_guard lock(mutex_);
  const std::string call_id = call_ ? call_->call_id : "";
  const std::string connection_id = call_ ? call_->connection_id : "";
  const std::uint32_t tid = SendCommandLocked("DLCX", [&](std::uint32_t t) {
    return BuildDlcx(t, endpoint_name_, call_id, connection_id);
  });
  if (tid == 0) return 0;
  call_.reset();
  ChangedLocked();
  return tid;
}

std::uint32_t MgcpAgent::SendAuep(std::string_view requested_info) {
  std::lock_guard lock(mutex_);
  return SendCommandLocked(
      "AUEP", [&](std::uint32_t t) { return BuildAuep(t, endpoint_name_, requested_info); });
}

std::uint32_t MgcpAgent::SendCommand(std::string_view verb, std::string_view rest) {
  std::lock_guard lock(mutex_);
  return SendCommandLocked(verb, [&](std::uint32_t t) {
    return std::string(verb) + " " + std::to_string(t) + " " + endpoint_name_ + " MGCP 1.0\r\n" +
           std::string(rest);
  });
}

bool MgcpAgent::SendRaw(std::span<const std::byte> datagram) {
  std::lock_guard lock(mutex_);
  return EmitLocked(std::vector<std::byte>(datagram.begin(), datagram.end()));
}

std::uint32_t MgcpAgent::SendCommandLocked(
    std::string_view verb, const std::function<std::string(std::uint32_t)>& build) {
  if (!running_ || !terminal_ || endpoint_name_.empty()) return 0;
  const std::uint32_t tid = TakeTidLocked();
  MgcpTransaction transaction;
  transaction.tid = tid;
  transaction.verb = std::string(verb);
  transaction.text = build(tid);
  transaction.sent_ns = clock_.SteadyNs();
  const std::vector<std::byte> bytes = ToBytes(transaction.text);
  transactions_[tid] = std::move(transaction);
  if (options_.record_limit != 0 && transactions_.size() > options_.record_limit) {
    transactions_.erase(transactions_.begin());
  }
  EmitLocked(bytes);
  const std::int64_t due =
      clock_.SteadyNs() + std::chrono::nanoseconds(PeriodLocked(0)).count();
  scheduler_.At(due, [this, tid, due] { ResendTick(tid, due); });
  ChangedLocked();
  return tid;
}

std::chrono::milliseconds MgcpAgent::PeriodLocked(int resends) const {
  std::chrono::milliseconds period = std::max(resend_.first_period, std::chrono::milliseconds(1));
  for (int i = 0; i < resends && period < resend_.max_period; ++i) period *= 2;
  return std::min(period, std::max(resend_.max_period, std::chrono::milliseconds(1)));
}

void MgcpAgent::ResendTick(std::uint32_t tid, std::int64_t due_ns) {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  const auto it = transactions_.find(tid);
  if (it == transactions_.end()) return;
  MgcpTransaction& transaction = it->second;
  if (transaction.state != TransactionState::kWaiting) return;
  if (transaction.resends >= resend_.max_resends) {
    transaction.state = TransactionState::kTimedOut;
    ChangedLocked();
    return;
  }
  ++transaction.resends;
  // Measured from the previous due time, so that the schedule does not drift.
  const std::int64_t next =
      due_ns + std::chrono::nanoseconds(PeriodLocked(transaction.resends)).count();
  EmitLocked(ToBytes(transaction.text));
  scheduler_.At(next, [this, tid, next] { ResendTick(tid, next); });
  ChangedLocked();
}

std::uint32_t MgcpAgent::TakeTidLocked() {
  next_tid_ = ValidTid(next_tid_);
  const std::uint32_t tid = next_tid_;
  next_tid_ = tid == kMaxTid ? 1 : tid + 1;
  return tid;
}

// --- what arrives ---


void MgcpAgent::HandleLocked(const std::vector<std::byte>& raw, platform::UdpEndpoint from) {
  const MgcpMessage message = DecodeMgcp(raw);
  // Malformed texts (and the empty datagrams of port punching) are recorded and otherwise
  // ignored: no answer, and the sender's address is not learnt from them.
  if (!message.ok()) return;
  terminal_ = from;
  if (message.is_response) {
    HandleResponseLocked(message);
  } else {
    HandleCommandLocked(message);
  }
  ChangedLocked();
}

void MgcpAgent::HandleResponseLocked(const MgcpMessage& message) {
  const auto it = transactions_.find(message.tid);
  if (it == transactions_.end()) {
    ++unmatched_responses_;
    return;
  }
  MgcpTransaction& transaction = it->second;
  TerminalResponse response;
  response.code = message.code;
  response.tid = message.tid;
  response.commentary = message.commentary;
  if (const std::string* id = message.Header("I")) response.connection_id = *id;
  response.sdp = message.sdp;
  response.steady_ns = clock_.SteadyNs();
  if (message.code >= 200) {
    // A late response after a time-out still answers the command.
    transaction.state = TransactionState::kAnswered;
  } else if (transaction.state == TransactionState::kWaiting) {
    transaction.state = TransactionState::kProvisional;
  }
  // The terminal names the connection that a CRCX made in its answer.
  if (transaction.verb == "CRCX" && !response.connection_id.empty() && call_ &&
      call_->crcx_tid == transaction.tid) {
    call_->connection_id = response.connection_id;
  }
  transaction.responses.push_back(std::move(response));
}

void MgcpAgent::HandleCommandLocked(const MgcpMessage& message) {
  endpoint_name_ = message.endpoint;
  const MgcpAnswer* answer = &answers_.other;
  switch (message.kind()) {
    case MgcpKind::kRsip:
      answer = &answers_.rsip;
      if (!answers_.silent && answer->answer && answer->code >= 200 && answer->code <= 299) {
        ++accepted_rsips_;
      }
      break;
    case MgcpKind::kNtfy: {
      answer = &answers_.ntfy;
      const std::string* observed = message.Header("O");
      last_observed_ = observed ? *observed : std::string();
      observed_events_.insert(observed_events_.end(), message.observed_events.begin(),
                              message.observed_events.end());
      if (options_.record_limit != 0 && observed_events_.size() > options_.record_limit) {
        observed_events_.erase(observed_events_.begin(),
                               observed_events_.end() -
                                   static_cast<std::ptrdiff_t>(options_.record_limit));
      }
      CountEventsLocked(message);
      break;
    }
    case MgcpKind::kDlcx:
      answer = &answers_.dlcx;
      // The terminal has let the connection go.
      call_.reset();
      break;
    default:
      break;
  }
  AnswerLocked(*answer, message.tid);
}

void MgcpAgent::CountEventsLocked(const MgcpMessage& ntfy) {
  const std::int64_t now = clock_.SteadyNs();
  while (!recent_ntfys_.empty() && (now - recent_ntfys_.front().steady_ns > kRepeatWindowNs ||
                                    recent_ntfys_.size() > kMaxRecentNtfys)) {
    recent_ntfys_.pop_front();
  }
  for (const RecentNtfy& seen : recent_ntfys_) {
    // The terminal resends an unanswered NTFY as it was: the same event once more is no
    // new key press.
    if (seen.tid == ntfy.tid && seen.events == ntfy.observed_events) return;
  }
  recent_ntfys_.push_back(RecentNtfy{ntfy.tid, ntfy.observed_events, now});
  for (const std::string& event : ntfy.observed_events) {
    std::string key = Lower(event);
    const auto it = event_counts_.find(key);
    if (it != event_counts_.end()) {
      ++it->second;
    } else if (event_counts_.size() < kMaxEventNames) {
      event_counts_.emplace(std::move(key), 1);
    }
  }
}

void MgcpAgent::AnswerLocked(const MgcpAnswer& answer, std::uint32_t tid) {
  if (answers_.silent || !answer.answer) return;
  std::vector<std::byte> text = ToBytes(BuildResponse(answer.code, tid, Commentary(answer)));
  if (answer.delay.count() <= 0) {
    EmitLocked(std::move(text));
    return;
  }
  scheduler_.After(answer.delay, [this, text = std::move(text)]() mutable {
    std::lock_guard lock(mutex_);
    if (running_) EmitLocked(std::move(text));
  });
}

// --- the wire ---

std::optional<std::uint8_t> MgcpAgent::RuleType(std::span<const std::byte> datagram) const {
  return MgcpRuleType(datagram);
}

void MgcpAgent::Decode(Record& record) const { record.mgcp = DecodeMgcp(record.raw); }


// --- recording ---


std::size_t MgcpAgent::Count(Direction direction, std::optional<MgcpKind> kind) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(records_.begin(), records_.end(), [&](const Record& r) {
        return r.direction == direction && (!kind || (r.mgcp.ok() && r.mgcp.kind() == *kind));
      }));
}

std::vector<Record> MgcpAgent::Messages(std::string_view verb) const {
  std::lock_guard lock(mutex_);
  std::vector<Record> found;
  for (const Record& r : records_) {
    if (r.direction == Direction::kIn && r.mgcp.ok() && !r.mgcp.is_response &&
        r.mgcp.verb == verb) {
      found.push_back(r);
    }
  }
  return found;
}

std::vector<MgcpTransaction> MgcpAgent::Transactions() const {
  std::lock_guard lock(mutex_);
  std::vector<MgcpTransaction> all;
  for (const auto& [tid, transaction] : transactions_) all.push_back(transaction);
  return all;
}

std::optional<MgcpTransaction> MgcpAgent::Transaction(std::uint32_t tid) const {
  std::lock_guard lock(mutex_);
  const auto it = transactions_.find(tid);
  if (it == transactions_.end()) return std::nullopt;
  return it->second;
}

std::optional<SdpInfo> MgcpAgent::TerminalSdp(std::uint32_t tid) const {
  std::lock_guard lock(mutex_);
  const auto it = transactions_.find(tid);
  if (it == transactions_.end()) return std::nullopt;
  const std::vector<TerminalResponse>& responses = it->second.responses;
  for (auto r = responses.rbegin(); r != responses.rend(); ++r) {
    if (r->sdp) return r->sdp;
  }
  return std::nullopt;
}

std::optional<SdpInfo> MgcpAgent::LastTerminalSdp() const {
  std::lock_guard lock(mutex_);
  const TerminalResponse* latest = nullptr;
  for (const auto& [tid, transaction] : transactions_) {
    for (const TerminalResponse& response : transaction.responses) {
      if (response.sdp && (!latest || response.steady_ns >= latest->steady_ns)) latest = &response;
    }
  }
  if (!latest) return std::nullopt;
  return latest->sdp;
}

std::optional<std::string> MgcpAgent::LastObservedEvent() const {
  std::lock_guard lock(mutex_);
  return last_observed_;
}

std::vector<std::string> MgcpAgent::ObservedEvents() const {
  std::lock_guard lock(mutex_);
  return observed_events_;
}

std::uint64_t MgcpAgent::EventCount(std::string_view event) const {
  std::lock_guard lock(mutex_);
  const auto it = event_counts_.find(Lower(event));
  return it == event_counts_.end() ? 0 : it->second;
}

std::uint64_t MgcpAgent::AcceptedRsips() const {
  std::lock_guard lock(mutex_);
  return accepted_rsips_;
}

std::size_t MgcpAgent::unmatched_responses() const {
  std::lock_guard lock(mutex_);
  return unmatched_responses_;
}

std::optional<AgentCall> MgcpAgent::call() const {
  std::lock_guard lock(mutex_);
  return call_;
}

void MgcpAgent::ClearRecords() {
  std::lock_guard lock(mutex_);
  records_.clear();
  observed_events_.clear();
  last_observed_.reset();
  unmatched_responses_ = 0;
  // Transactions still waiting keep their resends going; finished ones go.
  std::erase_if(transactions_, [](const auto& entry) {
    return entry.second.state == TransactionState::kAnswered ||
           entry.second.state == TransactionState::kTimedOut;
  });
  ChangedLocked();
}


bool MgcpAgent::WaitForCount(Direction direction, std::optional<MgcpKind> kind,
                             std::size_t count, std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return Count(direction, kind) >= count; }, timeout);
}

bool MgcpAgent::WaitForCommand(std::string_view verb, std::size_t count,
                               std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return Messages(verb).size() >= count; }, timeout);
}

bool MgcpAgent::WaitForEvent(std::string_view event, std::chrono::milliseconds timeout) const {
  return WaitFor(
      [&] {
        const std::vector<std::string> events = ObservedEvents();
        return std::find(events.begin(), events.end(), event) != events.end();
      },
      timeout);
}

bool MgcpAgent::WaitForFinal(std::uint32_t tid, std::chrono::milliseconds timeout) const {
  auto state = [&] {
    const std::optional<MgcpTransaction> t = Transaction(tid);
    return t ? t->state : TransactionState::kTimedOut;
  };
  WaitFor(
      [&] {
        const TransactionState s = state();
        return s == TransactionState::kAnswered || s == TransactionState::kTimedOut;
      },
      timeout);
  return state() == TransactionState::kAnswered;
}

std::string NotSentReason(const MgcpAgent& agent) {
  if (!agent.running()) return "the call agent is not running";
  if (!agent.terminal()) return "no terminal has made itself known yet";
  if (agent.endpoint_name().empty()) return "the terminal's endpoint name is not known yet";
  return "no call";
}

}  // namespace deskline::sim
