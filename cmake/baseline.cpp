// Keeps the module loadable where the C library is older than the one it was built with.

// A static libstdc++ asks a C library of 2.32 or later whether the process has one thread, to save atomic operations.
// This answer, "it may have more", is always right, and it is the module's own: no other program sees it.
extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the C library's
[[gnu::visibility("hidden"), gnu::used]] char __libc_single_threaded = 0;
}
