// The deskline-pbx command language: each typed line against the text that reaches a raw
// terminal, and bad lines that send nothing.
#include "tools/pbxsim/agent_script.h"

#include <gtest/gtest.h>

#include "mgcp_test_util.h"

namespace deskline::sim {
namespace {

using testing::MgcpTerminal;

class AgentScriptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(agent_.Start());
    terminal_.Send("RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n", agent_.endpoint());
    ASSERT_EQ(terminal_.Receive(), "200 1 OK\r\n");
  }
  // Runs `line` and gives the text that reached the terminal.
  std::string Sent(std::string_view line) {
    const ScriptStep step = script_.Run(line);
    EXPECT_TRUE(step.ok) << step.message;
    return terminal_.Receive();
  }
  // The S: line of the RQNT that `line` sends.
  std::string Signals(std::string_view line) {
    const std::string text = Sent(line);
    const std::size_t s = text.find("\r\nS: ");
    if (s == std::string::npos) return "(no S: line) " + text;
    return text.substr(s + 5, text.find("\r\n", s + 5) - s - 5);
  }

  // Without resends, so that none comes between the datagrams a test expects.
  MgcpAgent agent_{MgcpAgentOptions{.resend = {.max_resends = 0}}};
  AgentScript script_{agent_};
  MgcpTerminal terminal_;
};

TEST_F(AgentScriptTest, SignalCommandsBecomeXpSignals) {
  const struct {
    const char* line;
    const char* signals;
  } cases[] = {
      {"ring", "X-P/ring(010101)"},
      {"ring 2", "X-P/ring(010201)"},
      {"ring 3 0x1F 0", "X-P/ring(00031F)"},
      {"ring off", "X-P/ring(000000)"},
      {"lamp 0201 ron", "X-P/ks(0201,ron)"},
      {"  lamp   c2f   g24i  ", "X-P/ks(0C2F,g24i)"},
      {"display 1 5 Hello  you", "X-P/lcdp(210105" "0A" "48656C6C6F2020796F75)"},
      {"display clear", "X-P/lcdp(300100000000)"},
      {"tone 18 52", "X-P/tone(120000000034)"},
      {"tone 0x12 0x34 101", "X-P/tone(120100010034)"},
      {"volume 3 0", "X-P/vctl(0300)"},
      {"signal hset(01) X-P/pctl(13)", "X-P/hset(01),X-P/pctl(13)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(Signals(c.line), c.signals);
  }
}

TEST_F(AgentScriptTest, CallCommandsFollowTheCall) {
  EXPECT_FALSE(script_.Run("hold").ok) << "no call yet";
  std::string crcx = Sent("connect g729 40010");
  EXPECT_NE(crcx.find("L: p:20, a:G729\r\n"), std::string::npos) << crcx;
  EXPECT_NE(crcx.find("m=audio 40010 RTP/AVP 18\r\n"), std::string::npos) << crcx;
  crcx = Sent("connect 8");
  EXPECT_NE(crcx.find("m=audio 40000 RTP/AVP 8\r\n"), std::string::npos) << crcx;
  EXPECT_NE(Sent("hold").find("M: inactive\r\n"), std::string::npos);
  EXPECT_NE(Sent("resume").find("M: sendrecv\r\n"), std::string::npos);
  EXPECT_EQ(Sent("release").substr(0, 5), "DLCX ");
  EXPECT_EQ(Sent("audit").substr(0, 5), "AUEP ");
  const ScriptStep status = script_.Run("status");
  EXPECT_NE(status.message.find("endpoint d1@0200aabbccdd, no call"), std::string::npos)
      << status.message;
}

TEST_F(AgentScriptTest, BadLinesSendNothingAndSayWhy) {
  for (const char* line : {"ring 256", "ring 1 2 3 4", "ring -1", "lamp 0201", "lamp 0201 blink",
                           "lamp 10000 ron", "lamp 0x20 ron", "display 1", "display x 1 text",
                           "tone 1", "tone 1 2 12", "volume 3", "signal", "connect opus",
                           "connect pcmu 70000", "hold now", "wait", "wait 600001", "dial 123"}) {
    SCOPED_TRACE(line);
    const ScriptStep step = script_.Run(line);
    EXPECT_FALSE(step.ok);
    EXPECT_FALSE(step.message.empty());
  }
  EXPECT_EQ(terminal_.Receive(50), "(nothing)");

  EXPECT_TRUE(script_.Run("").ok);
  EXPECT_TRUE(script_.Run("   # a comment").ok);
  EXPECT_EQ(script_.Run("wait 250").wait, std::chrono::milliseconds(250));
  EXPECT_TRUE(script_.Run("quit").quit);
  EXPECT_NE(std::string(script_.Run("help").message).find("connect"), std::string::npos);

  agent_.Stop();
  const ScriptStep stopped = script_.Run("ring");
  EXPECT_FALSE(stopped.ok);
  EXPECT_NE(stopped.message.find("not sent"), std::string::npos);
}

}  // namespace
}  // namespace deskline::sim
