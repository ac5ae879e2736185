// CPtap, the PTAP client: the terminal's registration, keepalive and parameter protocol with
// the PBX, over one UDP socket and three worker threads.
//
// Threads:
// - "PTAP socket polling" blocks in the socket's receive and runs every datagram through
//   ProcessDatagram: header test, ACK, type handling, element handler, parameter loader.
//   Observer events and type 21 messages reach CCp on this thread.
// - "PTAP retransmission" resends the unacknowledged list. It sleeps 5 ms between passes while
//   the list holds packets, and waits for the next packet while it is empty.
// - "Connection timeout polling" sleeps until the keepalive deadline (or until new timeout
//   data comes), reports a silent PBX once as "PTAP_NOCONN", and ends.
// Start, Shutdown: CCp's start-up thread. SendPacket: that thread, the host's thread (error
// reports) and the socket thread (ACKs, extended replies); packets are numbered and sent one
// at a time under a leaf lock. Shutdown shuts the socket down to release the receiver, joins
// all three threads, and only then closes the socket.
// PtapParent and PtapObserver callbacks run with no PTAP lock held.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/ports.h"
#include "deskline/deskline.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"
#include "ptap/ptap_buffer.h"
#include "ptap/ptap_keepalive.h"
#include "ptap/ptap_packet.h"
#include "ptap/ptap_parameters.h"

namespace deskline {

struct PtapOptions {
  // The folder that holds PTAP_Conf; empty means the process's current folder at Start.
  std::string config_directory;
  // The pause at the end of Start, before CCp sends START.
  std::chrono::milliseconds start_settle{500};
  // When set, everything the terminal sends goes here instead of the socket (tests, fuzzing);
  // true means sent. The socket still receives.
  std::function<bool(std::span<const std::uint8_t>)> transmit;
};

class CPtap final : public IPtap {
 public:
  static constexpr std::uint16_t kDefaultClientPort = 9301;
  static constexpr std::uint16_t kDefaultServerPort = 9300;
  static constexpr const char* kConfigFile = "PTAP_Conf";
  static constexpr const char* kConfigSection = "PTAP_PORT";

  // `clock` gives every time read, sleep and time of day; it must outlive the object.
  explicit CPtap(platform::Clock& clock = platform::RealClock(), PtapOptions options = {});
  ~CPtap() override;  // Shutdown, which joins the threads
  CPtap(const CPtap&) = delete;
  CPtap& operator=(const CPtap&) = delete;

  // ---- Life (CCp's start-up thread) ----
  // Resets the session, opens the socket on the ini file's ports, starts the three threads.
  // 0, or 1 after a traced failure (everything is undone). 1 also if already started.
  int Start() override;
  // Stops and joins the threads, closes the socket, frees the container and the list. 0.
  int Shutdown() override;
  // Start's steps that need neither socket nor thread: tid 1, parameters and error code zeroed,
  // the init data loaded, a container made. 0, or 1 after a critical trace.
  int Prepare();

  // ---- Registration (before Start) ----
  // 1 if no data is registered afterwards, else 0; null keeps the earlier pointer. Borrowed.
  int SetNetworkData(const NetworkInitData* data) override;
  int SetParent(PtapParent* parent) override;  // 0
  // 1 for null, else 0; an observer already listed is not added twice.
  int AddObserver(PtapObserver* observer) override;
  int RemoveObserver(PtapObserver* observer);  // 1 for null, else 0
  int ClearObservers();                        // 0
  // Copies the fields of the registered record; 1 (critical trace) if there is none.
  int LoadInitData();

  // ---- Sending (any thread) ----
  // Builds and sends a packet of `type` (ACK 0, START 4, OP_BEGIN 15, error report 20,
  // extended reply 61); `data`/`count` are the error report's code. 1 on failure, else the
  // bytes sent. Everything but an ACK is kept for retransmission, even when the send failed.
  int SendPacket(int type, const std::uint8_t* data, std::size_t count) override;
  // One empty datagram from the PTAP socket to the PBX (a NAT mapping refresh). 0 or 1.
  int SendPunch();

  // ---- What the PBX delivered (any thread) ----
  int GetErrorCode() const override;
  void SetErrorCode(const int* code);
  int GetParameter(std::uint32_t selector) override;
  // 1 if `out` or the container is null, else 0 with a copy taken under the parameter lock.
  int GetParameterContainer(PtapParameterContainer* out) const override;

  // ---- The receive path, without a socket (socket thread; tests and the fuzz target) ----
  // Runs one datagram through header test, ACK, type handling, element handler and loader.
  // 0 if it was taken, 1 if it was dropped (9 bytes or fewer, or not PTAP to this terminal).
  int ProcessDatagram(const std::uint8_t* data, std::size_t length);
  // -3 not PTAP (drop, no ACK); 1 an ACK; 0 anything else (acknowledge at once).
  int CheckHeader(const PtapPacket& packet);
  int HandleElements(const PtapPacket& packet);  // 0
  int LoadParameters(const PtapPacket& packet);  // 0, or 1 without a container

  // ---- Timers, one pass each (the worker threads; tests drive them in simulated time) ----
  // One retransmission pass at the clock's present time of day.
  void ScanRetransmissions();
  // One look of the connection timer. The steady time (ns) to look again, or nullopt when the
  // timer thread is to end (the timeout was handled, or the module is shutting down).
  std::optional<std::int64_t> PollConnection();

  // ---- For tests and tools ----
  const PtapBufferTable& buffer() const { return buffer_; }
  const PtapKeepalive& keepalive() const { return keepalive_; }
  PtapParameters Parameters() const { return parameters_.Snapshot(); }
  bool parameters_complete() const { return parameters_.parameters_complete(); }
  unsigned parameter_count() const { return parameters_.parameter_count(); }
  bool connection_lost() const { return connection_lost_.load(); }
  int last_sent_type() const { return last_sent_type_.load(); }
  // The bound local address once started (port filled in when the ini file asked for 0).
  std::optional<platform::UdpEndpoint> LocalEndpoint() const { return socket_.LocalEndpoint(); }
  platform::UdpEndpoint RemoteEndpoint() const;
  // The port of `key` in the ini file at `path`, or `fallback` when missing or not 0..65535.
  static std::uint16_t ReadPort(const std::string& path, const char* key, std::uint16_t fallback);

 private:
  int TransmitPacket(PtapPacket& packet);
  bool Transmit(std::span<const std::uint8_t> datagram);
  void SetRemoteIp(std::uint32_t ip_host_order);
  bool OpenSocket();
  void HandleType(const PtapPacket& packet);
  // Element 0x22; true when it ends the element handler.
  bool HandleExtendedResponse(std::span<const std::uint8_t> value);
  void OnKeepaliveTimeout(std::uint32_t seconds);
  void NotifyObservers(int event);
  void NotifyParent(const char* payload, std::size_t length);
  int FailStart(std::unique_lock<std::mutex>& lock, std::uint32_t level, const char* message);

  void SocketLoop(platform::ThreadId self);
  void RetransmissionLoop(platform::ThreadId self);
  void KeepaliveLoop(platform::ThreadId self);

  platform::Clock& clock_;
  const PtapOptions options_;

  std::atomic<PtapParent*> parent_{nullptr};
  std::mutex observers_lock_;
  // Held while one received packet goes through type handling, element handler and loader, so
  // that a copy of the container never sees a delivery half loaded: the START answer releases
  // the call processor before the loader has run.
  mutable std::mutex packet_lock_;
  std::vector<PtapObserver*> observers_;

  std::mutex module_lock_;  // Start and Shutdown
  bool started_ = false;
  std::atomic<bool> shutting_down_{false};
  std::atomic<bool> connection_lost_{false};

  platform::Thread socket_thread_;
  platform::Thread resend_thread_;
  platform::Thread keepalive_thread_;
  std::atomic<platform::ThreadId> socket_thread_id_{0};
  std::atomic<platform::ThreadId> resend_thread_id_{0};
  std::atomic<platform::ThreadId> keepalive_thread_id_{0};
  platform::ManualResetEvent stop_event_{"PTAP stop"};
  platform::ManualResetEvent resend_wake_{"PTAP retransmission"};
  platform::ManualResetEvent keepalive_wake_{"PTAP keepalive"};

  platform::UdpSocket socket_;
  std::atomic<std::uint32_t> remote_ip_{0};  // host order
  std::atomic<std::uint16_t> remote_port_{kDefaultServerPort};

  std::atomic<const NetworkInitData*> init_data_{nullptr};
  std::atomic<int> start_mode_{-1};  // -1 until init data is loaded
  std::uint32_t pbx_ip_ = 0;         // host order; Start's thread only

  // Numbering and the terminal's own data, for whoever sends.
  std::mutex send_lock_;
  std::uint32_t next_tid_ = 1;
  PtapTerminalData terminal_;
  std::atomic<int> last_sent_type_{0};
  std::atomic<std::uint32_t> last_received_tid_{0};

  std::atomic<int> error_code_{0};
  PtapParameterStore parameters_;
  PtapBufferTable buffer_;
  PtapKeepalive keepalive_;
};

}  // namespace deskline
