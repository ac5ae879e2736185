/*
 * deskline-probe: loads libdeskline.so with dlopen as a telephone GUI would, starts the
 * tracer, calls initialize against a PBX address, and prints the result and the trace.
 *
 *   deskline-probe [--pbx A.B.C.D] [--local A.B.C.D] [--library PATH] [--trace FILE]
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "deskline/deskline.h"

typedef int32_t (*initialize_fn)(const NetworkInitData*, PtapParameterContainer*);
typedef int32_t (*void_fn)(void);
typedef int32_t (*tracer_startup_fn)(const char*);

static void on_event(uint32_t code, uint32_t length, const char* data) {
  (void)data;
  printf("  event_callback(%u, %u)\n", code, length);
}
static void on_led(uint32_t key, uint32_t status) {
  printf("  led_callback(0x%04x, %u)\n", key, status);
}
static void on_display(uint32_t a, uint32_t b, const char* text, uint32_t c) {
  (void)a; (void)b; (void)c;
  printf("  display_callback(\"%s\")\n", text ? text : "");
}
static void on_system(uint32_t code, uint32_t a, uint32_t b) {
  (void)a; (void)b;
  printf("  system_callback(%d)\n", (int32_t)code);
}

static const char* describe(int32_t result) {
  switch (result) {
    case 0: return "registered";
    case 1: return "start-up failed (see the trace)";
    case -1: return "invalid start data or engine error";
    case 201: return "the PBX refused the registration";
    case 210: return "the PBX says the connection data is wrong";
    case 211: return "the PBX says this is the wrong kind of terminal";
    default: return "unexpected result";
  }
}

static int parse_ip(const char* text, uint32_t* out) {
  struct in_addr addr;
  if (inet_pton(AF_INET, text, &addr) != 1) return 0;
  *out = ntohl(addr.s_addr);
  return 1;
}

int main(int argc, char** argv) {
  const char* library = "libdeskline.so";
  const char* trace = "trace.log";
  uint32_t pbx_ip = 0x7f000001, local_ip = 0x7f000001;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--pbx") == 0 && i + 1 < argc) {
      if (!parse_ip(argv[++i], &pbx_ip)) { fprintf(stderr, "bad address %s\n", argv[i]); return 2; }
    } else if (strcmp(argv[i], "--local") == 0 && i + 1 < argc) {
      if (!parse_ip(argv[++i], &local_ip)) { fprintf(stderr, "bad address %s\n", argv[i]); return 2; }
    } else if (strcmp(argv[i], "--library") == 0 && i + 1 < argc) {
      library = argv[++i];
    } else if (strcmp(argv[i], "--trace") == 0 && i + 1 < argc) {
      trace = argv[++i];
    } else {
      fprintf(stderr, "usage: %s [--pbx A.B.C.D] [--local A.B.C.D] [--library PATH] [--trace FILE]\n", argv[0]);
      return 2;
    }
  }

  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (!handle) { fprintf(stderr, "cannot load %s: %s\n", library, dlerror()); return 1; }
  initialize_fn initialize_ = (initialize_fn)dlsym(handle, "initialize");
  void_fn uninitialize_ = (void_fn)dlsym(handle, "uninitialize");
  tracer_startup_fn tracer_startup_ = (tracer_startup_fn)dlsym(handle, "tracer_startup");
  if (!initialize_ || !uninitialize_ || !tracer_startup_) {
    fprintf(stderr, "%s lacks the host interface\n", library);
    return 1;
  }

  tracer_startup_(trace);
  NetworkInitData data;
  memset(&data, 0, sizeof data);
  data.start_code = 1;
  memcpy(data.terminal_identity, "DESKLINE0001", 12);
  data.local_ip = local_ip;
  data.pbx_ip = pbx_ip;
  const uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
  memcpy(data.mac_address, mac, sizeof mac);
  data.event_callback = on_event;
  data.led_callback = on_led;
  data.display_callback = on_display;
  data.system_callback = on_system;

  char pbx_text[INET_ADDRSTRLEN];
  struct in_addr pbx_addr = {htonl(pbx_ip)};
  inet_ntop(AF_INET, &pbx_addr, pbx_text, sizeof pbx_text);
  printf("initialize against the PBX at %s ...\n", pbx_text);
  PtapParameterContainer params;
  const int32_t result = initialize_(&data, &params);
  printf("initialize returned %d: %s\n", result, describe(result));
  if (result == 0) printf("keepalive timeout delivered: %d s\n", params.keepalive_timeout);
  uninitialize_();
  dlclose(handle);

  printf("\n--- %s ---\n", trace);
  FILE* f = fopen(trace, "rb");
  if (f) {
    char line[1024];
    while (fgets(line, sizeof line, f)) fputs(line, stdout);
    fclose(f);
  }
  /* The probe ran: the result is reported above, not as the exit status. */
  return 0;
}
