// Counts heap allocations made anywhere in the process.
#pragma once

#include <cstdint>

namespace zor_bench {
uint64_t allocationCount();
}
