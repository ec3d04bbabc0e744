// deepcopy(value), as fast as the interpreter allows.
#pragma once

#include "object.h"

namespace py {

// deepcopy(value)        with the module's own name `deepcopy`, which a test may replace
//
// While that is the interpreter's own function, the copy is made here: with the same result, the same aliasing and the
// same errors, hooks included. Only the call stack of hooks differs.
Object deep_copy(Handle value, Where where = Where::here());

} // namespace py
