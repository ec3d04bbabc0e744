// Loaded before the C library (LD_PRELOAD): malloc fails when a given library asks for memory, at a given call. The
// tests let the allocations of the module's own C++ fail with it, which the interpreter's hooks do not reach.
#include <cerrno>
#include <cstddef>
#include <cstdint>

// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's own name
extern "C" void* __libc_malloc(std::size_t size);

namespace {

std::uintptr_t library_begin = 0, library_end = 0;
long first = -1, last = 0; // calls of the library to fail, counted from 0; `last` is behind them, or 0 for no end
long calls = 0, failed = 0;

} // namespace

extern "C" {

[[gnu::visibility("default")]] void fail_allocations_of(std::size_t begin, std::size_t end, long start, long stop)
{
    library_begin = begin;
    library_end = end;
    first = start;
    last = stop;
    calls = 0;
}

[[gnu::visibility("default")]] long failed_allocations() { return failed; }

[[gnu::visibility("default"), gnu::noinline]] void* malloc(std::size_t size)
{
    auto caller = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
    if (first >= 0 && caller >= library_begin && caller < library_end) {
        long call = calls++;
        if (call >= first && (last == 0 || call < last)) {
            ++failed;
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(size);
}
}
