#include "lock.h"

#include "layout.h"
#include "recursion.h"

namespace py {

namespace {

#if PY_VERSION_HEX < 0x030B0000

enum class Knowledge : std::uint8_t { none_yet, layout_is_known, layout_is_unknown };

Knowledge knowledge = Knowledge::none_yet;
PyTypeObject* lock_type = nullptr;

// What acquire() does first: it takes a free lock without waiting.
bool take_if_free(PyObject* lock)
{
    auto* self = reinterpret_cast<layout::LockObject*>(lock);
    if (PyThread_acquire_lock_timed(self->lock, 0, 0) != PY_LOCK_ACQUIRED)
        return false;
    self->locked = 1;
    return true;
}

// Tries the layout on a lock of our own: taken here, it has to show itself as taken, once.
void find_out()
{
    Object made = steal(PyImport_ImportModule("_thread")).call("allocate_lock"_s, {});
    bool fits = Py_TYPE(made.ptr())->tp_basicsize == sizeof(layout::LockObject) && take_if_free(made.ptr()) &&
                made.call("locked"_s, {}).is(true_()) && !take_if_free(made.ptr());
    lock_type = Py_TYPE(made.ptr()); // lives as long as its module
    knowledge = fits ? Knowledge::layout_is_known : Knowledge::layout_is_unknown;
}

bool is_built_in(Handle lock)
{
    if (knowledge == Knowledge::none_yet)
        find_out();
    return Py_IS_TYPE(lock.ptr(), lock_type) && knowledge == Knowledge::layout_is_known;
}

#else

bool is_built_in(Handle) { return false; }
bool take_if_free(PyObject*) { return false; }

#endif

} // namespace

bool acquire(Handle lock, Where where)
{
    // Near the recursion limit acquire() itself would fail. It must fail here too: release(), called at the same depth,
    // would, and leave the lock taken for ever.
    if (!enter_native_call())
        throw Raised{where};
    bool taken = is_built_in(lock) && take_if_free(lock.ptr());
    leave_native_call();
    if (taken)
        return true;
    return lock.call("acquire"_s, {"timeout"_k = number(3)}, where).truthy(where);
}

} // namespace py
