// Live and peak bytes of the process's C++ heap, counted by replacing the global operator new and
// delete (the replacement reaches cpprestsdk's allocations too). ru_maxrss only ever grows over
// a process's life, so it cannot tell one chunk's peak from the previous one's; this can.
#pragma once

#include <cstdint>

namespace heapgauge {

std::int64_t LiveBytes();
// Forgets the peak so far; the next PeakBytes() is the highest live figure since this call.
void ResetPeak();
std::int64_t PeakBytes();

} // namespace heapgauge
