// The interpreter's own copy.deepcopy: kept when the module starts, and watched, because a program may replace any part
// of it. As long as nothing differs from how the interpreter comes, the native copy gives the same result without it.
#pragma once

#include "object.h"

namespace py {

// To be called once `deepcopy` is bound in the module.
void keep_genuine_deepcopy();

// Whether the module's `deepcopy` is the interpreter's own function. One that was already replaced in the module `copy`
// when our module was imported is not.
bool is_genuine_deepcopy(Handle function);

// Whether copy, copyreg and the built-ins that deepcopy calls are as the interpreter has them.
bool deepcopy_is_untouched();

// copyreg.dispatch_table: the reducers that programs register for their types
Handle reducer_table();

// deepcopy(value, memo)
Object genuine_deepcopy(Handle value, Handle memo, Where where);

// copy._keep_alive(value, memo)
void genuine_keep_alive(Handle value, Handle memo, Where where);

} // namespace py
