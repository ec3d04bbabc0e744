// The interpreter's own lock, through its own methods but without packing arguments for them. Runs no Python code.
#pragma once

#include "fast_hooks.h"

namespace py {

bool is_built_in_lock(PyObject* lock); // one that was taken by the following, at least once

// lock.acquire(), which takes a free lock at once, and lock.release(). `unknown` says that the lock is of another
// class, and `no` that it is not free, or that releasing it failed, with an error set.
fast::Answer acquire_built_in(PyObject* lock);
fast::Answer release_built_in(PyObject* lock);

} // namespace py
