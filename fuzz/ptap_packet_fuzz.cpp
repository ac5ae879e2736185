// Feeds each input as a received PTAP datagram to the pure packet functions: the decode with
// its element walk, the header test, and the element store and parameter loader over what the
// walk found. No socket, clock or thread.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "ptap/ptap_packet.h"
#include "ptap/ptap_parameters.h"

namespace {

using namespace deskline;

void Check(bool condition) {
  if (!condition) std::abort();
}

volatile unsigned g_sink = 0;

// Every element must lie inside the payload; its value is read whole.
void CheckElements(const PtapPacket& packet) {
  for (const PtapElement& element : packet.elements) {
    Check(static_cast<std::size_t>(element.offset) + element.length <= packet.payload.size());
    const std::span<const std::uint8_t> value = packet.Value(element);
    Check(value.size() == element.length);
    unsigned sum = element.tag;
    for (std::uint8_t byte : value) sum += byte;
    g_sink = sum;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The socket reads at most one datagram's worth.
  const std::size_t length = size < kPtapMaxDatagram ? size : kPtapMaxDatagram;
  const std::span<const std::uint8_t> datagram(data, length);

  const std::unique_ptr<PtapPacket> packet = DecodePtapDatagram(datagram);
  if (!packet) {
    Check(length <= kPtapHeaderLength);
    return 0;
  }
  Check(length > kPtapHeaderLength);
  Check(packet->payload.size() == length - kPtapHeaderLength);
  CheckElements(*packet);
  // The walk again over the same payload finds the same elements.
  const std::size_t found = packet->elements.size();
  Check(ParsePtapElements(*packet) == found && packet->elements.size() == found);
  g_sink = HasPtapHeader(*packet) ? 1u : 0u;

  // The element store and the loader, as the receive path runs them on every packet.
  PtapParameterStore store;
  Check(store.EnsureContainer());
  for (const PtapElement& element : packet->elements) {
    if (element.tag == PTAP_TAG_RESULT) {
      const std::span<const std::uint8_t> value = packet->Value(element);
      if (!value.empty()) g_sink = static_cast<unsigned>(MapPtapResultCode(value[0]));
    } else if (element.tag != PTAP_TAG_EXTENDED_RESPONSE) {
      store.StoreElement(element.tag, packet->Value(element));
    }
  }
  Check(store.LoadParameters(*packet, [](std::uint32_t seconds) {
    Check(seconds <= 255);
    g_sink = seconds;
  }) == 0);
  Check(store.parameter_count() <= PtapParameterStore::kDeliveryElements);
  PtapParameterContainer copy{};
  Check(store.CopyContainer(&copy) == 0);
  // Every selector bit, and one past the table.
  for (std::uint32_t selector = 1; selector <= 0x200000; selector <<= 1) {
    g_sink = static_cast<unsigned>(store.GetParameter(selector));
  }
  store.FreeContainer();
  return 0;
}
