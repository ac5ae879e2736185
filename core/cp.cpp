#include "core/cp.h"

#include <cstring>
#include <new>

#include "support/tracer.h"

namespace deskline {
namespace {

// The next state for each event (rows 1 to 15) in each state (columns 0 to 4).
constexpr int kReject = -1;  // the event is refused; the state stays
constexpr int kStay = -2;    // the event is accepted; the state stays
constexpr int kI = CP_STATE_IDLE, kO = CP_STATE_OUTGOING, kN = CP_STATE_INCOMING,
              kT = CP_STATE_TALKING, kX = kReject, kS = kStay;
constexpr int kStateTable[16][5] = {
    {kS, kX, kX, kX, kX},  // 0: not an event
    {kS, kX, kX, kI, kI},  // 1 connection ended
    {kS, kN, kX, kX, kT},  // 2 ring or connection made
    {kS, kO, kX, kT, kX},  // 3 local off hook
    {kS, kX, kI, kI, kI},  // 4 local on hook
    {kS, kX, kX, kI, kI},  // 5 local hang-up
    {kS, kX, kX, kT, kT},  // 6 connection changed
    {kS, kX, kX, kX, kX},  // 7
    {kS, kX, kT, kX, kX},  // 8 media active
    {kS, kX, kI, kX, kX},  // 9
    {kS, kS, kS, kS, kS},  // 10 error code from the host
    {kS, kS, kS, kS, kS},  // 11 signal request
    {kI, kX, kX, kX, kX},  // 12 started
    {kS, kS, kS, kS, kS},  // 13 key
    {kS, kI, kI, kX, kX},  // 14
    {kS, kX, kS, kX, kX},  // 15
};

}  // namespace

std::atomic<CCp*> CCp::instance_{nullptr};

CCp::CCp(CpDependencies deps)
    : deps_(std::move(deps)), clock_(deps_.clock ? deps_.clock : &platform::RealClock()) {
  DL_TRACE(TRACE_STATUS, "[CP] Module created");
  instance_.store(this);
}

CCp::~CCp() {
  Shutdown();
  init_data_.reset();
  CCp* self = this;
  instance_.compare_exchange_strong(self, nullptr);
  DL_TRACE(TRACE_STATUS, "[CP] Module Destroyed ");
}

int CCp::SetInitData(const NetworkInitData* data) {
  init_data_.reset();
  if (data == nullptr) return 1;
  init_data_.reset(new (std::nothrow) NetworkInitData(*data));
  if (!init_data_) {
    DL_TRACE(TRACE_CRITICAL, "[CP :: CRITICAL ERROR] Object creation failed - PTAP data container");
    return 1;
  }
  return 0;
}

int CCp::GetWave(IWave** out) {
  if (out == nullptr || !wave_) {
    DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Pointer registration failed: Wave (invalid)");
    return 1;
  }
  *out = wave_.get();
  DL_TRACE(TRACE_STATUS, "[CP] Pointer registration completed: Wave");
  return 0;
}

int CCp::GetPtapParameters(PtapParameterContainer* out) {
  if (!ptap_) return 1;
  return ptap_->GetParameterContainer(out);
}

int CCp::UpdateState(std::uint32_t event) {
  const std::uint32_t state = call_state_.load();
  if (event == CP_EVENT_HOST_ERROR_CODE || event == CP_EVENT_SIGNAL_REQUEST) return 0;
  if (state > CP_STATE_TALKING) return 1;
  if (event == 0 || event > 15) return state == CP_STATE_INIT ? 0 : 1;
  const int next = kStateTable[event][state];
  if (next == kReject) return 1;
  if (next != kStay) call_state_.store(static_cast<std::uint32_t>(next));
  return 0;
}

int CCp::FailStart(StartLocks& locks, int result, std::uint32_t level, const char* message) {
  DL_TRACE(level, "%s", message);
  locks.cp.unlock();
  locks.event.unlock();
  Shutdown();
  return result;
}

int CCp::Start() {
  // The start is call work: the MGCP module's RSIP post takes the event lock, so it is taken
  // here first, in the engine's one order.
  StartLocks lock{std::unique_lock(event_lock_), std::unique_lock(cp_lock_)};
  DL_TRACE(TRACE_STATUS, "[CP] Module starting");
  shutting_down_.store(false);
  stop_event_.Reset();

  ptap_event_ = std::make_unique<platform::ManualResetEvent>("EventPTAP_#ID00");
  mgcp_event_ = std::make_unique<platform::ManualResetEvent>("EventMGCP_#ID00");

  if (!ptap_) {
    ptap_ = deps_.make_ptap ? deps_.make_ptap() : nullptr;
    if (!ptap_) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Object creation failed - PTAP");
    }
    if (ptap_->SetNetworkData(init_data_.get()) != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Startup failed: PTAP initialization data invalid");
    }
    ptap_->SetParent(this);
    ptap_->AddObserver(this);
    if (ptap_->Start() != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL, "[CP :: CRITICAL ERROR] Startup failed: PTAP");
    }
    if (UpdateState(CP_EVENT_STARTED) != 0) {
      return FailStart(lock, 1, TRACE_ERROR, "[CP :: ERROR] Startup state setup failed");
    }
    if (ptap_->SendPacket(PTAP_TYPE_START, nullptr, 0) == 1) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Startup failed: PTAP START delivery");
    }
    if (!clock().WaitFor(*ptap_event_, kPtapStartWait)) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Operation timeout: PTAP START");
    }
    switch (const int code = ptap_->GetErrorCode()) {
      case 0:
        mgcp_local_port_ = static_cast<std::uint16_t>(ptap_->GetParameter(PTAP_PARAM_MGCP_LOCAL_PORT));
        mgcp_pbx_port_ = static_cast<std::uint16_t>(ptap_->GetParameter(PTAP_PARAM_MGCP_PBX_PORT));
        break;
      case kStartRegistrationRefused:
        return FailStart(lock, code, TRACE_CRITICAL,
                         "[CP :: CRITICAL ERROR] PTAP START - Registration failed/not possible");
      case kStartWrongConnectionInfo:
      case kStartWrongTerminal:
        return FailStart(
            lock, code, TRACE_CRITICAL,
            "[CP :: CRITICAL ERROR] PTAP START - User-specified connection info INCORRECT!");
      default:
        return FailStart(lock, 1, TRACE_CRITICAL,
                         "[CP :: CRITICAL ERROR] Operation failed: PTAP START");
    }
  }

  if (!mgcp_) {
    mgcp_ = deps_.make_mgcp ? deps_.make_mgcp() : nullptr;
    if (!mgcp_) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Object creation failed: MGCP");
    }
    mgcp_->SetParent(this);
    mgcp_->SetPorts(mgcp_local_port_, mgcp_pbx_port_);
    if (mgcp_->SetNetworkInitData(init_data_.get()) != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Startup failed: MGCP initialization data invalid");
    }
    if (mgcp_->Start() != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL, "[CP :: CRITICAL ERROR] Startup failed: MGCP");
    }
    mgcp_->SetLocalMedia(kRtpPort);
    rsip_event_.Reset();
    if (mgcp_->PostEvent(MGCP_EVENT_SEND_RSIP, nullptr) != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Startup failed: MGCP RSIP delivery");
    }
    DL_TRACE(TRACE_STATUS, "[CP] Waiting for response: MGCP RSIP acknowledgment");
    // Woken by the answer itself; the poll step stays for an endpoint that does not ring.
    // An acknowledgement seen only when the wait is up is a timeout.
    const std::int64_t rsip_sent_ns = clock().SteadyNs();
    auto waited_ms = [&] { return (clock().SteadyNs() - rsip_sent_ns) / 1'000'000; };
    while (!mgcp_->IsRsipAcknowledged() && waited_ms() < kRsipWaitMs) {
      clock().WaitFor(rsip_event_, std::chrono::milliseconds(kRsipPollMs));
    }
    if (!mgcp_->IsRsipAcknowledged() || waited_ms() >= kRsipWaitMs) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Operation timeout: MGCP RSIP acknowledgement");
    }
    if (ptap_->SendPacket(PTAP_TYPE_OP_BEGIN, nullptr, 0) == 1) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Startup failed: PTAP OP_BEGIN delivery");
    }
  }

  DL_TRACE(TRACE_STATUS, "[CP :: STATUS] Initializing wave");
  if (!wave_) {
    wave_ = deps_.make_wave ? deps_.make_wave() : nullptr;
    if (!wave_ || wave_->Start() != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Object creation failed: Wave");
    }
    wave_->SetLocalPort(kRtpPort);
    wave_->SetRemoteIp(init_data_ ? init_data_->pbx_ip : 0);
    wave_->SetRemotePort(kRtpPort);
    wave_->StartSession();
    wave_->SetReceiving(false);
  }
  DL_TRACE(TRACE_STATUS, "[CP :: STATUS] Wave initialization completed");

  if (!mailbox_) {
    mailbox_.reset(new (std::nothrow) CMailbox());
    if (!mailbox_ || mailbox_->Start() != 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Object creation failed: Mailbox");
    }
    const platform::ThreadId id =
        mailbox_thread_.Create("dl-mailbox", [this](platform::ThreadId self) { MailboxLoop(self); });
    if (id == 0) {
      return FailStart(lock, 1, TRACE_CRITICAL,
                       "[CP :: CRITICAL ERROR] Thread creation failed: Mailbox polling");
    }
    mailbox_thread_id_.store(id);
    mailbox_thread_.Resume();
  }

  // Made at each Start, whatever existed: join one that a previous Start left.
  punch_thread_id_.store(0);
  punch_thread_.Join();
  const platform::ThreadId punch_id =
      punch_thread_.Create("dl-punch", [this](platform::ThreadId self) { PunchLoop(self); });
  if (punch_id == 0) {
    return FailStart(lock, 1, TRACE_CRITICAL,
                     "[CP :: CRITICAL ERROR] Thread creation failed: Port punching");
  }
  punch_thread_id_.store(punch_id);
  punch_thread_.Resume();

  DL_TRACE(TRACE_STATUS, "[CP :: STATUS] CP initialization completed.");
  return 0;
}

int CCp::Shutdown() {
  shutting_down_.store(true);
  stop_event_.Set();
  // The threads are told by their zeroed ids and joined before anything they reach goes.
  if (mailbox_thread_.created()) {
    mailbox_thread_id_.store(0);
    mail_event_.Set();
    mailbox_thread_.Join();
    DL_TRACE(TRACE_STATUS, "[CP] Module shutdown");
  }
  if (punch_thread_.created()) {
    punch_thread_id_.store(0);
    punch_thread_.Join();
    DL_TRACE(TRACE_STATUS, "[CP] Port punch thread shutdown");
  }
  if (mailbox_) {
    mailbox_->Shutdown();
    mailbox_.reset();
  }
  if (wave_) {
    wave_->Shutdown();
    wave_.reset();
  }
  if (mgcp_) {
    mgcp_->Shutdown();
    mgcp_.reset();
  }
  if (ptap_) {
    ptap_->Shutdown();
    ptap_.reset();
  }
  call_state_.store(CP_STATE_INIT);
  mgcp_event_.reset();
  ptap_event_.reset();
  return 0;
}

int CCp::WriteMailbox(std::uint32_t code, const void* payload, std::int32_t length) {
  if (!mailbox_ || mailbox_->Write(code, payload, length) != 0) {
    DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Write operation to Mailbox failed");
    return 1;
  }
  mail_event_.Set();
  return 0;
}

int CCp::ReadMailbox(std::uint32_t* code, void* payload, std::int32_t* length) {
  if (!mailbox_) return 1;
  return mailbox_->Read(code, payload, length);
}

void CCp::MailboxLoop(platform::ThreadId self) {
  if (instance_.load() == nullptr || mailbox_thread_id_.load() == 0) {
    DL_TRACE(TRACE_STATUS, "[CP :: Thread] Thread terminated - Mailbox polling");
    return;
  }
  DL_TRACE(TRACE_DETAIL, "[CP :: Thread] Thread started - ID [%04d]", static_cast<int>(self));
  // One spare byte keeps a full 200-byte payload terminated for the text paths.
  char payload[CMailbox::kMaxPayload + 1] = {};
  // The earliest moment of the next read: one read a period at most, as the poll always was.
  std::int64_t due = clock().SteadyNs();
  for (;;) {
    if (instance_.load() == nullptr || mailbox_thread_id_.load() != self) {
      DL_TRACE(TRACE_DETAIL, "[CP :: Thread] Thread terminated - ID [%04d]", static_cast<int>(self));
      break;
    }
    const std::int64_t now = clock().SteadyNs();
    if (now < due) {
      clock().WaitFor(stop_event_, std::chrono::ceil<std::chrono::milliseconds>(
                                       std::chrono::nanoseconds(due - now)));
      continue;
    }
    // Reset before looking, so that a write after the look still rings.
    mail_event_.Reset();
    std::uint32_t code = 0;
    std::int32_t length = 0;
    if (ReadMailbox(&code, payload, &length) == 0) {
      HandleMessage(code, payload, length);
      std::memset(payload, 0, sizeof(payload));
      due = clock().SteadyNs() + std::chrono::nanoseconds(kMailboxPeriod).count();
      continue;
    }
    due = now + std::chrono::nanoseconds(kMailboxPeriod).count();
    clock().WaitFor(mail_event_, kMailboxIdleWait);
  }
}

int CCp::SendKey(const char* text) {
  return OnMgcpEvent(MGCP_EVENT_SEND_NTFY, text, true);
}

int CCp::HandleMessage(std::uint32_t code, const char* payload, std::int32_t length) {
  if (UpdateState(code) != 0) return 0;
  const bool has_text = payload != nullptr && length > 0;
  int result = 0;
  switch (code) {
    case CP_EVENT_LOCAL_OFF_HOOK:
      if (wave_) wave_->SetReceiving(true);
      result = SendKey(has_text ? payload : "0200");
      break;
    case CP_EVENT_LOCAL_ON_HOOK:
    case CP_EVENT_LOCAL_HANG_UP:
      if (mgcp_) mgcp_->SetLocalMedia(0);
      if (wave_) {
        wave_->SetReceiving(false);
        wave_->ClearBuffer();
      }
      result = SendKey(has_text ? payload : "0100");
      break;
    case CP_EVENT_CONNECTION_CHANGED:
      if (wave_) wave_->SetReceiving(true);
      result = SendKey("0200");
      break;
    case CP_EVENT_HOST_ERROR_CODE:
      if (!ptap_ || !has_text ||
          ptap_->SendPacket(PTAP_TYPE_ERROR_REPORT, reinterpret_cast<const std::uint8_t*>(payload),
                            1) == 1) {
        DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Packet transmission failed: VOXT errorcode via PTAP");
        return 1;
      }
      return 0;
    case CP_EVENT_SIGNAL_REQUEST:
      result = OnMgcpEvent(MGCP_EVENT_RQNT, payload, true);
      break;
    case CP_EVENT_STARTED:
      result = OnMgcpEvent(MGCP_EVENT_SEND_RSIP, payload, true);
      break;
    case CP_EVENT_KEY:
      result = SendKey(payload);
      break;
    default:
      return 0;
  }
  if (result != 0) {
    DL_TRACE(TRACE_ERROR, "[CP :: ERROR] Unknown fault processing MGCP at %s(%d)", "cp.cpp",
             __LINE__);
  }
  return 0;
}

int CCp::OnMgcpEvent(std::uint32_t event, const char* data, bool take_lock) {
  if (shutting_down_.load()) {
    DL_TRACE(TRACE_WARNING, "[CP] Operation blocked: MGCP event");
    return 1;
  }
  std::unique_lock<std::recursive_mutex> event_guard(event_lock_, std::defer_lock);
  if (take_lock) event_guard.lock();
  std::lock_guard cp_guard(cp_lock_);
  switch (event) {
    case MGCP_EVENT_CRCX:
    case MGCP_EVENT_MDCX:
    case MGCP_EVENT_DLCX:
    case MGCP_EVENT_RQNT:
      ApplyMgcpEvent(event, data);
      break;
    case MGCP_EVENT_SEND_DLCX:
    case MGCP_EVENT_SEND_NTFY:
    case MGCP_EVENT_SEND_RSIP:
      if (mgcp_) mgcp_->PostEvent(event, data);
      break;
    case MGCP_EVENT_SEND_RESPONSE:
      if (take_lock && mgcp_) mgcp_->PostEvent(event, data);
      break;
    default:
      break;
  }
  return 0;
}

void CCp::OnRsipAcknowledged() { rsip_event_.Set(); }

int CCp::SetEventLock(bool take) {
  // Both, in order: the module's command lock comes after them.
  if (take) {
    event_lock_.lock();
    cp_lock_.lock();
  } else {
    cp_lock_.unlock();
    event_lock_.unlock();
  }
  return 0;
}

int CCp::OnPtapMessage(std::uint32_t type, const char* payload, std::size_t length) {
  if (shutting_down_.load()) {
    DL_TRACE(TRACE_WARNING, "[CP] Operation blocked: PTAP event");
    return 1;
  }
  if (type != static_cast<std::uint32_t>(PTAP_TYPE_EVENT) || payload == nullptr) return 0;
  const deskline_system_callback system_callback =
      init_data_ ? init_data_->system_callback : nullptr;
  static constexpr char kNoConnection[] = "PTAP_NOCONN";
  static constexpr char kRestart[] = "PTAP_COMREST";
  if (length >= sizeof(kNoConnection) - 1 &&
      std::memcmp(payload, kNoConnection, sizeof(kNoConnection) - 1) == 0) {
    DL_TRACE(TRACE_STATUS, "[CP] Connection lost. Notifying client GUI");
    if (system_callback) system_callback(DESKLINE_SYSTEM_CONNECTION_LOST, 0, 0);
  } else if (length >= sizeof(kRestart) - 1 &&
             std::memcmp(payload, kRestart, sizeof(kRestart) - 1) == 0) {
    DL_TRACE(TRACE_STATUS, "[CP] Sending Compulsion Restart to GUI");
    if (system_callback) system_callback(DESKLINE_SYSTEM_RESTART_DEMANDED, 0, 0);
  } else if (length >= 4 && static_cast<std::uint8_t>(payload[0]) == 0x20) {
    // An element of tag 0x20 with a 16-bit length: the code is its first value byte, signed.
    const auto code = static_cast<std::int32_t>(static_cast<std::int8_t>(payload[3]));
    if (system_callback) system_callback(static_cast<std::uint32_t>(code), 0, 0);
  }
  return 0;
}

int CCp::OnPtapEvent(const int* event) {
  if (event == nullptr) return 0;
  switch (*event) {
    case PTAP_EVENT_START_ANSWERED:
    case PTAP_EVENT_OP_BEGIN_ANSWERED:
    case PTAP_EVENT_START_REFUSED:
    case PTAP_EVENT_WRONG_TERMINAL:
      // Never reset: it wakes Start once.
      if (auto* e = ptap_event_.get()) e->Set();
      break;
    case PTAP_EVENT_PBX_CLASS:
      if (init_data_ && init_data_->event_callback) {
        char buffer[1024] = {};
        buffer[0] = static_cast<char>(ptap_ ? ptap_->GetParameter(PTAP_PARAM_PBX_CLASS) & 0xff : 0);
        init_data_->event_callback(ALERT_PBX_CLASS, 1, buffer);
      }
      break;
    default:
      break;
  }
  return 0;
}

}  // namespace deskline
