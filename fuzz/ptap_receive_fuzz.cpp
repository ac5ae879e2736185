// Feeds one datagram per input through the PTAP client's whole receive path (header test,
// ACK, type handling, element handler, parameter loader), in basic and in extended start mode,
// with a parent and an observer that read what they are given the way the call processor does.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "ptap/ptap.h"

namespace {

using deskline::CPtap;

// Reads every byte it is handed, so that a length past the real bytes is caught.
class ReadingParent final : public deskline::PtapParent {
 public:
  int OnPtapMessage(std::uint32_t, const char* payload, std::size_t length) override {
    unsigned sum = 0;
    for (std::size_t i = 0; i < length; ++i) sum += static_cast<unsigned char>(payload[i]);
    sink_ = sum;
    return 0;
  }

 private:
  volatile unsigned sink_ = 0;
};

class ReadingObserver final : public deskline::PtapObserver {
 public:
  CPtap* ptap = nullptr;
  int OnPtapEvent(const int* event) override {
    if (*event == deskline::PTAP_EVENT_PBX_CLASS && ptap) {
      sink_ = ptap->GetParameter(deskline::PTAP_PARAM_PBX_CLASS);
    }
    if (ptap) sink_ = ptap->GetErrorCode();
    return 0;
  }

 private:
  volatile int sink_ = 0;
};

struct Terminal {
  explicit Terminal(std::uint8_t start_mode)
      : ptap(deskline::platform::RealClock(),
             deskline::PtapOptions{"", std::chrono::milliseconds(0),
                                   [](std::span<const std::uint8_t> datagram) {
                                     // What goes out must itself be a well-formed packet.
                                     if (datagram.size() <= deskline::kPtapHeaderLength ||
                                         std::memcmp(datagram.data(), "PTAP", 4) != 0) {
                                       __builtin_trap();
                                     }
                                     return true;
                                   }}) {
    init.start_mode = start_mode;
    init.pbx_ip = 0x7F000001;
    observer.ptap = &ptap;
    ptap.SetNetworkData(&init);
    ptap.SetParent(&parent);
    ptap.AddObserver(&observer);
    ptap.Prepare();
    ptap.SendPacket(deskline::PTAP_TYPE_START, nullptr, 0);
  }

  NetworkInitData init{};
  ReadingParent parent;
  ReadingObserver observer;
  CPtap ptap;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Terminal basic(0);
  static Terminal extended(1);
  for (Terminal* t : {&basic, &extended}) {
    t->ptap.ProcessDatagram(data, size);
    t->ptap.PollConnection();
    t->ptap.ScanRetransmissions();
    PtapParameterContainer copy{};
    t->ptap.GetParameterContainer(&copy);
  }
  return 0;
}
