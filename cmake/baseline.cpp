// Keeps the module loadable where the C library is older than the one it was built with, and small.

#include <Python.h>

// A static libstdc++ asks a C library of 2.32 or later whether the process has one thread, to save atomic operations.
// This answer, "it may have more", is always right, and it is the module's own: no other program sees it.
extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the C library's
[[gnu::visibility("hidden"), gnu::used]] char __libc_single_threaded = 0;
}

// What a static libstdc++ does where an exception gets out of where none may. Its own brings along all that puts names
// of C++ types into words, which an import would have to relocate.
// NOLINTBEGIN(bugprone-reserved-identifier): the names are libstdc++'s
namespace __gnu_cxx {
[[gnu::visibility("hidden"), gnu::used, noreturn]] void __verbose_terminate_handler()
{
    Py_FatalError("tovarincore.cloud_node: an exception of C++ was not caught");
}
} // namespace __gnu_cxx
// NOLINTEND(bugprone-reserved-identifier)
