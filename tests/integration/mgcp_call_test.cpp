// One incoming call through initialize: the real PTAP and MGCP modules against the simulated
// PBX and its call agent on loopback, with a fake Wave session. Runs in real time (about a
// second: the MGCP start holds for half of one).
#include "engine_fixture.h"

namespace deskline {
namespace {

using namespace std::chrono_literals;

class MgcpCall : public testing::EngineFixture {
 protected:
  MgcpCall() : EngineFixture(Real::kPtapMgcp) {}
};

TEST_F(MgcpCall, RegistersRingsAnswersConnectsHoldsAndReleases) {
  sim::MgcpAgent& agent = this->agent();
  ASSERT_EQ(Initialize(), 0) << trace_.Text();

  // The terminal's first MGCP message is its RSIP, from the MAC-made endpoint.
  const std::vector<sim::Record> rsips = agent.Messages("RSIP");
  ASSERT_EQ(rsips.size(), 1u);
  EXPECT_EQ(rsips[0].mgcp.tid, 1u);
  EXPECT_EQ(rsips[0].mgcp.endpoint, "d1@001122aabbcc");
  ASSERT_NE(rsips[0].mgcp.Header("RM"), nullptr);
  EXPECT_EQ(*rsips[0].mgcp.Header("RM"), "restart");
  EXPECT_EQ(agent.terminal()->port, *pbx_.answers().start.mgcp_terminal_port);

  // Ring with a lamp on one S: line: the host hears both.
  const std::uint32_t ring = agent.SendSignals({sim::xp::Ring(1, 1, 2), sim::xp::Lamp(0x0201, "r3i")});
  ASSERT_TRUE(agent.WaitForFinal(ring, 2s));
  EXPECT_EQ(agent.Transaction(ring)->responses.front().code, 200);
  EXPECT_TRUE(HostSaw("event(2,9,mgcp_tone)"));
  EXPECT_TRUE(HostSaw("led(513,9)"));

  // Off hook: the key goes out as an NTFY that names the RSIP before it.
  ASSERT_EQ(put_key(0x0200), 0);
  ASSERT_TRUE(agent.WaitForEvent("X-P/fk0200", 2s));
  const std::vector<sim::Record> ntfys = agent.Messages("NTFY");
  ASSERT_FALSE(ntfys.empty());
  EXPECT_EQ(ntfys[0].mgcp.tid, 2u);
  EXPECT_EQ(*ntfys[0].mgcp.Header("K"), "1");

  // A dial string leaves one key per polling period, in order, each in an NTFY of its own.
  ASSERT_EQ(make_call("1*2"), 0);
  ASSERT_TRUE(agent.WaitForEvent("X-P/fk0732", 2s));
  std::vector<std::string> keys;
  for (const std::string& event : agent.ObservedEvents()) {
    if (event != "X-P/fk0200") keys.push_back(event);
  }
  EXPECT_EQ(keys, (std::vector<std::string>{"X-P/fk0731", "X-P/fk072a", "X-P/fk0732"}));

  // Connect on G.729: the media path is pointed at the offer, the answer carries SDP.
  const std::uint32_t crcx = agent.SendCrcx(sim::MediaOffer{0x7F000001, 40002, {18}, 1});
  ASSERT_TRUE(agent.WaitForFinal(crcx, 2s));
  std::optional<sim::MgcpTransaction> t = agent.Transaction(crcx);
  ASSERT_EQ(t->responses.size(), 2u);
  EXPECT_EQ(t->responses[0].code, 100);
  EXPECT_FALSE(t->responses[0].sdp.has_value());
  EXPECT_EQ(t->responses[1].code, 200);
  EXPECT_EQ(t->responses[1].connection_id, "0");
  const std::optional<sim::SdpInfo> answer = agent.TerminalSdp(crcx);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->fault, "");
  EXPECT_EQ(answer->ip, 0x7F000001u);
  EXPECT_EQ(answer->port, 8000) << "the port of the first SetLocalMedia";
  EXPECT_TRUE(HostSaw("event(35,5,G.729)"));
  EXPECT_TRUE(fakes_.log.Contains("wave.SetRemotePort(40002)"));
  EXPECT_TRUE(fakes_.log.Contains("wave.SetPayloadType(18)"));

  // Hold: the SDP rides on the provisional response.
  const std::uint32_t hold = agent.SendMdcx(sim::ConnectionMode::kInactive);
  ASSERT_TRUE(agent.WaitForFinal(hold, 2s));
  t = agent.Transaction(hold);
  ASSERT_EQ(t->responses.size(), 2u);
  EXPECT_EQ(t->responses[0].code, 100);
  EXPECT_TRUE(t->responses[0].sdp.has_value());
  EXPECT_FALSE(t->responses[1].sdp.has_value());

  // Release.
  const std::uint32_t release = agent.SendDlcx();
  ASSERT_TRUE(agent.WaitForFinal(release, 2s));
  EXPECT_EQ(agent.Transaction(release)->final_response()->code, 250);
  EXPECT_TRUE(HostSaw("event(36,0)"));
}

}  // namespace
}  // namespace deskline
