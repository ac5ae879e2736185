// Without PTAP_Conf the client binds the fixed port 9301 and sends to port 9300 of the PBX.
// Holds the fixed ports, so it runs alone under its resource lock.
#include <gtest/gtest.h>

#include "platform/udp_socket.h"
#include "testing/temp_dir.h"
#include "ptap_test_util.h"

namespace deskline {
namespace {

TEST(PtapFixedPorts, WithoutAnIniFileTheDefaultPortsAreUsed) {
  testing::TempDir empty;
  platform::UdpSocket pbx;
  ASSERT_TRUE(pbx.Open({0x7F000001, 9300}));
  const NetworkInitData init = testing::MakeInitData(1);
  CPtap ptap(platform::RealClock(), {empty.path().string(), std::chrono::milliseconds(0), {}});
  ptap.SetNetworkData(&init);
  ASSERT_EQ(ptap.Start(), 0);
  EXPECT_EQ(ptap.RemoteEndpoint(), (platform::UdpEndpoint{0x7F000001, 9300}));
  EXPECT_EQ(ptap.SendPacket(PTAP_TYPE_START, nullptr, 0), 136);
  std::uint8_t buffer[1500];
  platform::UdpEndpoint from;
  const auto n = pbx.ReceiveFor(std::as_writable_bytes(std::span(buffer)), &from, 2000, nullptr);
  EXPECT_EQ(n, std::optional<std::size_t>(136));  // a timeout would give 0
  EXPECT_EQ(from.port, 9301);
  EXPECT_EQ(ptap.Shutdown(), 0);
}

}  // namespace
}  // namespace deskline
