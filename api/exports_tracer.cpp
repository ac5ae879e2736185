#include "deskline/deskline.h"
#include "support/tracer.h"

extern "C" {

// The host does not learn whether the file opened: the result is always 0.
int32_t tracer_startup(const char* filename) {
  deskline::CTracer::Instance().Startup(filename, deskline::TRACE_ALL);
  return 0;
}

int32_t tracer_add_filter(uint32_t mask) {
  deskline::CTracer::Instance().AddFilter(mask);
  return 0;
}

int32_t tracer_remove_filter(uint32_t mask) {
  deskline::CTracer::Instance().RemoveFilter(mask);
  return 0;
}

int32_t tracer_set_filter(uint32_t mask) {
  deskline::CTracer::Instance().SetFilter(mask);
  return 0;
}

}  // extern "C"
