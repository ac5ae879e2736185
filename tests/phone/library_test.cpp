// The real libdeskline.so, loaded as the phone loads it: every export it uses resolves (Load
// fails on the first missing one), and before initialize each gives the documented result.
#include <gtest/gtest.h>

#include <vector>

#include "testing/temp_dir.h"
#include "tools/phone/host_library.h"

namespace deskline::phone {
namespace {

TEST(PhoneLibraryTest, EveryExportResolvesAndBeforeInitializeGivesNoObjectResults) {
  std::string error;
  HostLibrary library;
  ASSERT_TRUE(library.Load(DESKLINE_LIBRARY_PATH, &error)) << error;
  const HostExports& e = library.exports();
  LibraryActions actions(e);

  EXPECT_EQ(e.put_key(0x0200), 0);
  EXPECT_EQ(e.make_call("123"), 0);
  EXPECT_EQ(e.send_error(5, 0, 0), 0);
  std::vector<std::int16_t> pcm(kFrameSamples * kMaxReceiveFrames, 0);
  EXPECT_EQ(actions.SendVoice(std::span(pcm).first(320)), 640u);
  std::uint32_t status = 0xabcd;
  EXPECT_EQ(actions.ReceiveVoice(pcm, &status), 0u);
  EXPECT_EQ(status, 0xabcdu);  // left alone without a voice session
  EXPECT_EQ(e.uninitialize(), 0);
  // The sound card and the tone player are not there yet: no device list, no tone.
  EXPECT_FALSE(ListDevices(e.AudioModuleGetInDevice));
  EXPECT_FALSE(ListDevices(e.AudioModuleGetOutDevice));
  EXPECT_EQ(e.ToneModulePlayTone(1, -1, 1), -1);
  EXPECT_EQ(e.ToneModulePlayDTMF(1, 0), -1);
  EXPECT_EQ(e.AudioModuleShutdown(), 0);

  // No start data: -1, and what initialize left is taken down by uninitialize.
  testing::TempDir dir;
  EXPECT_EQ(e.tracer_startup(dir.File("trace.log").c_str()), 0);
  PtapParameterContainer parameters{};
  EXPECT_EQ(e.initialize(nullptr, &parameters), -1);
  EXPECT_EQ(e.uninitialize(), 0);
  EXPECT_EQ(e.put_key(0x0200), 0);
}

TEST(PhoneLibraryTest, MissingLibraryOrExportIsAClearError) {
  HostLibrary library;
  std::string error;
  EXPECT_FALSE(library.Load("/nonexistent/libdeskline.so", &error));
  EXPECT_NE(error.find("cannot load /nonexistent/libdeskline.so"), std::string::npos);
  // A real shared object that is not the engine: the first missing export is named.
  EXPECT_FALSE(library.Load("libm.so.6", &error));
  EXPECT_NE(error.find("lacks the export tracer_startup"), std::string::npos) << error;
}

}  // namespace
}  // namespace deskline::phone
