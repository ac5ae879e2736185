// Fakes of the modules the call processor owns. Each records what is asked of it, in order,
// into one shared log, so that tests can assert the sequence across modules.
#pragma once

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/cp.h"
#include "core/ports.h"
#include "testing/fake_clock.h"

namespace deskline::testing {

class CallLog {
 public:
  void Add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  // The lines that begin with `prefix`, in order.
  std::vector<std::string> With(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const auto& line : lines()) {
      if (line.rfind(prefix, 0) == 0) out.push_back(line);
    }
    return out;
  }
  bool Contains(const std::string& line) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  void Clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// "name(a,b)"
inline std::string Call(const char* name, std::initializer_list<std::uint64_t> args) {
  std::string line = name;
  const char* sep = "(";
  for (std::uint64_t a : args) {
    line += sep + std::to_string(a);
    sep = ",";
  }
  return line + ")";
}

struct FakePtapConfig {
  int set_network_result = 0;
  int start_result = 0;
  int send_start_result = 100;       // bytes sent; 1 is a failure
  int send_op_begin_result = 100;
  int send_error_report_result = 100;
  bool answer_start = true;          // raise the observer event while START is sent
  int answer_event = PTAP_EVENT_START_ANSWERED;
  int error_code = 0;
  bool has_container = true;
  std::map<std::uint32_t, int> parameters = {{PTAP_PARAM_MGCP_LOCAL_PORT, 2427},
                                             {PTAP_PARAM_MGCP_PBX_PORT, 2727}};
};

class FakePtap final : public IPtap {
 public:
  FakePtap(CallLog& log, const FakePtapConfig& config) : log_(log), config_(config) { ++live; }
  ~FakePtap() override { --live; log_.Add("ptap.destroyed"); }
  int Start() override { return log_.Add("ptap.Start"), config_.start_result; }
  int Shutdown() override { return log_.Add("ptap.Shutdown"), 0; }
  int SetNetworkData(const NetworkInitData* data) override {
    log_.Add("ptap.SetNetworkData");
    if (data) data_ = data;
    return config_.set_network_result != 0 ? config_.set_network_result : (data_ ? 0 : 1);
  }
  int SetParent(PtapParent* parent) override { return parent_ = parent, 0; }
  int AddObserver(PtapObserver* observer) override { return observer_ = observer, 0; }
  int SendPacket(int type, const std::uint8_t* data, std::size_t count) override {
    std::string line = "ptap.Send(" + std::to_string(type);
    for (std::size_t i = 0; i < count && data; ++i) line += "," + std::to_string(data[i]);
    log_.Add(line + ")");
    if (type == PTAP_TYPE_START) {
      if (config_.send_start_result == 1) return 1;
      const int event = config_.answer_event;
      if (config_.answer_start && observer_) observer_->OnPtapEvent(&event);
      return config_.send_start_result;
    }
    if (type == PTAP_TYPE_OP_BEGIN) return config_.send_op_begin_result;
    return config_.send_error_report_result;
  }
  int GetErrorCode() const override { return config_.error_code; }
  int GetParameter(std::uint32_t selector) override {
    const auto it = config_.parameters.find(selector);
    return it == config_.parameters.end() ? 0 : it->second;
  }
  int GetParameterContainer(PtapParameterContainer* out) const override {
    if (out == nullptr || !config_.has_container) return 1;
    *out = PtapParameterContainer{};
    out->result_code = 99;
    out->keepalive_timeout = 30;
    return 0;
  }

  PtapParent* parent() const { return parent_; }
  FakePtapConfig& config() { return config_; }

  static inline std::atomic<int> live{0};

 private:
  CallLog& log_;
  FakePtapConfig config_;
  const NetworkInitData* data_ = nullptr;
  PtapParent* parent_ = nullptr;
  PtapObserver* observer_ = nullptr;
};

struct FakeMgcpConfig {
  int set_init_result = 0;
  int start_result = 0;
  int post_rsip_result = 0;
  // The RSIP answer arrives this many simulated ms after it was posted; negative: never.
  std::int64_t rsip_ack_after_ms = 0;
};

class FakeMgcp final : public IMgcp {
 public:
  FakeMgcp(CallLog& log, const FakeMgcpConfig& config, platform::Clock& clock)
      : log_(log), config_(config), clock_(clock) { ++live; }
  ~FakeMgcp() override { --live; log_.Add("mgcp.destroyed"); }
  int Start() override { return log_.Add("mgcp.Start"), config_.start_result; }
  int Shutdown() override { return log_.Add("mgcp.Shutdown"), 0; }
  int SetParent(MgcpParent*) override { return 0; }
  void SetPorts(std::uint16_t local, std::uint16_t pbx) override {
    log_.Add(Call("mgcp.SetPorts", {local, pbx}));
  }
  int SetNetworkInitData(const NetworkInitData* data) override {
    log_.Add("mgcp.SetNetworkInitData");
    return config_.set_init_result != 0 ? config_.set_init_result : (data ? 0 : 1);
  }
  void SetLocalMedia(std::uint16_t port) override { log_.Add(Call("mgcp.SetLocalMedia", {port})); }
  int PostEvent(std::uint32_t event, const char* data) override {
    log_.Add("mgcp.Post(" + std::to_string(event) + "," + (data ? data : "null") + ")");
    if (event == MGCP_EVENT_SEND_RSIP) {
      rsip_posted_at_ms_ = clock_.SteadyMs();
      return config_.post_rsip_result;
    }
    return 0;
  }
  bool IsRsipAcknowledged() const override {
    if (rsip_posted_at_ms_ < 0 || config_.rsip_ack_after_ms < 0) return false;
    return clock_.SteadyMs() - rsip_posted_at_ms_ >= config_.rsip_ack_after_ms;
  }
  int SendPunch() override { return log_.Add("mgcp.Punch"), 0; }
  MgcpMediaState MediaState() const override {
    MgcpMediaState state = media;
    state.remote_connection = remote_connection;
    return state;
  }
  void SetConnectionMode(int mode) override { media.connection_mode = mode; }

  MgcpMediaState media;
  std::string remote_connection = "IN IP4 192.168.1.20";
  static inline std::atomic<int> live{0};

 private:
  CallLog& log_;
  FakeMgcpConfig config_;
  platform::Clock& clock_;
  std::int64_t rsip_posted_at_ms_ = -1;
};

struct FakeWaveConfig {
  int start_result = 0;
  std::vector<int> punch_results;  // consumed in order; 0 when exhausted
};

class FakeWave final : public IWave {
 public:
  FakeWave(CallLog& log, const FakeWaveConfig& config) : log_(log), config_(config) { ++live; }
  ~FakeWave() override { --live; log_.Add("wave.destroyed"); }
  int Start() override { return log_.Add("wave.Start"), config_.start_result; }
  int Shutdown() override { return log_.Add("wave.Shutdown"), 0; }
  int StartSession() override { return log_.Add("wave.StartSession"), 0; }
  void SetLocalPort(std::uint16_t port) override { log_.Add(Call("wave.SetLocalPort", {port})); }
  void SetRemotePort(std::uint32_t port) override {
    log_.Add(Call("wave.SetRemotePort", {remote_port = port}));
  }
  void SetRemoteIp(std::uint32_t ip) override {
    log_.Add(Call("wave.SetRemoteIp", {remote_ip = ip}));
  }
  void SetReceiving(bool on) override { log_.Add(Call("wave.SetReceiving", {on})); }
  void ClearBuffer() override { log_.Add("wave.ClearBuffer"); }
  void SetPayloadType(std::uint32_t pt) override { log_.Add(Call("wave.SetPayloadType", {pt})); }
  void GetRemoteAddress(std::uint32_t* ip, std::uint32_t* port) const override {
    *ip = remote_ip;
    *port = remote_port;
  }
  int SendPunch(std::uint32_t ip, std::uint32_t port) override {
    log_.Add(Call("wave.Punch", {ip, port}));
    return punch_index_ < config_.punch_results.size() ? config_.punch_results[punch_index_++] : 0;
  }
  void SendVoiceFrame(const std::int16_t* pcm, std::uint32_t size) override {
    frames_sent.emplace_back(pcm, pcm + size / 2);
  }
  std::uint32_t ReceiveVoice(std::int32_t, std::int16_t* pcm, std::uint32_t* status) override {
    for (std::size_t i = 0; i < kVoiceFrameSamples; ++i) pcm[i] = static_cast<std::int16_t>(i);
    *status = 7;
    return kVoiceFrameBytes;
  }
  void SetAlawShift(std::uint32_t mode) override { log_.Add(Call("wave.SetAlawShift", {mode})); }
  FakeWaveConfig& config() { return config_; }

  std::uint32_t remote_ip = 0;
  std::uint32_t remote_port = 0;
  std::vector<std::vector<std::int16_t>> frames_sent;
  static inline std::atomic<int> live{0};

 private:
  CallLog& log_;
  FakeWaveConfig config_;
  std::size_t punch_index_ = 0;
};

// Builds CpDependencies over the fakes and keeps hold of the ones it made.
class FakeModules {
 public:
  explicit FakeModules(platform::Clock& clock) : clock_(clock) {}

  CpDependencies Dependencies() {
    CpDependencies deps;
    deps.clock = &clock_;
    deps.make_ptap = [this]() -> std::unique_ptr<IPtap> {
      if (!ptap_creatable) return nullptr;
      auto p = std::make_unique<FakePtap>(log, ptap_config);
      ptap = p.get();
      return p;
    };
    deps.make_mgcp = [this]() -> std::unique_ptr<IMgcp> {
      if (!mgcp_creatable) return nullptr;
      auto m = std::make_unique<FakeMgcp>(log, mgcp_config, clock_);
      mgcp = m.get();
      return m;
    };
    deps.make_wave = [this]() -> std::unique_ptr<IWave> {
      if (!wave_creatable) return nullptr;
      auto w = std::make_unique<FakeWave>(log, wave_config);
      wave = w.get();
      return w;
    };
    return deps;
  }

  static int Live() { return FakePtap::live + FakeMgcp::live + FakeWave::live; }

  CallLog log;
  FakePtapConfig ptap_config;
  FakeMgcpConfig mgcp_config;
  FakeWaveConfig wave_config;
  bool ptap_creatable = true;
  bool mgcp_creatable = true;
  bool wave_creatable = true;
  FakePtap* ptap = nullptr;  // valid while the call processor holds it
  FakeMgcp* mgcp = nullptr;
  FakeWave* wave = nullptr;

 private:
  platform::Clock& clock_;
};

// A NetworkInitData whose callbacks record into a process-wide log.
struct HostCallbacks {
  static CallLog& log() {
    static CallLog instance;
    return instance;
  }
  static void Event(std::uint32_t code, std::uint32_t length, const char* data) {
    std::string line = "event(" + std::to_string(code) + "," + std::to_string(length);
    if (data && code != 32 && code != 33 && code != 34) line += "," + std::string(data);
    if (code == 34 && data) line += "," + std::to_string(static_cast<unsigned char>(data[0]));
    log().Add(line + ")");
  }
  static void Led(std::uint32_t key, std::uint32_t status) {
    log().Add("led(" + std::to_string(key) + "," + std::to_string(status) + ")");
  }
  static void Display(std::uint32_t, std::uint32_t, const char* text, std::uint32_t) {
    log().Add(std::string("display(") + (text ? text : "null") + ")");
  }
  static void System(std::uint32_t code, std::uint32_t, std::uint32_t) {
    log().Add("system(" + std::to_string(static_cast<std::int32_t>(code)) + ")");
  }
  static NetworkInitData Data() {
    NetworkInitData data{};
    data.start_code = 1;
    data.local_ip = data.pbx_ip = 0x7f000001;
    std::memcpy(data.mac_address, "\x00\x11\x22\xaa\xbb\xcc", 6);
    data.event_callback = &Event;
    data.led_callback = &Led;
    data.display_callback = &Display;
    data.system_callback = &System;
    return data;
  }
};

}  // namespace deskline::testing
