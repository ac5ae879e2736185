// CMgcp, the MGCP endpoint: one UDP socket to the PBX, a socket thread that reads and answers
// CRCX, MDCX, DLCX and RQNT, a retransmission thread for what the terminal sends of its own
// accord (NTFY, RSIP, DLCX), and the control block that the call processor reads.
//
// Threads and locks:
// - The socket thread receives, frees answered items and hands commands to HandleEvent; the
//   call processor's mailbox thread reaches HandleEvent through PostEvent. HandleEvent takes the
//   parent's event lock (SetEventLock) and then `commandLock`, always in that order, and posts
//   to the parent with both held: the parent must not wait for this module in that call.
// - The retransmission thread only touches the list (its own lock) and the socket.
// - `mediaLock` is a leaf guarding the control block's connection and SDP fields: it is held
//   only around pure parsing and building, never across a call out, so that SetLocalMedia,
//   MediaState and SetConnectionMode may be called from any thread under any lock.
// - Shutdown stops both threads and joins them before the socket and the list go; it must not
//   be called from a parent callback (the socket thread cannot join itself).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "core/ports.h"
#include "mgcp/mgcp_retransmit.h"
#include "mgcp/mgcp_types.h"
#include "platform/clock.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "platform/udp_socket.h"

namespace deskline {

class CMgcp final : public IMgcp {
 public:
  static constexpr std::uint16_t kDefaultLocalPort = 2427;
  static constexpr std::uint16_t kDefaultPbxPort = 2727;

  // `clock` drives the retransmission schedule and the start-up pause; it must outlive this.
  explicit CMgcp(platform::Clock& clock = platform::RealClock());
  ~CMgcp() override;
  CMgcp(const CMgcp&) = delete;
  CMgcp& operator=(const CMgcp&) = delete;

  // Builds the control block from the network data, opens the socket (a port that cannot be
  // bound is traced and does not stop the start) and starts both threads. Returns 1 without a
  // parent, when the threads cannot be made, or when already started; else 0. Holds
  // `commandLock` for 500 ms at the end. Call processor's thread.
  int Start() override;
  // Stops and joins both threads, closes the socket, drops the list. Always 0; safe to repeat.
  int Shutdown() override;

  // ---- IMgcp, called by the call processor -----------------------------------------------
  int SetParent(MgcpParent* parent) override;
  // Before Start. Port 0 for the local side binds any free port (see LocalPort).
  void SetPorts(std::uint16_t local_port, std::uint16_t pbx_port) override;
  int SetNetworkInitData(const NetworkInitData* data) override;
  // Rebuilds the m= and a= text of the answer for `port` and the current codec. Any thread.
  void SetLocalMedia(std::uint16_t port) override;
  // Runs HandleEvent with no packet: 4 send DLCX, 5 send NTFY (data: key text), 7 send RSIP,
  // 8 send a response (data: code). Returns 0.
  int PostEvent(std::uint32_t event, const char* data) override;
  bool IsRsipAcknowledged() const override;
  int SendPunch() override;
  // A snapshot; `remote_connection` points into the block and stays valid until the next
  // connection command. A port beyond 65535 from the wire reads as 0. Any thread.
  MgcpMediaState MediaState() const override;
  void SetConnectionMode(int mode) override;

  // ---- The endpoint's own operations ------------------------------------------------------
  // The dispatcher behind the socket thread and PostEvent. `packet` is the received command
  // for events 1, 2, 3 and 6 (ignored without one). Always 0.
  int HandleEvent(std::uint32_t event, const char* argument, MgcpPacket* packet);
  // What the socket thread does with one received datagram: a response frees its item (and
  // may acknowledge the RSIP); a command goes to HandleEvent once the RSIP is acknowledged.
  void OnDatagram(MgcpPacket& packet);
  // Sends to the PBX and holds NTFY, RSIP and DLCX for resending. 0 if the datagram left.
  int Transmit(const MgcpPacket& packet);
  // A response line with the last command's transaction id, and the local SDP if asked.
  int SendResponse(const char* code, bool with_sdp);

  void SetRingerActive(bool active);
  bool IsRingerActive() const;
  // The port the socket is bound to, or 0 when it is not open.
  std::uint16_t LocalPort() const;
  // Messages waiting for an answer (0 when not started).
  std::int32_t PendingCount() const;

 private:
  void SocketLoop(platform::ThreadId self);
  void RetransmitLoop(platform::ThreadId self);
  void Post(std::uint32_t event, const char* data);

  platform::Clock& clock_;
  mutable std::recursive_mutex commandLock_;
  mutable std::mutex mediaLock_;
  MgcpControlBlock block_;

  std::atomic<MgcpParent*> parent_{nullptr};
  std::atomic<const NetworkInitData*> initData_{nullptr};
  std::atomic<std::uint16_t> localPort_{kDefaultLocalPort};
  std::atomic<std::uint16_t> pbxPort_{kDefaultPbxPort};
  platform::UdpEndpoint pbxEndpoint_;  // set at start, before the threads run

  platform::UdpSocket socket_;
  std::unique_ptr<MgcpRetransmitList> bufferTable_;
  std::atomic<bool> rsipAcknowledged_{false};
  std::atomic<std::uint32_t> rsipTransactionId_{0};

  platform::Thread socketThread_;
  platform::Thread retransmitThread_;
  std::atomic<platform::ThreadId> socketThreadId_{0};
  std::atomic<platform::ThreadId> retransmitThreadId_{0};
  platform::ManualResetEvent stopEvent_{"EventMGCP_stop"};  // set by Shutdown
  platform::ManualResetEvent workEvent_{"EventMGCP_work"};  // a new item, or Shutdown
};

}  // namespace deskline
