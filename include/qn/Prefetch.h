#pragma once

// Memory hints for loops that walk many scattered records and know a few iterations ahead what
// they will read: asking early lets the fetches overlap instead of waiting for each in turn.

#include <cstddef>

namespace qn {

/// Asks the memory for the first and the last cache line of the `size` bytes at `data` (a
/// record of up to two lines; for longer text the lines between are left to the processor's own
/// next-line prefetcher: asking for every line queues more requests than it saves here). A hint:
/// it reads and changes nothing, and costs little when the lines are already at hand. Any thread.
inline void prefetchRange(const void* data, std::size_t size) noexcept {
    if (data == nullptr || size == 0) {
        return;
    }
    const char* bytes = static_cast<const char*>(data);
    __builtin_prefetch(bytes);
    __builtin_prefetch(bytes + size - 1);
}

}  // namespace qn
