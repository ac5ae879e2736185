#include "platform/host_process.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace deskline::platform {
namespace {

volatile sig_atomic_t g_stop_signalled = 0;

void OnStopSignal(int) { g_stop_signalled = 1; }

}  // namespace

void* OpenLibrary(const std::string& path, std::string* error) {
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* why = dlerror();
    *error = why ? why : "unknown dlopen failure";
  }
  return library;
}

void* FindSymbol(void* library, const char* name) {
  return library ? dlsym(library, name) : nullptr;
}

void CloseLibrary(void* library) {
  if (library) dlclose(library);
}

void InstallStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a blocked read returns and the flag is seen
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopSignalled() { return g_stop_signalled != 0; }

long ReadStandardInput(char* buffer, std::size_t size, int timeout_ms) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  const int ready = poll(&input, 1, timeout_ms);
  if (ready <= 0) return -1;
  const ssize_t got = read(STDIN_FILENO, buffer, size);
  if (got < 0) return errno == EINTR || errno == EAGAIN ? -1 : 0;
  return static_cast<long>(got);
}

}  // namespace deskline::platform
