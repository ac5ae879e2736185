// CCp, the call processor: the spine of the engine. It brings PTAP, MGCP, the Wave session and
// the mailbox up in a fixed order (each protocol must have answered before the next starts),
// keeps the call state and the 49 line keys, routes every event between the modules and the
// host, and keeps NAT mappings open.
//
// Threads and locks:
// - Start, Shutdown, SetInitData, GetWave, GetPtapParameters: the host's thread (initialize,
//   uninitialize), never at once.
// - WriteMailbox: any host thread.
// - HandleMessage: the mailbox polling thread.
// - OnMgcpEvent, SetEventLock: the mailbox polling thread and the MGCP socket thread.
// - OnPtapMessage, OnPtapEvent: the PTAP threads; they take no lock.
// Lock order, one for the whole engine, outermost first (a thread may skip any, never go back):
//   1. CCp::event_lock_       call work: Start, a mailbox message, an MGCP command
//   2. CCp::cp_lock_          call state, line keys, the module pointers
//   3. CMgcp::commandLock_    the endpoint's control block and list
//   4. CMgcp::mediaLock_      connection and SDP fields (pure parsing and building only)
//   5. leaves that call out to nobody: the module locks of PTAP, RTP, the voice buffer and
//      the Wave session, the mailbox, the trace, the settings store.
// SetEventLock takes 1 and 2 together, so the MGCP socket thread holds both before its
// command lock and a post back to the call processor only re-enters them. Both CCp locks are
// re-entrant. Host callbacks run under 1 and 2 on the MGCP path and must not call uninitialize.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "core/mailbox.h"
#include "core/module.h"
#include "core/ports.h"
#include "deskline/deskline.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"

namespace deskline {

enum CpState : std::uint32_t {
  CP_STATE_INIT = 0,
  CP_STATE_IDLE = 1,
  CP_STATE_OUTGOING = 2,
  CP_STATE_INCOMING = 3,
  CP_STATE_TALKING = 4,
};

// State events; the mailbox codes are the same numbers.
enum CpEvent : std::uint32_t {
  CP_EVENT_CONNECTION_ENDED = 1,
  CP_EVENT_RING_OR_CONNECTED = 2,
  CP_EVENT_LOCAL_OFF_HOOK = 3,
  CP_EVENT_LOCAL_ON_HOOK = 4,
  CP_EVENT_LOCAL_HANG_UP = 5,
  CP_EVENT_CONNECTION_CHANGED = 6,
  CP_EVENT_MEDIA_ACTIVE = 8,
  CP_EVENT_HOST_ERROR_CODE = 10,
  CP_EVENT_SIGNAL_REQUEST = 11,
  CP_EVENT_STARTED = 12,
  CP_EVENT_KEY = 13,
};

// Alert codes: what CCp tells the host through event_callback.
enum CpAlert : std::uint32_t {
  ALERT_END = 1,
  ALERT_RING = 2,
  ALERT_CONNECTED = 7,
  ALERT_SIGNAL = 11,
  ALERT_MEDIA_RECVONLY = 16,
  ALERT_MEDIA_INACTIVE = 17,
  ALERT_MEDIA_SENDRECV = 18,
  ALERT_MUTE = 20,
  ALERT_UNMUTE = 21,
  ALERT_VOICE_OFF = 22,
  ALERT_TONE = 23,
  ALERT_SPEAKER_ON = 27,
  ALERT_SPEAKER_OFF = 28,
  ALERT_SPEAKER_ON_OFFHOOK = 29,
  ALERT_PBX_SETTING = 30,
  ALERT_BGM_MUTE = 31,
  ALERT_TONE_RECORD = 32,
  ALERT_SLC_RECORD = 33,
  ALERT_PBX_CLASS = 34,
  ALERT_CODEC = 35,
  ALERT_MEDIA_CLOSED = 36,
  ALERT_HEADSET_ON = 37,
  ALERT_HEADSET_OFF = 38,
};

// Results of Start besides 0 and 1: the PBX's refusals, passed through to the host.
inline constexpr int kStartRegistrationRefused = 201;
inline constexpr int kStartWrongConnectionInfo = 210;
inline constexpr int kStartWrongTerminal = 211;

struct LineKeyState {
  std::uint32_t led_status = 0;
  std::uint32_t remote_ip = 0;    // host order; 0 when unknown
  std::uint32_t remote_port = 0;
  bool hold = false;
  bool transfer = false;
};

inline constexpr int kLineKeyCount = 49;

// CCp's collaborators, with the real modules as defaults supplied by the library's composition
// root. A test replaces any of them; a factory that gives null is a module that cannot be made.
struct CpDependencies {
  platform::Clock* clock = nullptr;  // null: the real clock
  std::function<std::unique_ptr<IPtap>()> make_ptap;
  std::function<std::unique_ptr<IMgcp>()> make_mgcp;
  std::function<std::unique_ptr<IWave>()> make_wave;
};

class CCp final : public CModule, public PtapObserver, public PtapParent, public MgcpParent {
 public:
  static constexpr std::uint16_t kRtpPort = 8000;
  static constexpr std::chrono::milliseconds kPtapStartWait{19000};
  static constexpr int kRsipWaitMs = 19000;
  static constexpr int kRsipPollMs = 100;
  // The mailbox is read at most once a period, so that dialled keys leave 50 ms apart as a
  // PBX has always seen them; with nothing queued the thread sleeps until a write.
  static constexpr std::chrono::milliseconds kMailboxPeriod{50};
  static constexpr std::chrono::milliseconds kMailboxIdleWait{std::chrono::hours(1)};
  static constexpr std::chrono::milliseconds kPunchPeriod{1000};

  explicit CCp(CpDependencies deps);
  ~CCp() override;
  CCp(const CCp&) = delete;
  CCp& operator=(const CCp&) = delete;

  // 0; 1; or 201, 210, 211 from the PBX. A failure has already run Shutdown.
  int Start() override;
  // 0. Joins the polling and punching threads before the modules they reach go.
  int Shutdown() override;

  // 0, or 1 for a null record. Keeps its own copy.
  int SetInitData(const NetworkInitData* data);
  // 0, or 1 if `out` is null or there is no Wave session.
  int GetWave(IWave** out);
  // A copy of what the PBX delivered. 0, or 1 when PTAP holds no container.
  int GetPtapParameters(PtapParameterContainer* out);

  // 0 if `event` is acceptable in the present state (moving it), 1 if rejected.
  int UpdateState(std::uint32_t event);
  std::uint32_t call_state() const { return call_state_.load(); }

  // The mailbox wrappers. Write traces its failure; Read is silent when the queue is empty.
  int WriteMailbox(std::uint32_t code, const void* payload, std::int32_t length);
  int ReadMailbox(std::uint32_t* code, void* payload, std::int32_t* length);

  // Runs one mailbox message (the polling thread). 0 or 1, which nobody reads.
  int HandleMessage(std::uint32_t code, const char* payload, std::int32_t length);

  // MgcpParent.
  int OnMgcpEvent(std::uint32_t event, const char* data, bool take_lock) override;
  int SetEventLock(bool take) override;
  void OnRsipAcknowledged() override;
  // PtapParent.
  int OnPtapMessage(std::uint32_t type, const char* payload, std::size_t length) override;
  // PtapObserver.
  int OnPtapEvent(const int* event) override;

  // The one door to the host for call events (MGCP socket thread, under the locks).
  int alert(std::uint32_t code, const char* data);
  // One signal or connection command, applied (MGCP socket thread, under the locks).
  int ApplyMgcpEvent(std::uint32_t event, const char* data);

  // Port punching bookkeeping (alert) and lookup.
  int port_punch_set_keyinfo(std::uint32_t code);
  int port_punch_get_current_key();
  // One pass of the punching thread; public so that tests can step it without the thread.
  void PortPunchPass();

  const LineKeyState& line_key(int index) const { return line_keys_[index]; }
  int active_line_key() const { return active_line_key_; }
  bool shutting_down() const { return shutting_down_.load(); }

 private:
  platform::Clock& clock() const { return *clock_; }
  // Start's hold on the event and call processor locks, given back before a failed start
  // shuts the modules down (their threads may be waiting for the locks).
  struct StartLocks {
    std::unique_lock<std::recursive_mutex> event;
    std::unique_lock<std::recursive_mutex> cp;
  };
  int FailStart(StartLocks& locks, int result, std::uint32_t level, const char* message);
  void MailboxLoop(platform::ThreadId self);
  void PunchLoop(platform::ThreadId self);
  int SendKey(const char* text);

  static std::atomic<CCp*> instance_;

  CpDependencies deps_;
  platform::Clock* clock_;

  std::recursive_mutex cp_lock_;
  platform::Thread mailbox_thread_;
  std::atomic<platform::ThreadId> mailbox_thread_id_{0};
  std::atomic<std::uint32_t> call_state_{CP_STATE_INIT};
  std::recursive_mutex event_lock_;
  std::unique_ptr<IMgcp> mgcp_;
  std::unique_ptr<IPtap> ptap_;
  std::unique_ptr<CMailbox> mailbox_;
  std::unique_ptr<IWave> wave_;
  std::unique_ptr<NetworkInitData> init_data_;
  std::unique_ptr<platform::ManualResetEvent> ptap_event_;
  std::unique_ptr<platform::ManualResetEvent> mgcp_event_;
  std::atomic<bool> shutting_down_{false};
  platform::Thread punch_thread_;
  std::atomic<platform::ThreadId> punch_thread_id_{0};
  std::uint16_t ptap_punch_count_ = 0;
  std::uint16_t mgcp_punch_count_ = 0;
  std::uint16_t rtp_punch_count_ = 0;
  LineKeyState line_keys_[kLineKeyCount];
  int active_line_key_ = -1;

  // Wakes the worker threads early at shutdown; their periods are otherwise unchanged.
  platform::ManualResetEvent stop_event_{"EventCP_Stop"};
  // Set by every write to the mailbox (and at shutdown): the sleeping polling thread's bell.
  platform::ManualResetEvent mail_event_{"EventCP_Mail"};
  // Set by the MGCP endpoint when its RSIP is answered: the start goes on at once.
  platform::ManualResetEvent rsip_event_{"EventCP_Rsip"};
  std::uint16_t mgcp_local_port_ = 0;
  std::uint16_t mgcp_pbx_port_ = 0;
};

}  // namespace deskline
