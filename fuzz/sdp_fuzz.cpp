// Feeds each input as an SDP offer to the reader of the connection commands and reads every
// stored field up to its size, the way the call processor reads them. Offers are kept to a
// few hundred bytes: every line kind and one over-long value fit, and longer texts only slow
// the search down.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "mgcp/mgcp_sdp.h"
#include "mgcp/mgcp_types.h"
#include "tests/mgcp/mgcp_test_util.h"

namespace {

using namespace deskline;

void Check(bool condition) {
  if (!condition) std::abort();
}

constexpr std::size_t kMaxOffer = 400;

volatile unsigned g_sink = 0;
// One checked copy reads a whole field at the cost of a single range test.
char g_copy[kMgcpSdpFieldSize];

template <std::size_t N>
void ReadField(const char (&field)[N]) {
  static_assert(N <= kMgcpSdpFieldSize);
  const std::string_view text = FieldText(field);
  Check(text.size() <= N);
  std::memcpy(g_copy, text.data(), text.size());
}

void ReadBlock(const MgcpRemoteSdp& sdp) {
  ReadField(sdp.remoteOrigin);
  ReadField(sdp.remoteSessionName);
  ReadField(sdp.remoteAttribute);
  ReadField(sdp.remoteMedia);
  ReadField(sdp.remoteConnection);
  // The codec is one of the four known types or the PCMU default.
  Check(IsKnownCodec(sdp.codec));
  g_sink = sdp.remoteRtpPort;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > kMaxOffer) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static const MgcpControlBlock started = mgcp_test::StartedBlock();
  MgcpControlBlock block = started;
  ReadSdp(block, text, 0);
  ReadBlock(block.remoteSdp);
  return 0;
}
