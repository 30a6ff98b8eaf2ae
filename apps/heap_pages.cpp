// Why: the run's memory is mostly records on their way from the reader to the
// writer, each page touched first by one of them. Every first touch of a
// 4 KiB page is a fault, costly on any machine and most of all in virtual
// machines; with 2 MiB pages there are 512 times fewer (on the 80-base kit,
// 7,200 faults became 2,900 and the run took about a seventh less processor
// time). glibc uses them for its heaps only when its tunable says so, and it
// reads tunables once, when the process starts: hence the restart.

#include "apps/heap_pages.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace Vorpa {

namespace {

constexpr const char* kTunables = "GLIBC_TUNABLES";
// Freed memory is kept rather than given back (trim) and large blocks come
// from the heap rather than each from its own mapping (mmap): a page given
// back is a fresh page, cleared and faulted again, at its next use.
constexpr const char* kHugeHeapPages =
    "glibc.malloc.hugetlb=1:glibc.malloc.trim_threshold=268435456:glibc.malloc.mmap_threshold=33554432";

// In "always" mode the heaps get them without asking; in "never" mode asking
// does nothing. Only "madvise" makes the restart worth it.
bool LentOnRequest() {
    std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
    const std::string modes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return modes.find("[madvise]") != std::string::npos;
}

bool UnderValgrind() {
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::string_view(preload).find("vgpreload") != std::string_view::npos;
}

}  // namespace

void RestartWithHugeHeapPages(char** argv) {
    if (std::getenv(kTunables) != nullptr || UnderValgrind() || !LentOnRequest()) return;
    if (setenv(kTunables, kHugeHeapPages, 1) != 0) return;
    execv("/proc/self/exe", argv);
    unsetenv(kTunables);  // the restart failed: go on as before
}

}  // namespace Vorpa
