/*
 * Deskline: the call engine of a software IP telephone.
 *
 * The public interface of libdeskline.so: the records that the host builds or receives and
 * the 49 exported functions. Plain C, usable from C and C++.
 *
 * Wide text is UTF-16 in char16_t. Addresses in NetworkInitData are IPv4 numbers in host order.
 * Callbacks run on the engine's own threads (see docs/api.md); a callback must not call
 * uninitialize().
 *
 * Copyright (C) 2026 the Deskline developers. GPL-3.0-or-later.
 */
#ifndef DESKLINE_DESKLINE_H
#define DESKLINE_DESKLINE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <uchar.h>
extern "C" {
#else
#include <uchar.h>
#endif

#if defined(__GNUC__)
#define DESKLINE_API __attribute__((visibility("default")))
#else
#define DESKLINE_API
#endif

/* ---- Records ---------------------------------------------------------------------------- */

typedef void (*deskline_event_callback)(uint32_t code, uint32_t length, const char* data);
typedef void (*deskline_led_callback)(uint32_t key, uint32_t status);
typedef void (*deskline_display_callback)(uint32_t, uint32_t, const char* text, uint32_t);
typedef void (*deskline_system_callback)(uint32_t code, uint32_t, uint32_t);

/* The host's start record. Bytes that are not named are carried along unread. */
typedef struct NetworkInitData {
  uint8_t start_code;              /* 0: sent in PTAP START */
  uint8_t reserved_1[51];
  uint8_t terminal_identity[12];   /* 52: sent in PTAP START */
  uint8_t reserved_2[20];
  uint32_t local_ip;               /* 84: this terminal, host order */
  uint8_t mac_address[6];          /* 88 */
  uint8_t reserved_3[2];
  uint32_t pbx_ip;                 /* 96: the PBX, host order */
  uint8_t reserved_4[8];
  uint8_t start_mode;              /* 108: 1 extended, otherwise basic */
  uint8_t reserved_5[7];
  /* i386: 116, 120, 124, 128 (size 132). x86-64: 120, 128, 136, 144 (size 152). */
  deskline_event_callback event_callback;
  deskline_led_callback led_callback;
  deskline_display_callback display_callback;
  deskline_system_callback system_callback;
} NetworkInitData;

/* What the PBX delivered at registration; all fields are signed 32-bit. */
typedef struct PtapParameterContainer {
  int32_t result_code;        /* 0: element 0x20 */
  int32_t keepalive_timeout;  /* 4: element 0x1A, seconds */
  int32_t param_1b;           /* 8 */
  int32_t param_1c;           /* 12 */
  int32_t param_1d;           /* 16 */
  int32_t param_1e;           /* 20 */
  int32_t param_18;           /* 24 */
  int32_t param_19;           /* 28 */
  int32_t param_24;           /* 32 */
  int32_t param_25;           /* 36 */
  int32_t param_26;           /* 40 */
  int32_t param_0f;           /* 44: 16-bit value, host order */
  int32_t param_21[32];       /* 48: one per byte of element 0x21 */
} PtapParameterContainer;

/* One rule of the number formatter's table. */
typedef struct NumberRule {
  char16_t leading[17];    /* 0: not terminated at full length */
  int32_t leading_length;  /* 36 */
  char16_t added[9];       /* 40 */
  int32_t added_length;    /* 60 */
  uint8_t in_use;          /* 64 */
} NumberRule;

/* The record of set_module_variable and get_module_variable. */
typedef struct ModuleVariables {
  NumberRule* rules;               /* selector bit 1 */
  uint32_t rule_count;             /* selector bit 1 */
  uint32_t extension_length;       /* selector bit 2 */
  uint8_t plain_flag;              /* selector bit 4 */
  char16_t dial_prefix[8];         /* selector bit 8 */
  int32_t dial_prefix_length;      /* selector bit 8 */
  char16_t default_added[9];       /* selector bit 32 */
  int32_t default_added_length;    /* selector bit 32 */
  uint8_t strip_zero_in_brackets;  /* selector bit 16 */
} ModuleVariables;

/* Microphone frames: 16-bit linear samples at 8000 Hz. */
typedef int32_t (*deskline_capture_callback)(uint16_t* samples, uint32_t bytes);

/* Trace levels (tracer_*_filter masks). */
#define DESKLINE_TRACE_STATUS 0x1u
#define DESKLINE_TRACE_DETAIL 0x2u
#define DESKLINE_TRACE_WARNING 0x4u
#define DESKLINE_TRACE_ERROR 0x8u
#define DESKLINE_TRACE_CRITICAL 0x10u
#define DESKLINE_TRACE_ALL 0xffffffffu

/* system_callback codes that the engine raises itself. */
#define DESKLINE_SYSTEM_CONNECTION_LOST 24u
#define DESKLINE_SYSTEM_RESTART_DEMANDED 26u

/* ---- Life, call control and voice ---------------------------------------------------------- */

/* 0, -1, or the registration result 1, 201, 210 or 211. Blocks up to 38 s against a silent PBX. */
DESKLINE_API int32_t initialize(const NetworkInitData* data, PtapParameterContainer* params_out);
DESKLINE_API int32_t uninitialize(void);
DESKLINE_API int32_t put_key(uint32_t key);
DESKLINE_API int32_t make_call(const char* number);
DESKLINE_API int32_t send_error(uint32_t code, uint32_t unused_1, uint32_t unused_2);
DESKLINE_API int32_t open_voice(void);
DESKLINE_API int32_t close_voice(void);
DESKLINE_API int32_t send_voice(uint32_t bytes, const uint16_t* pcm);
DESKLINE_API int32_t recv_voice(int32_t* length, uint16_t* pcm, uint32_t* result_out);
DESKLINE_API void set_alaw(uint32_t mode);

/* ---- Tracer ---------------------------------------------------------------------------- */

DESKLINE_API int32_t tracer_startup(const char* filename);
DESKLINE_API int32_t tracer_add_filter(uint32_t mask);
DESKLINE_API int32_t tracer_remove_filter(uint32_t mask);
DESKLINE_API int32_t tracer_set_filter(uint32_t mask);

/* ---- Audio devices ------------------------------------------------------------------------ */

DESKLINE_API int32_t AudioModuleStart(void);
DESKLINE_API int32_t AudioModuleShutdown(void);
DESKLINE_API int32_t AudioModulePlayVoice(uint16_t* pcm, int32_t length);
DESKLINE_API int32_t AudioModuleRecordStart(uint8_t flag);
DESKLINE_API int32_t AudioModuleRegisterCallback(deskline_capture_callback callback);
/* The library allocates the array and each 64-byte name with malloc; the caller frees each
 * name and then the array with free. */
DESKLINE_API int32_t AudioModuleGetInDevice(char16_t*** list_out);
DESKLINE_API int32_t AudioModuleGetOutDevice(char16_t*** list_out);
DESKLINE_API int32_t AudioModuleSetDevice(int32_t output, int32_t file, uint32_t input);
DESKLINE_API int32_t AudioModulePlayFile(const char16_t* path, int32_t loop_count);
DESKLINE_API int32_t AudioModuleStopPlayFile(void);
DESKLINE_API void AudioModuleSetSpeakerVolume(int32_t level, float slope);
DESKLINE_API void AudioModuleSetRingVolume(int32_t level, float slope);
DESKLINE_API void AudioModuleSetMicVolume(int32_t level, float slope);
DESKLINE_API int32_t AudioModuleGetEngineStatus(void);
DESKLINE_API void AudioModuleGetDeviceID(uint32_t* output, uint32_t* file, uint32_t* input);
DESKLINE_API void AudioModuleSetWindowHandle(uintptr_t handle);
DESKLINE_API int32_t AudioModulePlayTone(const char16_t* path, int32_t loop_count);
DESKLINE_API int32_t AudioModuleStopPlayTone(void);

/* ---- Tone player -------------------------------------------------------------------------- */

DESKLINE_API int32_t ToneModulePlayTone(int32_t tone_id, int32_t volume_step, int32_t melody_code);
DESKLINE_API int32_t ToneModulePlayDTMF(uint32_t key, uint8_t silent);
DESKLINE_API int32_t ToneModuleGetKeyPadMode(void);
DESKLINE_API int32_t ToneModuleSetKeyPadMode(uint32_t mode);
DESKLINE_API int32_t ToneModuleGetProgramMode(void);
DESKLINE_API int32_t ToneModuleSetProgramMode(uint32_t mode);
DESKLINE_API int32_t ToneModuleSaveCustomTone(int32_t slot, const char16_t* path);
DESKLINE_API int32_t ToneModuleRemoveCustomTone(int32_t slot);
/* Copies the slot's file into *buffer, which holds 256 char16_t. */
DESKLINE_API int32_t ToneModuleGetCustomTone(int32_t slot, char16_t** buffer);
DESKLINE_API int32_t ToneModuleSetServiceTonePath(int32_t area);
DESKLINE_API int32_t ToneModulePlayServiceTone(int32_t code);

/* ---- Number formatting ---------------------------------------------------------------------- */

DESKLINE_API int32_t set_module_variable(ModuleVariables* record, uint32_t selector);
DESKLINE_API int32_t get_module_variable(ModuleVariables* record, int32_t selector);
DESKLINE_API int32_t check_leading(const char16_t* text, int32_t length, int32_t index);
DESKLINE_API int32_t check_added(const char16_t* text, int32_t length, int32_t index);
/* *out stays valid until the next call. */
DESKLINE_API int32_t get_formatted_number(const char16_t* number, int32_t length, char16_t** out);
DESKLINE_API void discard_changes(void);

/* ---- Layout checks ------------------------------------------------------------------------- */

#ifdef __cplusplus
#define DESKLINE_STATIC_ASSERT(e, m) static_assert(e, m)
#else
#define DESKLINE_STATIC_ASSERT(e, m) _Static_assert(e, m)
#endif

DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, terminal_identity) == 52, "terminal_identity");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, local_ip) == 84, "local_ip");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, mac_address) == 88, "mac_address");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, pbx_ip) == 96, "pbx_ip");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, start_mode) == 108, "start_mode");
DESKLINE_STATIC_ASSERT(sizeof(PtapParameterContainer) == 176, "PtapParameterContainer");
DESKLINE_STATIC_ASSERT(offsetof(PtapParameterContainer, param_21) == 48, "param_21");
DESKLINE_STATIC_ASSERT(sizeof(NumberRule) == 68, "NumberRule");
DESKLINE_STATIC_ASSERT(offsetof(NumberRule, leading_length) == 36, "leading_length");
DESKLINE_STATIC_ASSERT(offsetof(NumberRule, added) == 40, "added");
DESKLINE_STATIC_ASSERT(offsetof(NumberRule, added_length) == 60, "added_length");
DESKLINE_STATIC_ASSERT(offsetof(NumberRule, in_use) == 64, "in_use");

#if UINTPTR_MAX == 0xffffffffu
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, event_callback) == 116, "event_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, led_callback) == 120, "led_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, display_callback) == 124, "display_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, system_callback) == 128, "system_callback");
DESKLINE_STATIC_ASSERT(sizeof(NetworkInitData) == 132, "NetworkInitData");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, rule_count) == 4, "rule_count");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, extension_length) == 8, "extension_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, plain_flag) == 12, "plain_flag");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, dial_prefix) == 14, "dial_prefix");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, dial_prefix_length) == 32, "dial_prefix_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, default_added) == 36, "default_added");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, default_added_length) == 56, "default_added_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, strip_zero_in_brackets) == 60, "strip_zero");
#elif UINTPTR_MAX == 0xffffffffffffffffu
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, event_callback) == 120, "event_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, led_callback) == 128, "led_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, display_callback) == 136, "display_callback");
DESKLINE_STATIC_ASSERT(offsetof(NetworkInitData, system_callback) == 144, "system_callback");
DESKLINE_STATIC_ASSERT(sizeof(NetworkInitData) == 152, "NetworkInitData");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, rule_count) == 8, "rule_count");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, extension_length) == 12, "extension_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, plain_flag) == 16, "plain_flag");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, dial_prefix) == 18, "dial_prefix");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, dial_prefix_length) == 36, "dial_prefix_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, default_added) == 40, "default_added");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, default_added_length) == 60, "default_added_length");
DESKLINE_STATIC_ASSERT(offsetof(ModuleVariables, strip_zero_in_brackets) == 64, "strip_zero");
DESKLINE_STATIC_ASSERT(sizeof(ModuleVariables) == 72, "ModuleVariables");
#endif

#ifdef __cplusplus
}
#endif
#endif /* DESKLINE_DESKLINE_H */
