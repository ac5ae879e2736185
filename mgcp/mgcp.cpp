#include "mgcp/mgcp.h"

#include <algorithm>
#include <cerrno>
#include <span>

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_sdp.h"
#include "mgcp/mgcp_signal.h"
#include "support/tracer.h"

namespace deskline {

namespace {

constexpr std::chrono::milliseconds kStartPause{500};
// How long the socket thread rests when the socket cannot be read (it never opened), so that
// it waits for shutdown instead of spinning.
constexpr std::chrono::milliseconds kClosedSocketPause{100};
// The longest sleep of the retransmission thread. A new item and shutdown ring it; this only
// bounds what a missed ring could cost, so an idle phone wakes twice a minute, not every second.
constexpr std::uint32_t kMaxRetransmitWaitMs = 30000;

}  // namespace

CMgcp::CMgcp(platform::Clock& clock) : clock_(clock) {
  DL_TRACE(TRACE_STATUS, "[MGCP] Module created");
}

CMgcp::~CMgcp() {
  Shutdown();
  DL_TRACE(TRACE_STATUS, "[MGCP] Module destroyed");
}

int CMgcp::SetParent(MgcpParent* parent) {
  parent_.store(parent);
  DL_TRACE(TRACE_STATUS, "[MGCP] Parent reference registered - CallProcessor");
  return 0;
}

void CMgcp::SetPorts(std::uint16_t local_port, std::uint16_t pbx_port) {
  localPort_.store(local_port);
  pbxPort_.store(pbx_port);
}

int CMgcp::SetNetworkInitData(const NetworkInitData* data) {
  if (data != nullptr) {
    initData_.store(data);
    DL_TRACE(TRACE_STATUS, "[MGCP] Network initialization data registered");
  }
  if (initData_.load() == nullptr) {
    DL_TRACE(TRACE_WARNING, "[MGCP :: Warning] Reference to invalid network initialization data");
    return 1;
  }
  return 0;
}

int CMgcp::Start() {
  std::unique_lock lock(commandLock_);
  if (socketThread_.created() || retransmitThread_.created()) {
    DL_TRACE(TRACE_ERROR, "[MGCP :: ERROR] Startup refused - module already started");
    return 1;
  }
  bufferTable_ = std::make_unique<MgcpRetransmitList>(
      clock_, [this](const MgcpPacket& packet) { return Transmit(packet); });
  rsipAcknowledged_.store(false);
  rsipTransactionId_.store(0);
  DL_TRACE(TRACE_STATUS, "[MGCP] Module starting");

  if (parent_.load() == nullptr) {
    DL_TRACE(TRACE_CRITICAL,
             "[MGCP :: CRITICAL ERROR] Startup failed - CallProcessor not registered");
    lock.unlock();
    Shutdown();
    return 1;
  }

  {
    std::lock_guard media(mediaLock_);
    block_ = MgcpControlBlock{};
    const NetworkInitData* data = initData_.load();
    if (data == nullptr) {
      DL_TRACE(TRACE_CRITICAL,
               "[MGCP :: CRITICAL ERROR] Object unavailable - MGCP initialization data");
    } else {
      SetEndpointName(block_, data->mac_address);
      block_.pbxAddress = data->pbx_ip;
      block_.localAddress = data->local_ip;
    }
    SetLocalIdentity(block_, block_.localAddress);
    block_.nextTransactionId = 1;
    block_.commandTransactionId = 1;
    block_.requestId = 1;
    block_.ringerActive = 0;
  }
  pbxEndpoint_ = platform::UdpEndpoint{block_.pbxAddress, pbxPort_.load()};

  // A port that cannot be bound does not stop the start: every send then fails, and the call
  // processor's wait for the RSIP answer runs out.
  if (!socket_.Open(platform::UdpEndpoint{0, localPort_.load()})) {
    DL_TRACE(TRACE_ERROR, "[MGCP :: ERROR] Socket creation failed - local port %u",
             static_cast<unsigned>(localPort_.load()));
  }

  stopEvent_.Reset();
  workEvent_.Reset();
  // Each thread's first act is to compare its id, so the id is stored before it runs.
  const platform::ThreadId socket_id =
      socketThread_.Create("MGCP socket", [this](platform::ThreadId self) { SocketLoop(self); });
  if (socket_id == 0) {
    lock.unlock();
    Shutdown();
    return 1;
  }
  socketThreadId_.store(socket_id);
  socketThread_.Resume();

  const platform::ThreadId retransmit_id = retransmitThread_.Create(
      "MGCP resend", [this](platform::ThreadId self) { RetransmitLoop(self); });
  if (retransmit_id == 0) {
    lock.unlock();
    Shutdown();
    return 1;
  }
  retransmitThreadId_.store(retransmit_id);
  retransmitThread_.Resume();

  clock_.SleepFor(kStartPause);
  return 0;
}

int CMgcp::Shutdown() {
  {
    std::lock_guard lock(commandLock_);
    socketThreadId_.store(0);
    retransmitThreadId_.store(0);
    stopEvent_.Set();
    workEvent_.Set();
    // Wakes the blocked receive; the descriptor stays until the thread is joined.
    socket_.Shutdown();
  }
  // Joined outside commandLock: the socket thread may be waiting for it in HandleEvent.
  socketThread_.Join();
  retransmitThread_.Join();
  std::lock_guard lock(commandLock_);
  socket_.Close();
  if (bufferTable_) {
    bufferTable_->ClearBufferTable();
    bufferTable_.reset();
  }
  DL_TRACE(TRACE_STATUS, "[MGCP] Module shutdown");
  return 0;
}

void CMgcp::SetLocalMedia(std::uint16_t port) {
  std::lock_guard media(mediaLock_);
  deskline::SetLocalMedia(block_, port);
}

int CMgcp::PostEvent(std::uint32_t event, const char* data) {
  return HandleEvent(event, data, nullptr);
}

bool CMgcp::IsRsipAcknowledged() const { return rsipAcknowledged_.load(); }

int CMgcp::SendPunch() {
  if (!socket_.is_open()) return 1;
  return socket_.SendTo(std::span<const std::byte>(), pbxEndpoint_) ? 0 : 1;
}

MgcpMediaState CMgcp::MediaState() const {
  std::lock_guard media(mediaLock_);
  MgcpMediaState state;
  state.remote_connection = FieldText(block_.remoteSdp.remoteConnection);
  const std::uint32_t remote_port = block_.remoteSdp.remoteRtpPort;
  state.remote_rtp_port = remote_port <= 0xFFFFu ? static_cast<std::uint16_t>(remote_port) : 0;
  state.local_rtp_port = static_cast<std::uint16_t>(block_.localRtpPort);
  state.codec = block_.remoteSdp.codec;
  state.connection_mode = static_cast<int>(block_.connectionMode);
  state.ringer_active = block_.ringerActive != 0;
  return state;
}

void CMgcp::SetConnectionMode(int mode) {
  std::lock_guard media(mediaLock_);
  block_.connectionMode = static_cast<std::uint32_t>(mode);
}

void CMgcp::SetRingerActive(bool active) {
  std::lock_guard media(mediaLock_);
  block_.ringerActive = active ? 1 : 0;
}

bool CMgcp::IsRingerActive() const {
  std::lock_guard media(mediaLock_);
  return block_.ringerActive != 0;
}

std::uint16_t CMgcp::LocalPort() const {
  const auto local = socket_.LocalEndpoint();
  return local ? local->port : 0;
}

std::int32_t CMgcp::PendingCount() const {
  std::lock_guard lock(commandLock_);
  return bufferTable_ ? bufferTable_->count() : 0;
}

void CMgcp::Post(std::uint32_t event, const char* data) {
  // The event lock is already held by HandleEvent.
  if (MgcpParent* parent = parent_.load()) parent->OnMgcpEvent(event, data, false);
}

int CMgcp::HandleEvent(std::uint32_t event, const char* argument, MgcpPacket* packet) {
  MgcpParent* const parent = parent_.load();
  if (parent != nullptr) parent->SetEventLock(true);
  {
    std::lock_guard lock(commandLock_);
    switch (event) {
      case MGCP_EVENT_CRCX:
      case MGCP_EVENT_MDCX:
      case MGCP_EVENT_DLCX: {
        if (packet == nullptr) break;
        int read = 0;
        {
          std::lock_guard media(mediaLock_);
          read = ProcessMessage(event, block_, packet);
        }
        // The call processor is told first, so the media path is set up before the PBX
        // sees the answer; a refused command is answered all the same.
        if (read == 0) Post(event, nullptr);
        if (event == MGCP_EVENT_CRCX) {
          SendResponse("100", false);
          SendResponse("200", true);
        } else if (event == MGCP_EVENT_MDCX) {
          SendResponse("100", true);
          SendResponse("200", false);
        } else {
          SendResponse("250", false);
        }
        break;
      }
      case MGCP_EVENT_RQNT:
        if (packet == nullptr) break;
        WalkSignals(
            block_, *packet,
            [this](const SignalBuffer& signal) { Post(MGCP_EVENT_RQNT, signal.data()); },
            &mediaLock_);
        SendResponse("200", false);
        break;
      case MGCP_EVENT_SEND_DLCX:
      case MGCP_EVENT_SEND_NTFY: {
        MgcpPacket out;
        ProcessMessage(event == MGCP_EVENT_SEND_DLCX ? 4 : 5, block_, &out, argument);
        Transmit(out);
        break;
      }
      case MGCP_EVENT_SEND_RSIP: {
        MgcpPacket out;
        std::uint32_t tid = 0;
        BuildRsip(block_, out, &tid);
        rsipAcknowledged_.store(false);
        rsipTransactionId_.store(tid);
        Transmit(out);
        break;
      }
      case MGCP_EVENT_SEND_RESPONSE:
        SendResponse(argument, false);
        break;
      default:
        break;
    }
  }
  if (parent != nullptr) parent->SetEventLock(false);
  return 0;
}

void CMgcp::OnDatagram(MgcpPacket& packet) {
  const std::uint32_t event = ClassifyInbound(packet.Text());
  if (event != MGCP_EVENT_SEND_RESPONSE) {
    // Commands before the RSIP is answered are dropped without an answer.
    if (rsipAcknowledged_.load()) HandleEvent(event, nullptr, &packet);
    return;
  }
  // Any other verb and any non-MGCP text counts as a response; whatever its code, it
  // acknowledges. Without a readable transaction id there is nothing to match: dropped.
  std::uint32_t tid = 0;
  if (ParseTransactionId(packet.Text(), &tid) != 0) return;
  if (!rsipAcknowledged_.load() && tid == rsipTransactionId_.load()) {
    DL_TRACE(TRACE_STATUS, "[MGCP] RSIP acknowledgement received");
    rsipAcknowledged_.store(true);
    if (MgcpParent* parent = parent_.load()) parent->OnRsipAcknowledged();
  }
  if (bufferTable_) {
    DL_TRACE(TRACE_DETAIL, "[MGCP] ACK %d received. Buffer size = %d", static_cast<int>(tid),
             bufferTable_->count());
    bufferTable_->FreeBufferItem(tid);
  }
}

int CMgcp::Transmit(const MgcpPacket& packet) {
  if (!socket_.is_open()) return 1;
  const std::string_view text = packet.Text();
  if (!socket_.SendTo(std::as_bytes(std::span<const char>(text.data(), text.size())),
                      pbxEndpoint_)) {
    // Not held for resending: a failed first send is never repeated.
    const int error = errno;
    DL_TRACE(TRACE_CRITICAL, "[MGCP SOCKET] Socket returned errorcode: %d (%x)", error,
             static_cast<unsigned>(error));
    return 1;
  }
  if (bufferTable_ && bufferTable_->HoldForResend(packet)) workEvent_.Set();
  return 0;
}

int CMgcp::SendResponse(const char* code, bool with_sdp) {
  MgcpPacket out;
  {
    std::lock_guard media(mediaLock_);
    if (ProcessMessage(MGCP_EVENT_SEND_RESPONSE, block_, &out, code) != 0) return 1;
    if (with_sdp && HandleSdp(block_, out, out.length, 0) != 0) return 1;
  }
  return Transmit(out);
}

void CMgcp::SocketLoop(platform::ThreadId self) {
  if (socketThreadId_.load() != self) {
    DL_TRACE(TRACE_STATUS, "[MGCP :: Thread] Thread terminated - MGCP socket polling");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[MGCP :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  MgcpPacket packet;
  while (socketThreadId_.load() == self) {
    packet.data.fill('\0');
    packet.isResend = 0;
    const auto received =
        socket_.Receive(std::as_writable_bytes(std::span<char>(packet.data)), nullptr);
    if (!received) {
      if (socketThreadId_.load() != self) break;
      clock_.WaitFor(stopEvent_, kClosedSocketPause);
      continue;
    }
    // An empty datagram (a port punch) is no message.
    if (*received == 0) continue;
    packet.length = static_cast<std::uint32_t>(std::min(*received, kMgcpPacketSize));
    OnDatagram(packet);
  }
  DL_TRACE(TRACE_DETAIL, "[MGCP :: Thread] Thread terminated - ID [%04d]", static_cast<int>(self));
}

void CMgcp::RetransmitLoop(platform::ThreadId self) {
  if (retransmitThreadId_.load() != self || !bufferTable_) {
    DL_TRACE(TRACE_STATUS, "[MGCP :: Thread] Thread terminated - MGCP retransmission");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[MGCP :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  for (;;) {
    // Reset before looking, so that an item added from here on wakes the wait below.
    workEvent_.Reset();
    if (retransmitThreadId_.load() != self || !bufferTable_) break;
    bufferTable_->ResendDue();
    // Sleeps until the next item is due rather than polling every few milliseconds.
    const std::uint32_t wait_ms =
        std::min(bufferTable_->NextDueMs().value_or(kMaxRetransmitWaitMs), kMaxRetransmitWaitMs);
    if (wait_ms > 0) clock_.WaitFor(workEvent_, std::chrono::milliseconds(wait_ms));
  }
  DL_TRACE(TRACE_DETAIL, "[MGCP :: Thread] Thread terminated - ID [%04d]", static_cast<int>(self));
}

}  // namespace deskline
