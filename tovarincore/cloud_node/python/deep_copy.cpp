#include "deep_copy.h"

#include "builders.h"
#include "deep_copy_general.h"
#include "deep_copy_genuine.h"
#include "deep_copy_plain.h"
#include "globals.h"

namespace py {

namespace {

// Empty where something else than plain data was met.
Object plain_copy(Handle value, Where where)
{
    ready_copy_names();
    PyObject* made = PlainCopy().copy(value.ptr());
    if (made == nullptr && PyErr_Occurred())
        throw Raised{where};
    return adopt(made);
}

} // namespace

Object deep_copy(Handle value, Where where)
{
    Object function = global("deepcopy"_s, where);
    if (!layout::known || !is_genuine_deepcopy(function) || !deepcopy_is_untouched())
        return function({value}, where);
    Object made = plain_copy(value, where);
    if (!made)
        made = GeneralCopy(dict({}, where), where).copy(value);
    checkpoint(where); // a large copy takes its time, and what comes next may run a finaliser
    return made;
}

} // namespace py
