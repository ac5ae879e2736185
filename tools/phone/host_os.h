// The few operating-system services the phone needs as a host program: loading the library,
// Ctrl-C, and reading standard input without blocking forever. This file's .cpp is the only
// one of the phone that includes system headers.
#pragma once

#include <cstddef>
#include <string>

namespace deskline::phone {

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

}  // namespace deskline::phone
