#include "mgcp/mgcp_message.h"

#include "mgcp/mgcp_build.h"
#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_signal.h"

namespace deskline {

int ProcessMessage(std::uint32_t operation, MgcpControlBlock& block, MgcpPacket* packet,
                   const char* text, SignalBuffer* signal) {
  if (packet == nullptr) return 1;
  switch (operation) {
    case 1:
    case 2:
    case 3: {
      const int result = ReadConnectionCommand(operation, block, packet->Text());
      packet->length = 0;
      return result;
    }
    case 4:
      return BuildDlcx(block, *packet);
    case 5:
      return BuildNtfy(block, *packet, text);
    case 6:
      if (signal == nullptr) {
        packet->length = 0;
        return 1;
      }
      return ParseSignal(block, packet, *signal);
    case 7:
      return BuildRsip(block, *packet, nullptr);
    case 8:
      return BuildResponse(block, *packet, text);
    default:
      packet->length = 0;
      return 1;
  }
}

}  // namespace deskline
