// Feeds one datagram per input through the MGCP endpoint's inbound path as the socket thread
// meets it: classification, the transaction id, the command line and header scan of CRCX,
// MDCX and DLCX with their SDP, the RQNT signal walk, and then the answers built from what
// was read. Every signal buffer is read whole, the way the host reads a display record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_message.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_sdp.h"
#include "mgcp/mgcp_signal.h"
#include "tests/mgcp/mgcp_test_util.h"

namespace {

using namespace deskline;

using mgcp_test::StartedBlock;  // the endpoint that the seed commands address

void Check(bool condition) {
  if (!condition) std::abort();
}

volatile unsigned g_sink = 0;

void ReadAll(const char* bytes, std::size_t count) {
  unsigned sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += static_cast<unsigned char>(bytes[i]);
  g_sink = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  MgcpPacket received;
  const std::size_t n = size < kMgcpPacketSize ? size : kMgcpPacketSize;
  if (n > 0) std::memcpy(received.data.data(), data, n);
  received.length = static_cast<std::uint32_t>(n);

  const std::string_view text = received.Text();
  const std::uint32_t event = ClassifyInbound(text);
  std::uint32_t tid = 0;
  ParseTransactionId(text, &tid);

  MgcpControlBlock block = StartedBlock();
  // Each reader over its own copy, as each command would get it.
  for (std::uint32_t operation : {1u, 2u, 3u}) {
    MgcpPacket packet = received;
    ProcessMessage(operation, block, &packet);
    Check(packet.length == 0);
  }
  ReadSdp(block, text, 0);

  MgcpPacket rqnt = received;
  WalkSignals(block, rqnt, [](const SignalBuffer& signal) {
    Check(signal[kSignalBufferSize - 1] == '\0');
    ReadAll(signal.data(), signal.size());
  });
  Check(rqnt.length == received.length);

  // What the call processor reads, and the answers built from the block as the parse left it.
  ReadAll(block.remoteSdp.remoteConnection, FieldText(block.remoteSdp.remoteConnection).size());
  MgcpPacket out;
  BuildResponse(block, out, event == MGCP_EVENT_MDCX ? "100" : "200");
  WriteSdp(block, out, out.length);
  Check(out.length <= kMgcpPacketSize);
  BuildNtfy(block, out, "0c2F");
  Check(out.length <= kMgcpPacketSize);
  BuildDlcx(block, out);
  Check(out.length <= kMgcpPacketSize);
  return 0;
}
