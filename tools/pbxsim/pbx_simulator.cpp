#include "tools/pbxsim/pbx_simulator.h"

#include <algorithm>

namespace deskline::sim {
namespace {

constexpr std::uint32_t kMaxTid = 0x00FFFFFF;
constexpr std::size_t kExtendedResponseBytes = 32;
// Fifteen bytes of model descriptor in the extended response; the terminal does not judge it.
constexpr char kModelDescriptor[] = "DESKLINE-PBXSIM";

// Codes that the terminal reads as a refusal; every other code is success to it.
bool IsRefusal(std::uint8_t code) {
  return (code >= 100 && code <= 103) || (code >= 200 && code <= 202);
}

WireElement ExtendedResponse(ExtendedAnswer kind, std::uint16_t value, std::uint16_t pbx_class) {
  WireElement element{kTagExtendedResponse, std::vector<std::byte>(kExtendedResponseBytes)};
  std::vector<std::byte>& v = element.value;
  v[0] = std::byte{0x01};
  for (std::size_t i = 0; i < 15; ++i) v[1 + i] = static_cast<std::byte>(kModelDescriptor[i]);
  v[16] = std::byte{0x06};
  v[17] = std::byte{0x00};
  v[18] = kind == ExtendedAnswer::kWrongKind ? std::byte{0x41} : std::byte{0x42};
  v[25] = std::byte{0x09};
  v[26] = static_cast<std::byte>(value >> 8);
  v[27] = static_cast<std::byte>(value);
  v[28] = std::byte{0x0A};
  v[29] = static_cast<std::byte>(pbx_class >> 8);
  v[30] = static_cast<std::byte>(pbx_class);
  if (kind == ExtendedAnswer::kShort) v.resize(kExtendedResponseBytes - 1);
  return element;
}

TerminalStart ReadStart(const PtapDatagram& start) {
  TerminalStart info;
  info.tid = start.tid;
  if (const WireElement* e = start.Find(kTagResult); e && !e->value.empty()) {
    info.start_code = static_cast<std::uint8_t>(e->value[0]);
  }
  if (const WireElement* e = start.Find(kTagCapabilities)) {
    info.capabilities = e->value;
    info.extended = !e->value.empty() && e->value[0] == std::byte{0x03};
  }
  if (const WireElement* e = start.Find(kTagVersion)) info.version = e->value;
  if (const WireElement* e = start.Find(kTagIdentity)) info.identity = e->value;
  if (const WireElement* e = start.Find(kTagMac); e && e->value.size() >= info.mac.size()) {
    std::copy_n(e->value.begin(), info.mac.size(), info.mac.begin());
  }
  if (const WireElement* e = start.Find(kTagIp); e && e->value.size() >= 4) {
    info.ip = (std::uint32_t{static_cast<std::uint8_t>(e->value[0])} << 24) |
              (std::uint32_t{static_cast<std::uint8_t>(e->value[1])} << 16) |
              (std::uint32_t{static_cast<std::uint8_t>(e->value[2])} << 8) |
              std::uint32_t{static_cast<std::uint8_t>(e->value[3])};
  }
  return info;
}

std::unique_ptr<MgcpAgent> MakeAgent(const PbxOptions& options) {
  if (!options.mgcp) return nullptr;
  MgcpAgentOptions agent = *options.mgcp;
  if (!agent.clock) agent.clock = options.clock;
  if (!agent.print) agent.print = options.print;
  if (agent.record_limit == 0) agent.record_limit = options.record_limit;
  if (agent.seed == 0) agent.seed = options.seed;
  return std::make_unique<MgcpAgent>(std::move(agent));
}

SimChannelSetup ChannelSetup(const PbxOptions& options) {
  return SimChannelSetup{Channel::kPtap, "pbxsim-ptap", options.ip, options.port, options.clock,
                         options.seed, options.record_limit, options.print};
}

}  // namespace

PbxSimulator::PbxSimulator(PbxOptions options)
    : SimChannel(ChannelSetup(options)), options_(std::move(options)), agent_(MakeAgent(options_)) {}

PbxSimulator::~PbxSimulator() { Stop(); }

bool PbxSimulator::StartNeighbours() {
  if (!agent_) return true;
  agent_->SetOrigin(origin_ns());
  if (!agent_->Start()) return false;
  std::lock_guard lock(mutex_);
  agent_port_ = agent_->port();
  return true;
}

void PbxSimulator::StopNeighbours() {
  if (agent_) agent_->Stop();
  std::lock_guard lock(mutex_);
  agent_port_ = 0;
}

void PbxSimulator::StoppingLocked() { ++keepalive_series_; }

void PbxSimulator::SetAnswers(const PtapAnswers& answers) {
  std::lock_guard lock(mutex_);
  answers_ = answers;
}

PtapAnswers PbxSimulator::answers() const {
  std::lock_guard lock(mutex_);
  return answers_;
}

void PbxSimulator::SetSilent(bool silent) {
  std::lock_guard lock(mutex_);
  answers_.silent = silent;
}


void PbxSimulator::SetTerminal(platform::UdpEndpoint terminal) {
  std::lock_guard lock(mutex_);
  terminal_ = terminal;
}

std::optional<platform::UdpEndpoint> PbxSimulator::terminal() const {
  std::lock_guard lock(mutex_);
  return terminal_;
}

void PbxSimulator::SetNextTid(std::uint32_t tid) {
  std::lock_guard lock(mutex_);
  next_tid_ = tid;
}

std::uint32_t PbxSimulator::SendKeepalive() {
  std::lock_guard lock(mutex_);
  return SendNumberedLocked(kTypeKeepalive, {});
}

bool PbxSimulator::StartKeepalives(std::chrono::milliseconds period) {
  std::lock_guard lock(mutex_);
  if (!running_ || period.count() <= 0) return false;
  const std::uint64_t series = ++keepalive_series_;
  keepalive_period_ = period;
  SendNumberedLocked(kTypeKeepalive, {});
  const std::int64_t due = clock_.SteadyNs() + std::chrono::nanoseconds(period).count();
  scheduler_.At(due, [this, series, due] { KeepaliveTick(series, due); });
  return true;
}

void PbxSimulator::StopKeepalives() {
  std::lock_guard lock(mutex_);
  ++keepalive_series_;
}

void PbxSimulator::KeepaliveTick(std::uint64_t series, std::int64_t due_ns) {
  std::lock_guard lock(mutex_);
  if (!running_ || series != keepalive_series_) return;
  SendNumberedLocked(kTypeKeepalive, {});
  // From the previous due time, not from now, so that the period does not drift.
  const std::int64_t next = due_ns + std::chrono::nanoseconds(keepalive_period_).count();
  scheduler_.At(next, [this, series, next] { KeepaliveTick(series, next); });
}

std::uint32_t PbxSimulator::SendEvent(std::span<const std::byte> payload) {
  std::lock_guard lock(mutex_);
  if (!running_ || !terminal_) return 0;
  const std::uint32_t tid = TakeTidLocked();
  EmitLocked(EncodePtapRaw(tid, kTypeEvent, payload));
  return tid;
}

std::uint32_t PbxSimulator::SendCompulsionRestart() {
  std::lock_guard lock(mutex_);
  return SendNumberedLocked(kTypeCompulsionRestart, {});
}

std::uint32_t PbxSimulator::SendExtendedRequest() {
  std::lock_guard lock(mutex_);
  return SendNumberedLocked(kTypeExtendedRequest, {});
}

std::uint32_t PbxSimulator::SendPacket(std::uint8_t type, std::span<const WireElement> elements) {
  std::lock_guard lock(mutex_);
  return SendNumberedLocked(type, elements);
}

bool PbxSimulator::SendRaw(std::span<const std::byte> datagram) {
  std::lock_guard lock(mutex_);
  return EmitLocked(std::vector<std::byte>(datagram.begin(), datagram.end()));
}


std::size_t PbxSimulator::Count(Direction direction, std::optional<std::uint8_t> type) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(records_.begin(), records_.end(), [&](const Record& r) {
        return r.direction == direction && (!type || PtapType(r.raw) == type);
      }));
}

std::vector<std::uint32_t> PbxSimulator::TerminalAcks() const {
  std::lock_guard lock(mutex_);
  return terminal_acks_;
}

bool PbxSimulator::Acknowledged(std::uint32_t tid) const {
  std::lock_guard lock(mutex_);
  return std::find(terminal_acks_.begin(), terminal_acks_.end(), tid) != terminal_acks_.end();
}

std::optional<TerminalStart> PbxSimulator::LastStart() const {
  std::lock_guard lock(mutex_);
  return last_start_;
}

std::uint64_t PbxSimulator::Handled(std::uint8_t type) const {
  std::lock_guard lock(mutex_);
  return handled_[type];
}

void PbxSimulator::ClearRecords() {
  std::lock_guard lock(mutex_);
  records_.clear();
  terminal_acks_.clear();
  last_start_.reset();
  if (agent_) agent_->ClearRecords();
}



bool PbxSimulator::WaitForCount(Direction direction, std::optional<std::uint8_t> type,
                                std::size_t count, std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return Count(direction, type) >= count; }, timeout);
}


void PbxSimulator::HandleLocked(const std::vector<std::byte>& raw, platform::UdpEndpoint from) {
  const PtapDatagram datagram = DecodePtap(raw);
  // Malformed datagrams are recorded (with the reason) and otherwise ignored, as a PBX would:
  // no ACK, and the sender's address is not learnt from them.
  if (!datagram.ok()) return;
  terminal_ = from;
  ++handled_[datagram.type];
  if (datagram.type == kTypeAck) {
    terminal_acks_.push_back(datagram.tid);
    ChangedLocked();
    return;
  }
  if (answers_.silent) return;
  switch (datagram.type) {
    case kTypeStart:
      AnswerStartLocked(datagram);
      return;
    case kTypeOpBegin: {
      if (answers_.op_begin == OpBeginAnswer::kIgnore) return;
      std::vector<WireElement> elements;
      if (answers_.op_begin == OpBeginAnswer::kAnswer) {
        elements.push_back(ByteElement(kTagResult, answers_.op_begin_result));
      }
      EmitLocked(EncodePtap(datagram.tid, kTypeAck, elements));
      return;
    }
    default:
      EmitLocked(EncodePtap(datagram.tid, kTypeAck, answers_.ack_elements));
      return;
  }
}

void PbxSimulator::AnswerStartLocked(const PtapDatagram& start) {
  last_start_ = ReadStart(start);
  const StartAnswer& answer = answers_.start;
  if (!answer.answer) return;
  // Until the terminal's RSIP shows where it really listens, the agent sends where the
  // answer tells the terminal to listen.
  if (agent_ && terminal_ && answer.mgcp_terminal_port && *answer.mgcp_terminal_port != 0) {
    agent_->SuggestTerminal({terminal_->ip, *answer.mgcp_terminal_port});
  }
  const bool extended = last_start_->extended;
  EmitLocked(EncodePtap(start.tid, kTypeAck, StartAnswerElementsLocked(extended)));
  if (answer.extended_request == ExtendedRequest::kAlways ||
      (answer.extended_request == ExtendedRequest::kWhenExtended && extended)) {
    SendNumberedLocked(kTypeExtendedRequest, {});
  }
}

std::vector<WireElement> PbxSimulator::StartAnswerElementsLocked(bool terminal_extended) const {
  const StartAnswer& a = answers_.start;
  std::vector<WireElement> e;
  if (a.with_parameters) {
    if (a.keepalive_timeout_s)
      e.push_back(ByteElement(kTagKeepaliveTimeout, *a.keepalive_timeout_s));
    if (a.mgcp_pbx_port) {
      const bool agent_port = agent_port_ != 0 && a.mgcp_pbx_port_from_agent;
      e.push_back(U16Element(kTagMgcpPbxPort, agent_port ? agent_port_ : *a.mgcp_pbx_port));
    }
    if (a.mgcp_terminal_port) e.push_back(U16Element(kTagMgcpTerminalPort, *a.mgcp_terminal_port));
    if (const std::optional<HostParameters>& h = a.host_parameters) {
      e.push_back(U16Element(kTagParam0F, h->param_0f));
      e.push_back(ByteElement(kTagParam18, h->param_18));
      e.push_back(ByteElement(kTagParam19, h->param_19));
      e.push_back(ByteElement(kTagParam1B, h->param_1b));
      e.push_back(ByteElement(kTagParam1C, h->param_1c));
      e.push_back(ByteElement(kTagParam1D, h->param_1d));
      e.push_back(ByteElement(kTagParam1E, h->param_1e));
      e.push_back(BytesElement(kTagParamList, h->param_21));
      e.push_back(ByteElement(kTagParam24, h->param_24));
      e.push_back(ByteElement(kTagParam25, h->param_25));
      e.push_back(ByteElement(kTagParam26, h->param_26));
    }
    if (a.ptap_punch_s) e.push_back(ByteElement(kTagPtapPunch, *a.ptap_punch_s));
    if (a.mgcp_punch_s) e.push_back(ByteElement(kTagMgcpPunch, *a.mgcp_punch_s));
    if (a.rtp_punch_s) e.push_back(ByteElement(kTagRtpPunch, *a.rtp_punch_s));
  }
  ExtendedAnswer kind = a.extended;
  if (kind == ExtendedAnswer::kAuto) {
    // A refusal accepts nothing, so it carries no extended response either.
    kind = terminal_extended && !IsRefusal(a.result_code) ? ExtendedAnswer::kGood
                                                          : ExtendedAnswer::kNone;
  }
  if (kind != ExtendedAnswer::kNone) {
    e.push_back(ExtendedResponse(kind, a.extended_value, a.pbx_class_code));
  }
  // The terminal acts on the result (and on element 0x22) the moment it meets it, and its
  // start-up reads the parameters right after: so the release comes last.
  e.push_back(ByteElement(kTagResult, a.result_code));
  e.insert(e.end(), a.extra.begin(), a.extra.end());
  return e;
}

std::uint32_t PbxSimulator::SendNumberedLocked(std::uint8_t type,
                                               std::span<const WireElement> elements) {
  if (!running_ || !terminal_) return 0;
  std::vector<std::byte> datagram = EncodePtap(next_tid_, type, elements);
  if (datagram.empty()) return 0;
  const std::uint32_t tid = TakeTidLocked();
  EmitLocked(std::move(datagram));
  return tid;
}

std::uint32_t PbxSimulator::TakeTidLocked() {
  if (next_tid_ == 0 || next_tid_ > kMaxTid) next_tid_ = 1;
  const std::uint32_t tid = next_tid_;
  next_tid_ = tid == kMaxTid ? 1 : tid + 1;
  return tid;
}

std::optional<std::uint8_t> PbxSimulator::RuleType(std::span<const std::byte> datagram) const {
  return PtapType(datagram);
}

void PbxSimulator::Decode(Record& record) const { record.decoded = DecodePtap(record.raw); }

void PbxSimulator::TrimLocked(std::size_t record_limit) {
  // The ACK list would otherwise grow with every keepalive of a long demo run.
  if (terminal_acks_.size() > record_limit) {
    terminal_acks_.erase(terminal_acks_.begin(),
                         terminal_acks_.begin() +
                             static_cast<std::ptrdiff_t>(terminal_acks_.size() - record_limit));
  }
}

}  // namespace deskline::sim
