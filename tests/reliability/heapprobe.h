// SPDX-License-Identifier: LGPL-2.1-or-later
// Counts heap allocations of the whole process, for tests that prove a path
// allocates nothing and that repeated cycles give back what they take.
//
// Under AddressSanitizer or ThreadSanitizer the sanitizer's allocator hooks do
// the counting; in a plain build malloc and friends are replaced by counting
// wrappers around the C library's own allocator. Either way every allocation
// counts, whoever makes it: the library, Qt, the C++ runtime, the simulated
// camera.
#ifndef KAVREL_TESTS_HEAPPROBE_H
#define KAVREL_TESTS_HEAPPROBE_H

struct HeapCount {
    long long allocations; // calls that handed out a block
    long long liveBlocks;  // blocks handed out and not yet freed
    long long liveBytes;   // their usable size in bytes
};

HeapCount heapCount();

// Makes every allocation of at least `bytes` bytes fail (0: none), where the
// counting wrappers are in charge; heapCanFail() says whether they are.
void failAllocationsFrom(unsigned long bytes);
bool heapCanFail();

#endif
