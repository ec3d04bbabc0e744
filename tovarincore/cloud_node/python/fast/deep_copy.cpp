// The native deep copy: first the way that runs no code, then, where that gives up, the way with hooks.
#include "../builders.h"
#include "deep_copy_general.h"
#include "deep_copy_genuine.h"
#include "deep_copy_plain.h"

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

} // namespace

Object deep_copy(const Handle& function, const Handle& value, const CallSite& site)
{
    if (!layout::known || !is_genuine_deepcopy(function) || !deepcopy_is_untouched())
        return {};
    Object made = plain_copy(value, site);
    return made ? made : GeneralCopy(dict({}, site), site).copy(value);
}

} // namespace py::fast
