// Number formatting exports. The formatter is not part of this build yet: set_module_variable
// reports that it cannot be made, and the others give their results for a missing formatter.
#include "deskline/deskline.h"
#include "support/tracer.h"

extern "C" {

int32_t set_module_variable(ModuleVariables* record, uint32_t) {
  if (record == nullptr) return -1;
  DL_TRACE(deskline::TRACE_CRITICAL, "[CRITICAL ERROR] Object creation failed: NumberFormatter");
  return -1;
}
int32_t get_module_variable(ModuleVariables*, int32_t) { return -1; }
int32_t check_leading(const char16_t*, int32_t, int32_t) { return -1; }
int32_t check_added(const char16_t*, int32_t, int32_t) { return -1; }
int32_t get_formatted_number(const char16_t*, int32_t, char16_t**) { return -1; }
void discard_changes(void) {}

}  // extern "C"
