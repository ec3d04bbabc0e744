// The native deep copy: first the way that runs no code, then, where that gives up, the way with hooks.
#include "../builders.h"
#include "deep_copy_general.h"
#include "deep_copy_genuine.h"
#include "deep_copy_plain.h"
#include "runtime.h"

namespace py::fast {

namespace {

// Empty where something else than plain data was met.
Object plain_copy(Handle value, CallSite site)
{
    ready_copy_names();
    PyObject* made = PlainCopy().copy_all(value.ptr());
    if (made == nullptr && PyErr_Occurred())
        throw Raised{site};
    return adopt(made);
}

// Python's copy collects while it runs, early and little at a time. What is garbage already goes before a long copy, in
// a short collection: its finalisers would lose an interrupt that comes during the long one behind the copy.
void collect_before_many(Handle value, CallSite site)
{
    if (!PyList_CheckExact(value.ptr()) || !runtime::bring_collection_forward(PyList_GET_SIZE(value.ptr())))
        return;
    collect_what_is_due();
    checkpoint(site);
}

} // namespace

void collect_what_is_due()
{
    if (!runtime::collection_is_due())
        return;
    constexpr Py_ssize_t more_than_is_kept_free = 32; // only newly allocated memory counts
    PyObject* container = PyTuple_New(more_than_is_kept_free);
    if (container == nullptr)
        PyErr_Clear(); // whoever needs memory next says so
    Py_XDECREF(container);
}

Object deep_copy(const Handle& function, const Handle& value, const CallSite& site)
{
    if (!is_genuine_deepcopy(function))
        return {};
    collect_before_many(value, site);
    if (!deepcopy_is_untouched())
        return {};
    Object made = plain_copy(value, site);
    checkpoint(site);
    return made ? made : GeneralCopy(dict({}, site), site).copy(value);
}

} // namespace py::fast
