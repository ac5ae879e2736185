#include "ptap/ptap.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/fs.h"
#include "platform/ini.h"
#include "support/tracer.h"

namespace deskline {
namespace {

constexpr char kNoConnection[] = "PTAP_NOCONN";
constexpr char kCompulsionRestart[] = "PTAP_COMREST";

// Waits of the worker threads.
constexpr std::chrono::milliseconds kResendPeriod{5};
// Belt and braces: wakes come by event (a packet to resend, keepalive data, shutdown), so an
// idle thread looks again only twice a minute.
constexpr std::chrono::milliseconds kIdleWait{30000};
constexpr std::chrono::milliseconds kReceiveErrorBackoff{10};

std::chrono::milliseconds UntilNs(std::int64_t deadline_ns, std::int64_t now_ns) {
  if (deadline_ns <= now_ns) return std::chrono::milliseconds(0);
  const std::int64_t ms = (deadline_ns - now_ns + 999'999) / 1'000'000;
  return std::chrono::milliseconds(std::min<std::int64_t>(ms, kIdleWait.count()));
}

}  // namespace

CPtap::CPtap(platform::Clock& clock, PtapOptions options)
    : clock_(clock), options_(std::move(options)) {
  DL_TRACE(TRACE_STATUS, "[PTAP] Module created");
}

CPtap::~CPtap() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[PTAP] Module destroyed");
  ClearObservers();
}

// ---- Life ------------------------------------------------------------------------------

int CPtap::FailStart(std::unique_lock<std::mutex>& lock, std::uint32_t level,
                     const char* message) {
  DL_TRACE(level, "%s", message);
  lock.unlock();
  Shutdown();
  return 1;
}

int CPtap::Start() {
  std::unique_lock lock(module_lock_);
  if (started_) {
    DL_TRACE(TRACE_WARNING, "[PTAP :: Warning] Module already started");
    return 1;
  }
  shutting_down_ = false;
  DL_TRACE(TRACE_STATUS, "[PTAP] Module starting");

  if (Prepare() != 0) {
    lock.unlock();
    Shutdown();
    return 1;
  }
  if (!OpenSocket()) {
    return FailStart(lock, TRACE_CRITICAL, "[PTAP :: CRITICAL ERROR] Socket creation failed - PTAP");
  }
  buffer_.ClearBuffer();
  stop_event_.Reset();
  resend_wake_.Reset();
  keepalive_wake_.Reset();
  started_ = true;

  // Each id is stored before its thread is resumed: a loop ends when its id no longer matches.
  if (!socket_thread_.created()) {
    const platform::ThreadId id =
        socket_thread_.Create("dl-ptap-socket", [this](platform::ThreadId self) { SocketLoop(self); });
    if (id == 0) {
      return FailStart(lock, TRACE_CRITICAL,
                       "[PTAP :: CRITICAL ERROR] Thread creation failed - PTAP socket polling");
    }
    socket_thread_id_ = id;
    socket_thread_.Resume();
  }
  if (!resend_thread_.created()) {
    const platform::ThreadId id = resend_thread_.Create(
        "dl-ptap-resend", [this](platform::ThreadId self) { RetransmissionLoop(self); });
    if (id == 0) {
      return FailStart(lock, TRACE_ERROR,
                       "[PTAP :: ERROR] Thread creation failed - PTAP retransmission");
    }
    resend_thread_id_ = id;
    resend_thread_.Resume();
  }
  if (!keepalive_thread_.created()) {
    const platform::ThreadId id = keepalive_thread_.Create(
        "dl-ptap-alive", [this](platform::ThreadId self) { KeepaliveLoop(self); });
    if (id == 0) {
      return FailStart(lock, TRACE_ERROR,
                       "[PTAP :: ERROR] Thread creation failed - Connection timeout polling");
    }
    keepalive_thread_id_ = id;
    keepalive_thread_.Resume();
  }

  if (options_.start_settle.count() > 0) clock_.SleepFor(options_.start_settle);
  return 0;
}

int CPtap::Prepare() {
  {
    std::lock_guard lock(send_lock_);
    next_tid_ = 1;
    terminal_ = PtapTerminalData{};
  }
  last_sent_type_ = 0;
  last_received_tid_ = 0;
  error_code_ = 0;
  // A new run reports its own loss of connection.
  connection_lost_ = false;
  parameters_.ResetParameters();
  keepalive_.Reset();
  buffer_.ClearBuffer();
  if (LoadInitData() != 0) {
    DL_TRACE(TRACE_CRITICAL,
             "[PTAP :: CRITICAL ERROR] Startup failed - Error in PTAP initialization data");
    return 1;
  }
  if (!parameters_.EnsureContainer()) {
    DL_TRACE(TRACE_CRITICAL,
             "[PTAP :: CRITICAL ERROR] Object creation failed - PTAP parameters data");
    return 1;
  }
  return 0;
}

int CPtap::Shutdown() {
  std::lock_guard lock(module_lock_);
  shutting_down_ = true;
  // Clear the ids first, then wake every wait and release the receiver, then join.
  socket_thread_id_ = 0;
  resend_thread_id_ = 0;
  keepalive_thread_id_ = 0;
  stop_event_.Set();
  resend_wake_.Set();
  keepalive_wake_.Set();
  socket_.Shutdown();
  if (socket_thread_.created()) {
    socket_thread_.Join();
    DL_TRACE(TRACE_STATUS, "[PTAP :: Thread] Thread shutdown - PTAP socket polling");
  }
  if (resend_thread_.created()) {
    resend_thread_.Join();
    DL_TRACE(TRACE_STATUS, "[PTAP :: Thread] Thread shutdown - PTAP retransmission");
  }
  if (keepalive_thread_.created()) {
    keepalive_thread_.Join();
    DL_TRACE(TRACE_STATUS, "[PTAP :: Thread] Thread shutdown - Connection timeout polling");
  }
  // Closed only now that no thread can be inside a receive on the descriptor.
  socket_.Close();
  parameters_.FreeContainer();
  buffer_.ClearBuffer();
  started_ = false;
  return 0;
}

// ---- Registration ----------------------------------------------------------------------

int CPtap::SetNetworkData(const NetworkInitData* data) {
  if (data != nullptr) {
    init_data_ = data;
    DL_TRACE(TRACE_STATUS, "[PTAP] Network initialization data has been registered");
  } else {
    DL_TRACE(TRACE_WARNING, "[PTAP :: Warning] Reference to invalid network data");
  }
  return init_data_.load() != nullptr ? 0 : 1;
}

int CPtap::SetParent(PtapParent* parent) {
  parent_ = parent;
  DL_TRACE(TRACE_STATUS, "[PTAP] Parent reference registered - CallProcessor");
  return 0;
}

int CPtap::AddObserver(PtapObserver* observer) {
  if (observer == nullptr) return 1;
  std::lock_guard lock(observers_lock_);
  if (std::find(observers_.begin(), observers_.end(), observer) == observers_.end()) {
    observers_.push_back(observer);
  }
  return 0;
}

int CPtap::RemoveObserver(PtapObserver* observer) {
  if (observer == nullptr) return 1;
  std::lock_guard lock(observers_lock_);
  observers_.erase(std::remove(observers_.begin(), observers_.end(), observer), observers_.end());
  return 0;
}

int CPtap::ClearObservers() {
  std::lock_guard lock(observers_lock_);
  observers_.clear();
  return 0;
}

int CPtap::LoadInitData() {
  const NetworkInitData* data = init_data_.load();
  if (data == nullptr) {
    DL_TRACE(TRACE_CRITICAL, "[PTAP :: CRITICAL ERROR] Cannot update PTAP initialization data");
    return 1;
  }
  {
    std::lock_guard lock(send_lock_);
    terminal_.start_code = data->start_code;
    std::memcpy(terminal_.terminal_identity.data(), data->terminal_identity,
                terminal_.terminal_identity.size());
    std::memcpy(terminal_.mac_address.data(), data->mac_address, terminal_.mac_address.size());
    terminal_.local_ip = data->local_ip;
    terminal_.start_mode = data->start_mode;
  }
  pbx_ip_ = data->pbx_ip;
  start_mode_ = data->start_mode;
  return 0;
}

// ---- Socket ----------------------------------------------------------------------------

std::uint16_t CPtap::ReadPort(const std::string& path, const char* key, std::uint16_t fallback) {
  const std::optional<int> value = platform::ReadIniInt(path, kConfigSection, key);
  if (!value || *value < 0 || *value > 65535) return fallback;
  return static_cast<std::uint16_t>(*value);
}

void CPtap::SetRemoteIp(std::uint32_t ip_host_order) {
  remote_ip_ = ip_host_order;
  char text[16];
  platform::FormatIpv4(ip_host_order, text);
  DL_TRACE(TRACE_STATUS, "[PTAP] Remote IP configured to: %s", text);
}

platform::UdpEndpoint CPtap::RemoteEndpoint() const {
  return platform::UdpEndpoint{remote_ip_.load(), remote_port_.load()};
}

bool CPtap::OpenSocket() {
  SetRemoteIp(pbx_ip_);
  std::string folder =
      options_.config_directory.empty() ? platform::CurrentDirectory() : options_.config_directory;
  const std::string path = folder.empty() ? std::string(kConfigFile) : folder + "/" + kConfigFile;
  const std::uint16_t client_port = ReadPort(path, "ClientPort", kDefaultClientPort);
  const std::uint16_t server_port = ReadPort(path, "ServerPort", kDefaultServerPort);
  if (!socket_.Open(platform::UdpEndpoint{0, client_port})) return false;
  remote_port_ = server_port;
  return true;
}

// ---- Sending ---------------------------------------------------------------------------

bool CPtap::Transmit(std::span<const std::uint8_t> datagram) {
  if (options_.transmit) return options_.transmit(datagram);
  return socket_.SendTo(std::as_bytes(datagram), RemoteEndpoint());
}

int CPtap::TransmitPacket(PtapPacket& packet) {
  std::array<std::uint8_t, kPtapMaxDatagram> datagram;
  const std::size_t length = EncodePtapDatagram(packet, datagram);
  if (length == 0) return 1;
  const bool sent = Transmit(std::span<const std::uint8_t>(datagram.data(), length));
  // A packet whose send failed is kept all the same: the list sends it again.
  if (packet.type != PTAP_TYPE_ACK && !packet.resend) {
    if (buffer_.CopyToBuffer(packet, clock_.UtcNow()) == 0) resend_wake_.Set();
  }
  return sent ? static_cast<int>(length) : 1;
}

int CPtap::SendPacket(int type, const std::uint8_t* data, std::size_t count) {
  std::lock_guard lock(send_lock_);
  PtapPacket packet;
  packet.magic = {'P', 'T', 'A', 'P'};
  packet.type = static_cast<std::uint8_t>(type & 0xFF);
  packet.tid = next_tid_;
  DL_TRACE(TRACE_DETAIL, "[PTAP] Packet transmission request: type[%d]", type);
  if (!BuildPtapBody(type, terminal_, data, count, packet.payload)) return 1;
  if (type == PTAP_TYPE_ACK) {
    packet.tid = last_received_tid_.load();
    DL_TRACE(TRACE_DETAIL, "[PTAP] Implicit acknowledgment sent");
  } else {
    if (type == PTAP_TYPE_ERROR_REPORT) {
      DL_TRACE(TRACE_STATUS, "[PTAP] Error response code sent via PTAP: [%u]",
               static_cast<unsigned>(data[0]));
    }
    ++next_tid_;
    last_sent_type_ = type;
  }
  return TransmitPacket(packet);
}

int CPtap::SendPunch() {
  return Transmit(std::span<const std::uint8_t>()) ? 0 : 1;
}

// ---- What the PBX delivered ------------------------------------------------------------

int CPtap::GetErrorCode() const { return error_code_.load(); }

void CPtap::SetErrorCode(const int* code) {
  if (code != nullptr) error_code_ = *code;
}

int CPtap::GetParameter(std::uint32_t selector) { return parameters_.GetParameter(selector); }

int CPtap::GetParameterContainer(PtapParameterContainer* out) const {
  std::lock_guard packet_lock(packet_lock_);
  return parameters_.CopyContainer(out);
}

void CPtap::NotifyObservers(int event) {
  std::vector<PtapObserver*> observers;
  {
    std::lock_guard lock(observers_lock_);
    observers = observers_;
  }
  for (PtapObserver* observer : observers) observer->OnPtapEvent(&event);
}

void CPtap::NotifyParent(const char* payload, std::size_t length) {
  if (PtapParent* parent = parent_.load()) {
    parent->OnPtapMessage(static_cast<std::uint32_t>(PTAP_TYPE_EVENT), payload, length);
  }
}

// ---- Receive path ----------------------------------------------------------------------

int CPtap::ProcessDatagram(const std::uint8_t* data, std::size_t length) {
  if (data == nullptr) return 1;
  // The socket reads at most one datagram's worth; the same cut applies here.
  length = std::min(length, kPtapMaxDatagram);
  const std::unique_ptr<PtapPacket> packet =
      DecodePtapDatagram(std::span<const std::uint8_t>(data, length));
  if (!packet) return 1;  // 9 bytes or fewer: dropped silently, no ACK

  const int header = CheckHeader(*packet);
  if (header == -3) return 1;
  if (header == 0) {
    // Acknowledged before anything in it is acted upon; a failed ACK is the PBX's to resend.
    SendPacket(PTAP_TYPE_ACK, nullptr, 0);
  } else {
    DL_TRACE(TRACE_DETAIL, "[PTAP] Incoming ACK tid = %d", static_cast<int>(packet->tid));
    if (!buffer_.empty()) {
      DL_TRACE(TRACE_DETAIL, "[PTAP] Removed tid = %d", static_cast<int>(packet->tid));
      buffer_.RemoveFromBuffer(packet->tid);
    }
  }

  // Fixed order: type handling, element handler, then the loader while the delivery is open.
  std::lock_guard packet_lock(packet_lock_);
  HandleType(*packet);
  HandleElements(*packet);
  if (!parameters_.parameters_complete()) LoadParameters(*packet);
  return 0;
}

int CPtap::CheckHeader(const PtapPacket& packet) {
  if (!HasPtapHeader(packet)) return -3;
  last_received_tid_ = packet.tid;
  switch (packet.type) {
    case PTAP_TYPE_ACK:
      return 1;
    case PTAP_TYPE_KEEPALIVE: {
      const std::int64_t now = clock_.SteadyNs();
      keepalive_.OnKeepaliveRequest(now);
      DL_TRACE(TRACE_DETAIL, "[PTAP] Keepalive request received -- Timestamp = %u\n",
               static_cast<unsigned>(clock_.TickMs()));
      return 0;
    }
    case PTAP_TYPE_COMPULSION_RESTART:
      DL_TRACE(TRACE_STATUS, "[PTAP] Compulsion Restart Packet Detected\n");
      return 0;
    default:
      return 0;
  }
}

void CPtap::HandleType(const PtapPacket& packet) {
  switch (packet.type) {
    case PTAP_TYPE_EVENT:
      NotifyParent(reinterpret_cast<const char*>(packet.payload.data()), packet.payload.size());
      break;
    case PTAP_TYPE_EXTENDED_REQUEST:
      if (init_data_.load() != nullptr && start_mode_.load() == 1) {
        SendPacket(PTAP_TYPE_EXTENDED_REPLY, nullptr, 0);
      } else {
        error_code_ = 211;
        NotifyObservers(PTAP_EVENT_WRONG_TERMINAL);
      }
      break;
    case PTAP_TYPE_COMPULSION_RESTART:
      // The PBX demands a restart: the host hears it as system event 26 through CCp.
      NotifyParent(kCompulsionRestart, sizeof(kCompulsionRestart) - 1);
      break;
    default:
      break;
  }
}

int CPtap::HandleElements(const PtapPacket& packet) {
  for (const PtapElement& element : packet.elements) {
    const std::span<const std::uint8_t> value = packet.Value(element);
    switch (element.tag) {
      case PTAP_TAG_RESULT: {
        if (value.empty()) break;
        switch (MapPtapResultCode(value[0])) {
          case 200:
            error_code_ = 200;
            NotifyObservers(PTAP_EVENT_RESULT_200);
            return 0;
          case 201:
            error_code_ = 201;
            NotifyObservers(PTAP_EVENT_START_REFUSED);
            return 0;
          case 0:
            // Raised as the element is met: the elements behind it are stored after CCp knows.
            if (last_sent_type_.load() == PTAP_TYPE_START && start_mode_.load() == 0) {
              error_code_ = 0;
              NotifyObservers(PTAP_EVENT_START_ANSWERED);
            } else if (last_sent_type_.load() == PTAP_TYPE_OP_BEGIN) {
              error_code_ = 0;
              NotifyObservers(PTAP_EVENT_OP_BEGIN_ANSWERED);
            }
            break;
          default:  // 202 and 203 release nobody
            break;
        }
        break;
      }
      case PTAP_TAG_EXTENDED_RESPONSE:
        if (HandleExtendedResponse(value)) return 0;
        break;
      case PTAP_TAG_KEEPALIVE_TIMEOUT:
        if (parameters_.StoreElement(element.tag, value)) OnKeepaliveTimeout(value[0]);
        break;
      default:
        parameters_.StoreElement(element.tag, value);
        break;
    }
  }
  return 0;
}

bool CPtap::HandleExtendedResponse(std::span<const std::uint8_t> value) {
  if (start_mode_.load() != 1) return false;
  bool wrong_terminal = false;
  if (value.size() < 32) {
    wrong_terminal = true;
  } else if (value[16] != 0x06 || value[17] != 0x00 || value[18] != 0x42) {
    wrong_terminal = true;
  } else {
    parameters_.SetExtendedOk();
    if (value[25] == 0x09) {
      parameters_.SetExtendedValue(static_cast<std::uint16_t>((value[26] << 8) | value[27]));
    }
    if (value[28] == 0x0A) {
      const auto delivered = static_cast<std::uint16_t>((value[29] << 8) | value[30]);
      parameters_.SetPbxClass(static_cast<std::uint16_t>(MapPbxClass(delivered)));
      NotifyObservers(PTAP_EVENT_PBX_CLASS);
    }
  }
  if (wrong_terminal) {
    error_code_ = 211;
    NotifyObservers(PTAP_EVENT_WRONG_TERMINAL);
    return true;
  }
  if (last_sent_type_.load() == PTAP_TYPE_START) {
    error_code_ = 0;
    NotifyObservers(PTAP_EVENT_START_ANSWERED);
  }
  return false;
}

void CPtap::OnKeepaliveTimeout(std::uint32_t seconds) {
  keepalive_.OnTimeoutData(seconds, clock_.SteadyNs());
  DL_TRACE(TRACE_DETAIL, "[PTAP] KeepAlive Timeout data received, Timeout = %u", seconds);
  // The timer may be waiting for its first data or on a deadline that has just moved.
  keepalive_wake_.Set();
}

int CPtap::LoadParameters(const PtapPacket& packet) {
  return parameters_.LoadParameters(packet,
                                    [this](std::uint32_t seconds) { OnKeepaliveTimeout(seconds); });
}

// ---- Timers ----------------------------------------------------------------------------

void CPtap::ScanRetransmissions() {
  buffer_.Scan(clock_.UtcNow(), [this](PtapPacket& packet) { TransmitPacket(packet); });
}

std::optional<std::int64_t> CPtap::PollConnection() {
  const std::int64_t now = clock_.SteadyNs();
  if (!keepalive_.armed() && shutting_down_.load()) return std::nullopt;
  const PtapKeepalive::Check check = keepalive_.Poll(now);
  switch (check.state) {
    case PtapKeepalive::State::kNotArmed:
      return now + std::chrono::nanoseconds(kIdleWait).count();
    case PtapKeepalive::State::kRunning:
      return check.deadline_ns;
    case PtapKeepalive::State::kExpired:
      break;
  }
  // Reported once, and only for a delivery that was complete; the timer ends either way.
  if (!connection_lost_.load() && parameters_.TakeParametersComplete()) {
    connection_lost_ = true;
    keepalive_.Disarm();
    DL_TRACE(TRACE_WARNING, "[PTAP :: Thread] TIMEOUT -- Threshold: %u, Current running time: %u",
             keepalive_.threshold(), check.seconds);
    NotifyParent(kNoConnection, sizeof(kNoConnection) - 1);
    keepalive_.ClearLastKeepalive();
  }
  return std::nullopt;
}

// ---- Worker threads --------------------------------------------------------------------

void CPtap::SocketLoop(platform::ThreadId self) {
  if (socket_thread_id_.load() == 0) {
    DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread terminated - PTAP socket polling");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  std::array<std::uint8_t, kPtapMaxDatagram> buffer;
  for (;;) {
    if (socket_thread_id_.load() != self) {
      DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread terminated - ID [%04d]",
               static_cast<int>(self));
      return;
    }
    const std::optional<std::size_t> received =
        socket_.Receive(std::as_writable_bytes(std::span(buffer)), nullptr);
    if (!received) {
      // Shut down (the id test ends the loop), or a socket error: do not spin on it.
      if (socket_thread_id_.load() == self) clock_.WaitFor(stop_event_, kReceiveErrorBackoff);
      continue;
    }
    ProcessDatagram(buffer.data(), *received);
  }
}

void CPtap::RetransmissionLoop(platform::ThreadId self) {
  if (resend_thread_id_.load() == 0) {
    DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread terminated - PTAP retransmission");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  for (;;) {
    if (resend_thread_id_.load() != self) {
      DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Thread terminated - ID [%04d]",
               static_cast<int>(self));
      return;
    }
    // Reset before looking, so that a packet or a shutdown after the look still wakes us.
    resend_wake_.Reset();
    if (resend_thread_id_.load() != self) continue;
    if (buffer_.empty()) {
      clock_.WaitFor(resend_wake_, kIdleWait);
      continue;
    }
    clock_.WaitFor(resend_wake_, kResendPeriod);
    if (resend_thread_id_.load() != self) continue;
    ScanRetransmissions();
  }
}

void CPtap::KeepaliveLoop(platform::ThreadId self) {
  if (keepalive_thread_id_.load() == 0) {
    DL_TRACE(TRACE_DETAIL,
             "[PTAP :: Thread] Keepalive Thread terminated - Connection timeout polling");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Keepalive Thread started - ID [%04d]",
           static_cast<int>(self));
  for (;;) {
    if (keepalive_thread_id_.load() != self) {
      DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Keepalive Thread terminated - ID [%04d]",
               static_cast<int>(self));
      break;
    }
    keepalive_wake_.Reset();
    if (keepalive_thread_id_.load() != self) continue;
    const std::optional<std::int64_t> next = PollConnection();
    if (!next) break;
    clock_.WaitFor(keepalive_wake_, UntilNs(*next, clock_.SteadyNs()));
  }
  DL_TRACE(TRACE_DETAIL, "[PTAP :: Thread] Keepalive Thread terminated");
}

}  // namespace deskline
