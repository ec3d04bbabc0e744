#include "lock.h"

#include "layout.h"
#include "recursion.h"

#include <cstring>

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

// What release() does with a lock that is taken.
bool give_back_if_taken(PyObject* lock)
{
    auto* self = reinterpret_cast<layout::LockObject*>(lock);
    if (self->locked == 0)
        return false;
    PyThread_release_lock(self->lock);
    self->locked = 0;
    return true;
}

// The interpreter's own class of locks, whose methods nobody can replace.
bool is_lock_class(PyTypeObject* type)
{
    return std::strcmp(type->tp_name, "_thread.lock") == 0 && PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE) &&
           type->tp_basicsize == sizeof(layout::LockObject);
}

// Tries the layout on a lock of our own: taken here, it has to show itself as taken, once. No import statement stands
// for this: a program may watch those.
void find_out()
{
    Handle module = borrow(PyImport_AddModule("_thread"));
    check(module ? 0 : -1);
    Object made = module.call("allocate_lock"_s, {});
    bool fits = is_lock_class(Py_TYPE(made.ptr())) && take_if_free(made.ptr()) &&
                made.call("locked"_s, {}).is(true_()) && !take_if_free(made.ptr()) && give_back_if_taken(made.ptr()) &&
                made.call("locked"_s, {}).is(false_()) && !give_back_if_taken(made.ptr());
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
bool give_back_if_taken(PyObject*) { return false; }

#endif

} // namespace

bool acquire(Handle lock, Where where)
{
    // Near the recursion limit acquire() itself would fail. It must fail here too: release(), called at the same depth,
    // would, and leave the lock taken for ever.
    NativeCall call;
    if (!call.enter())
        throw Raised{where};
    bool taken = is_built_in(lock) && take_if_free(lock.ptr());
    call.leave();
    if (taken)
        return true;
    return lock.call("acquire"_s, {"timeout"_k = number(3)}, where).truthy(where);
}

// The recursion limit, which acquire() has passed at the same depth, is not asked again.
void release(Handle lock, Where where)
{
    if (!is_built_in(lock) || !give_back_if_taken(lock.ptr()))
        lock.call("release"_s, {}, where);
}

} // namespace py
