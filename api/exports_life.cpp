// Life, call control and voice exports.
#include <cstdint>
#include <cstring>
#include <new>

#include "api/engine.h"
#include "api/key_tables.h"
#include "deskline/deskline.h"
#include "support/tracer.h"
#include "tone/tone_player.h"

using deskline::CCp;
using deskline::CTonePlayer;
using deskline::IWave;
using deskline::TRACE_CRITICAL;
using deskline::TRACE_DETAIL;
using deskline::TRACE_ERROR;
using deskline::TRACE_WARNING;
using deskline::api::engine;

namespace {

constexpr std::uint32_t kMailboxErrorCode = 10;
constexpr std::uint32_t kMailboxKey = 13;
constexpr std::size_t kMaxDialLength = 40;

// Creates, starts and wires the tone player. 0, or -1 with nothing left behind.
int CreateTonePlayer() {
  auto* tone = new (std::nothrow) CTonePlayer();
  if (tone == nullptr) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: TonePlayer");
    return -1;
  }
  if (tone->Start() != 0) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Startup failed: TonePlayer");
    delete tone;
    return -1;
  }
  // Through the exports, so tones work whether or not the Audio module exists yet.
  const deskline::ToneAudioInterface table{AudioModulePlayFile, AudioModuleStopPlayFile,
                                           AudioModuleSetRingVolume, AudioModulePlayTone,
                                           AudioModuleStopPlayTone};
  if (tone->SetAudioInterface(&table) != 0) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Initialization failed: TonePlayer");
    tone->Shutdown();
    delete tone;
    return -1;
  }
  engine().tone_player.store(tone);
  return 0;
}

void DestroyCallProcessor() {
  CCp* cp = engine().cp.exchange(nullptr);
  engine().wave.store(nullptr);
  if (cp != nullptr) {
    cp->Shutdown();
    delete cp;
  }
}

}  // namespace

extern "C" {

int32_t initialize(const NetworkInitData* data, PtapParameterContainer* params_out) {
  if (engine().tone_player.load() == nullptr && CreateTonePlayer() != 0) return -1;
  if (engine().cp.load() != nullptr) return 0;

  auto* cp = new (std::nothrow) CCp(deskline::api::DefaultCpDependencies());
  if (cp == nullptr) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: CallProcessor");
    return -1;
  }
  // The call processor stays after a failure here, until uninitialize.
  if (cp->SetInitData(data) != 0) {
    engine().cp.store(cp);
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] PTAP initialization data is invalid");
    return -1;
  }
  // The host's other threads reach the call processor only once it has started: until then it
  // has no mailbox, and a failed start deletes it under their feet. Keys sent meanwhile get the
  // answer they get before initialize.
  if (const int result = cp->Start(); result != 0) {
    DL_TRACE(TRACE_CRITICAL, "[CRITICAL ERROR] Startup failed: CallProcessor");
    cp->Shutdown();
    delete cp;
    return result;
  }
  engine().cp.store(cp);
  IWave* wave = nullptr;
  if (cp->GetWave(&wave) != 0) {
    DL_TRACE(TRACE_CRITICAL,
             "[CRITICAL ERROR] Startup failed: CallProcessor - Wave registration failed");
    DestroyCallProcessor();
    return -1;
  }
  engine().wave.store(wave);
  PtapParameterContainer params{};
  if (cp->GetPtapParameters(&params) != 0) {
    DL_TRACE(TRACE_CRITICAL,
             "[CRITICAL ERROR] Startup failed: CallProcessor - PTAP parameter incomplete");
    return -1;
  }
  if (params_out == nullptr) {
    DL_TRACE(TRACE_CRITICAL,
             "[CRITICAL ERROR] Startup failed: Application - Invalid parameter container");
    return -1;
  }
  std::memset(params_out, 0, sizeof(*params_out));
  std::memcpy(params_out, &params, sizeof(*params_out));
  return 0;
}

int32_t uninitialize(void) {
  if (CTonePlayer* tone = engine().tone_player.exchange(nullptr)) {
    tone->Shutdown();
    delete tone;
  }
  if (engine().cp.load() == nullptr) return 0;
  DestroyCallProcessor();
  deskline::CTracer::Shutdown();
  return 0;
}

int32_t put_key(uint32_t key) {
  CCp* cp = engine().cp.load();
  if (cp == nullptr) return 0;
  const char* text = deskline::api::LookupKeyText(key);
  if (text == nullptr) {
    DL_TRACE(TRACE_DETAIL, "[API :: Warning] Invalid key code in put_key. Key ignored [%u]", key);
    return -1;
  }
  if (cp->WriteMailbox(kMailboxKey, text, static_cast<int32_t>(std::strlen(text))) != 0) {
    DL_TRACE(TRACE_ERROR, "[API :: ERROR] Failed at put_key. Possible mailbox overflow.");
    return -1;
  }
  DL_TRACE(TRACE_DETAIL, "[API] Valid key code received [%s]", text);
  return 0;
}

int32_t make_call(const char* number) {
  if (engine().cp.load() == nullptr) return 0;
  if (number == nullptr) return -1;
  const std::size_t length = strnlen(number, kMaxDialLength + 1);
  if (length < 1 || length > kMaxDialLength) return -1;
  // The whole string is vetted before the first key leaves.
  for (std::size_t i = 0; i < length; ++i) {
    if (!deskline::api::LookupDialChar(number[i])) {
      DL_TRACE(TRACE_WARNING,
               "[API :: Warning] Makecall received no number value at index [%d] as [%c]",
               static_cast<int>(i), number[i]);
      return -1;
    }
  }
  for (std::size_t i = 0; i < length; ++i) put_key(*deskline::api::LookupDialChar(number[i]));
  return 0;
}

int32_t send_error(uint32_t code, uint32_t, uint32_t) {
  CCp* cp = engine().cp.load();
  if (cp == nullptr) return 0;
  const auto byte = static_cast<uint8_t>(code & 0xff);
  if (cp->WriteMailbox(kMailboxErrorCode, &byte, 1) != 0) {
    DL_TRACE(TRACE_ERROR, "[API :: ERROR] Failed to send PTAP error data");
    return -1;
  }
  DL_TRACE(TRACE_DETAIL, "[API] Error code transmitted: [%u]", code);
  return 0;
}

int32_t open_voice(void) { return 0; }
int32_t close_voice(void) { return 0; }

int32_t send_voice(uint32_t bytes, const uint16_t* pcm) {
  // A count the signed result cannot carry (a host's -1 among them) is refused unread.
  if (bytes > static_cast<uint32_t>(INT32_MAX)) return -1;
  IWave* wave = engine().wave.load();
  if (wave == nullptr) return static_cast<int32_t>(bytes);
  const uint32_t frames = bytes / deskline::kVoiceFrameBytes;
  if (frames == 0) return 0;
  if (pcm == nullptr) return -1;
  const auto* samples = reinterpret_cast<const int16_t*>(pcm);
  for (uint32_t i = 0; i < frames; ++i) {
    wave->SendVoiceFrame(samples + i * deskline::kVoiceFrameSamples, deskline::kVoiceFrameBytes);
  }
  return static_cast<int32_t>(bytes);
}

int32_t recv_voice(int32_t* length, uint16_t* pcm, uint32_t* result_out) {
  IWave* wave = engine().wave.load();
  if (wave == nullptr) return 0;
  if (length == nullptr || pcm == nullptr) return -1;
  uint32_t status = 0;
  const uint32_t placed = wave->ReceiveVoice(*length, reinterpret_cast<int16_t*>(pcm), &status);
  if (result_out != nullptr) *result_out = status;
  return static_cast<int32_t>(placed);
}

void set_alaw(uint32_t mode) {
  if (IWave* wave = engine().wave.load()) wave->SetAlawShift(mode);
}

// Library detach: a host that forgot uninitialize still gets its threads stopped.
__attribute__((destructor)) static void OnLibraryDetach() { DestroyCallProcessor(); }

}  // extern "C"
