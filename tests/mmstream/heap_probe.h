// Bytes of heap in use, to see whether a buffer handed to a stream was released.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
// From the AddressSanitizer runtime's allocator interface.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
inline size_t HeapBytesInUse() {
    return __sanitizer_get_current_allocated_bytes();
}
#else
#include <malloc.h>
inline size_t HeapBytesInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif

// Large enough to stand out from the test framework's own allocations.
inline constexpr long kProbeBytes = 256 * 1024;
