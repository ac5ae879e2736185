// What the host programs (the phone, the PBX simulator) need of the operating system: loading
// a shared library, Ctrl-C, and reading standard input without blocking forever.
#pragma once

#include <cstddef>
#include <string>

namespace deskline::platform {

// dlopen with immediate binding. Null with `error` set on failure.
void* OpenLibrary(const std::string& path, std::string* error);
// Null when the library lacks `name`.
void* FindSymbol(void* library, const char* name);
void CloseLibrary(void* library);

// SIGINT and SIGTERM set a flag (and interrupt blocking reads) instead of ending the process.
void InstallStopSignals();
bool StopSignalled();

// Waits up to `timeout_ms` for standard input. Returns the bytes read into `buffer`, 0 at end
// of input, -1 when nothing came in time (or a signal arrived).
long ReadStandardInput(char* buffer, std::size_t size, int timeout_ms);

}  // namespace deskline::platform
