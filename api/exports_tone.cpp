// Tone player exports: each tests the singleton (-1 without it) and forwards.
#include "api/engine.h"
#include "deskline/deskline.h"
#include "tone/tone_player.h"

namespace {
deskline::CTonePlayer* Tone() { return deskline::api::engine().tone_player.load(); }
}  // namespace

extern "C" {

int32_t ToneModulePlayTone(int32_t tone_id, int32_t volume_step, int32_t melody_code) {
  auto* tone = Tone();
  return tone ? tone->PlayTone(tone_id, volume_step, melody_code) : -1;
}
int32_t ToneModulePlayDTMF(uint32_t key, uint8_t silent) {
  auto* tone = Tone();
  return tone ? tone->PlayDTMF(key, silent) : -1;
}
int32_t ToneModuleGetKeyPadMode(void) {
  auto* tone = Tone();
  return tone ? static_cast<int32_t>(tone->GetKeyPadMode()) : -1;
}
int32_t ToneModuleSetKeyPadMode(uint32_t mode) {
  auto* tone = Tone();
  return tone ? tone->SetKeyPadMode(mode) : -1;
}
int32_t ToneModuleGetProgramMode(void) {
  auto* tone = Tone();
  return tone ? static_cast<int32_t>(tone->GetProgramMode()) : -1;
}
int32_t ToneModuleSetProgramMode(uint32_t mode) {
  auto* tone = Tone();
  return tone ? tone->SetProgramMode(mode) : -1;
}
int32_t ToneModuleSaveCustomTone(int32_t slot, const char16_t* path) {
  auto* tone = Tone();
  return tone ? tone->SaveCustomTone(slot, path) : -1;
}
int32_t ToneModuleRemoveCustomTone(int32_t slot) {
  auto* tone = Tone();
  return tone ? tone->RemoveCustomTone(slot) : -1;
}
int32_t ToneModuleGetCustomTone(int32_t slot, char16_t** buffer) {
  auto* tone = Tone();
  return tone ? tone->GetCustomTone(slot, buffer) : -1;
}
int32_t ToneModuleSetServiceTonePath(int32_t area) {
  auto* tone = Tone();
  return tone ? tone->SetServiceTonePath(area) : -1;
}
int32_t ToneModulePlayServiceTone(int32_t code) {
  auto* tone = Tone();
  return tone ? tone->PlayServiceTone(code) : -1;
}

}  // extern "C"
