// Number formatting exports: thin forwards to the formatter, which the first
// set_module_variable makes and which then lives to the end of the process. Nothing that the
// formatter throws (no memory, a regex failure) may cross into the host: each export catches
// it, traces it and answers -1.
#include <exception>
#include <new>

#include "deskline/deskline.h"
#include "support/number/number_formatter.h"
#include "support/tracer.h"

namespace {

using deskline::CNumberFormatter;

// Never destroyed: the host may format numbers until the very end of the process.
CNumberFormatter* formatter = nullptr;

template <typename Call>
int32_t Guarded(const char* name, Call&& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    DL_TRACE(deskline::TRACE_ERROR, "[API :: ERROR] Failed at %s. Out of memory.", name);
  } catch (const std::exception& e) {
    DL_TRACE(deskline::TRACE_ERROR, "[API :: ERROR] Failed at %s. %s", name, e.what());
  } catch (...) {
    DL_TRACE(deskline::TRACE_ERROR, "[API :: ERROR] Failed at %s.", name);
  }
  return -1;
}

}  // namespace

extern "C" {

int32_t set_module_variable(ModuleVariables* record, uint32_t selector) {
  if (formatter == nullptr) {
    try {
      formatter = new CNumberFormatter();
    } catch (...) {
      DL_TRACE(deskline::TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: NumberFormatter");
      return -1;
    }
  }
  return Guarded("set_module_variable",
                 [&] { return formatter->set_module_variable(record, selector); });
}

int32_t get_module_variable(ModuleVariables* record, int32_t selector) {
  if (formatter == nullptr) return -1;
  return Guarded("get_module_variable",
                 [&] { return formatter->get_module_variable(record, selector); });
}

int32_t check_leading(const char16_t* text, int32_t length, int32_t index) {
  if (formatter == nullptr) return -1;
  return Guarded("check_leading", [&] { return formatter->check_leading(text, length, index); });
}

int32_t check_added(const char16_t* text, int32_t length, int32_t index) {
  if (formatter == nullptr) return -1;
  return Guarded("check_added", [&] { return formatter->check_added(text, length, index); });
}

int32_t get_formatted_number(const char16_t* number, int32_t length, char16_t** out) {
  if (formatter == nullptr) return -1;
  return Guarded("get_formatted_number",
                 [&] { return formatter->get_formatted_number(number, length, out); });
}

void discard_changes(void) {
  if (formatter == nullptr) return;
  Guarded("discard_changes", [] {
    formatter->discard_changes();
    return 0;
  });
}

}  // extern "C"
