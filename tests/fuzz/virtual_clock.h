// Time on the thread that plays an input: its sleeps and timed waits return at once and move its
// monotonic clock on by as much, so that an input runs in microseconds and the same way each time.
// Every other thread, and this one outside Begin .. End, keeps real time.
#pragma once

#include <chrono>

namespace orqfuzz {

// Starts virtual time on the calling thread, from the same instant for every input.
void BeginVirtualTime();
void EndVirtualTime();
void AdvanceVirtualTime(std::chrono::nanoseconds delay);

}  // namespace orqfuzz
