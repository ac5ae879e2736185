// Counts every global operator new of a benchmark program, so that a benchmark can report
// heap allocations per frame.
#pragma once

#include <cstdint>

namespace deskline::bench {
std::uint64_t Allocations();
}  // namespace deskline::bench
