#include "lock.h"

#include "layout.h"
#include "recursion.h"

#include <cstring>

namespace py {

namespace {

#if PY_VERSION_HEX < 0x030B0000

PyTypeObject* lock_type = nullptr; // found to keep its state as said in layout.h; kept for the life of the process

char& state_of(PyObject* lock) { return reinterpret_cast<layout::LockObject*>(lock)->locked; }

// What acquire() does first: it takes a free lock without waiting.
bool take_if_free(PyObject* lock)
{
    if (PyThread_acquire_lock_timed(reinterpret_cast<layout::LockObject*>(lock)->lock, 0, 0) != PY_LOCK_ACQUIRED)
        return false;
    state_of(lock) = 1;
    return true;
}

// What release() does with a lock that is taken.
bool give_back_if_taken(PyObject* lock)
{
    if (state_of(lock) == 0)
        return false;
    PyThread_release_lock(reinterpret_cast<layout::LockObject*>(lock)->lock);
    state_of(lock) = 0;
    return true;
}

bool is_built_in(PyObject* lock) { return Py_IS_TYPE(lock, lock_type); }

// The interpreter's own class of locks, whose methods nobody can replace.
bool may_be_built_in(PyTypeObject* type)
{
    return std::strcmp(type->tp_name, "_thread.lock") == 0 && PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE) &&
           type->tp_basicsize == sizeof(layout::LockObject);
}

// Watches one ordinary acquire(): it has to show in the state. So no lock needs to be made, which a program could see.
class Lesson {
public:
    explicit Lesson(PyObject* lock) : lock_(lock), was_free_(may_be_built_in(Py_TYPE(lock)) && state_of(lock) == 0) {}

    void end(bool taken)
    {
        if (taken && was_free_ && state_of(lock_) == 1)
            lock_type =
                reinterpret_cast<PyTypeObject*>(Object(borrow(reinterpret_cast<PyObject*>(Py_TYPE(lock_)))).release());
    }

private:
    PyObject* lock_;
    bool was_free_;
};

#else

bool is_built_in(PyObject*) { return false; }
bool take_if_free(PyObject*) { return false; }
bool give_back_if_taken(PyObject*) { return false; }

class Lesson {
public:
    explicit Lesson(PyObject*) {}
    void end(bool) {}
};

#endif

} // namespace

bool acquire(Handle lock, Where where)
{
    "release"_s.ptr(); // a lock that is taken must be given back also where there is no memory left
    // Near the recursion limit acquire() itself would fail. It must fail here too: release(), called at the same depth,
    // would, and leave the lock taken for ever.
    NativeCall call;
    if (!call.enter())
        throw Raised{where};
    bool was_free = is_built_in(lock.ptr()) && take_if_free(lock.ptr());
    call.leave();
    if (was_free)
        return true;
    Lesson lesson(lock.ptr());
    bool taken = lock.method("acquire"_s, where)({"timeout"_k = number(3)}, where).truthy(where);
    lesson.end(taken);
    return taken;
}

// The recursion limit, which acquire() has passed at the same depth, is not asked again.
void release(Handle lock, Where where)
{
    if (!is_built_in(lock.ptr()) || !give_back_if_taken(lock.ptr()))
        lock.method("release"_s, where)(where);
}

} // namespace py
