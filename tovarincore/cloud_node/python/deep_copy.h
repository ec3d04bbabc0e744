// deepcopy(value), as fast as the interpreter allows.
#pragma once

#include "object.h"

namespace py {

// To be called once `deepcopy` is bound in the module. One that was already replaced in the module `copy` by then is
// not the interpreter's own.
void deepcopy_is_bound();

// deepcopy(value)        with the module's own name `deepcopy`, which a test may replace
//
// While that is the interpreter's own function, the fast half makes the copy: with the same result, the same aliasing
// and the same errors, hooks included. Only the call stack of hooks differs.
Object deep_copy(Handle value, CallSite site = CallSite::here());

// Between a copy and what drops older records: the collection that was held off meanwhile. Left to a finaliser's frame,
// it takes so long there that an interrupt lands in the finaliser, which swallows it.
inline void collect_before_dropping(CallSite site = CallSite::here())
{
    fast::collect_what_is_due();
    checkpoint(site);
}

} // namespace py
