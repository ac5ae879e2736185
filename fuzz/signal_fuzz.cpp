// Feeds each input as the text of an RQNT's S: line, at the end of the datagram, to the X-P
// signal decoder (a line end and what follows it are the input's own), and reads every
// decoded buffer whole, the way the host reads a display record. The packet bytes behind the datagram are poisoned,
// so that a read past its length is reported even though it stays inside the packet buffer.
#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "mgcp/mgcp_signal.h"
#include "mgcp/mgcp_types.h"
#include "tests/mgcp/mgcp_test_util.h"

namespace {

using namespace deskline;

void Check(bool condition) {
  if (!condition) std::abort();
}

// One checked copy reads the whole buffer at the cost of a single range test.
char g_copy[kSignalBufferSize];

void ReadAll(const char* bytes, std::size_t count) { std::memcpy(g_copy, bytes, count); }

const std::string& Head() {
  static const std::string head = "RQNT 12" + mgcp_test::kHead + "X: 1\r\nR: X-P/fk\r\nS: ";
  return head;
}

void Walk(std::string_view line) {
  std::string text = Head();
  text.append(line);
  const auto packet = std::make_unique<MgcpPacket>();
  packet->Assign(text);
  const std::uint32_t length = packet->length;
  char* const behind = packet->data.data() + length;
  const std::size_t behind_size = kMgcpPacketSize - length;
  ASAN_POISON_MEMORY_REGION(behind, behind_size);
  static const MgcpControlBlock started = mgcp_test::StartedBlock();
  MgcpControlBlock block = started;
  WalkSignals(block, *packet, [](const SignalBuffer& signal) {
    Check(signal[kSignalBufferSize - 1] == '\0');
    ReadAll(signal.data(), signal.size());
  });
  ASAN_UNPOISON_MEMORY_REGION(behind, behind_size);
  Check(packet->length == length);  // restored after the walk
  Check(block.ringerActive <= 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  Walk(line);
  return 0;
}
