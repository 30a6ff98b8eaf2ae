#pragma once
// Large heap pages for the run's memory, where the system lends them on
// request. Call first thing in main, before any thread or input.

namespace Vorpa {

// Starts the program again (same executable, arguments, descriptors and
// process) with glibc asked to back its heaps with transparent huge pages,
// when that helps and nobody chose otherwise: the system lends them on
// request (madvise mode) and GLIBC_TUNABLES is unset (set, it is the user's
// choice, or this is the restarted program). Under a tool that replaces the
// allocator (valgrind preloads its own) nothing is done. Returns when the
// program goes on as it is.
void RestartWithHugeHeapPages(char** argv);

}  // namespace Vorpa
