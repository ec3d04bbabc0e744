#include "deep_copy.h"

#include "builders.h"
#include "deep_copy_general.h"
#include "deep_copy_genuine.h"
#include "deep_copy_plain.h"
#include "globals.h"

namespace py {

Object deep_copy(Handle value, Where where)
{
    Object function = global("deepcopy"_s, where);
    if (!layout::known || !is_genuine_deepcopy(function) || !deepcopy_is_untouched())
        return call(function, {value}, where);
    {
        PlainCopy attempt;
        PyObject* made = attempt.copy(value.ptr());
        if (made != nullptr)
            return adopt(made);
        if (PyErr_Occurred())
            throw Raised{where};
    }
    return GeneralCopy(dict({}, where), where).copy(value);
}

} // namespace py
