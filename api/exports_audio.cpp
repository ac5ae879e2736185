// Audio device exports. The audio module is not part of this build yet: every export gives
// its result for a missing module, and AudioModuleStart reports that the module cannot be made.
#include "deskline/deskline.h"
#include "support/tracer.h"

extern "C" {

int32_t AudioModuleStart(void) {
  DL_TRACE(deskline::TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: Audio");
  return -1;
}
int32_t AudioModuleShutdown(void) { return 0; }
int32_t AudioModulePlayVoice(uint16_t*, int32_t) { return 0; }
int32_t AudioModuleRecordStart(uint8_t) { return 0; }
int32_t AudioModuleRegisterCallback(deskline_capture_callback) { return 0; }
int32_t AudioModuleGetInDevice(char16_t***) { return -1; }
int32_t AudioModuleGetOutDevice(char16_t***) { return -1; }
int32_t AudioModuleSetDevice(int32_t, int32_t, uint32_t) { return 0; }
int32_t AudioModulePlayFile(const char16_t*, int32_t) { return 0; }
int32_t AudioModuleStopPlayFile(void) { return 0; }
void AudioModuleSetSpeakerVolume(int32_t, float) {}
void AudioModuleSetRingVolume(int32_t, float) {}
void AudioModuleSetMicVolume(int32_t, float) {}
int32_t AudioModuleGetEngineStatus(void) { return -1; }
void AudioModuleGetDeviceID(uint32_t*, uint32_t*, uint32_t*) {}
void AudioModuleSetWindowHandle(uintptr_t) {}
int32_t AudioModulePlayTone(const char16_t*, int32_t) { return 0; }
int32_t AudioModuleStopPlayTone(void) { return 0; }

}  // extern "C"
