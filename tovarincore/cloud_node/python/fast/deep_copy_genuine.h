// The interpreter's own copy.deepcopy: kept when the module starts, and watched, because a program may replace any part
// of it. As long as nothing differs from how the interpreter comes, the native copy gives the same result without it.
#pragma once

#include "../object.h"

#include <array>

namespace py::fast {

// Whether the module's `deepcopy` is the interpreter's own function. One that was already replaced in the module `copy`
// when our module was imported is not.
bool is_genuine_deepcopy(Handle function);

// Whether copy, copyreg and the built-ins that deepcopy calls are as the interpreter has them.
bool deepcopy_is_untouched();

// copyreg.dispatch_table: the reducers that programs register for their types
Handle reducer_table();

// Whether this is the metaclass of the module enum; whether members of enumerations are copied by these functions of
// that module; and whether nobody has put other code into them. On 3.10 they are EnumMeta.__call__, Enum.__new__ and
// Enum.__reduce_ex__, which find a member by its value, later Enum.__deepcopy__.
inline constexpr std::size_t enumeration_functions = PY_VERSION_HEX < 0x030B0000 ? 3 : 1;
bool is_enumeration_metaclass(PyTypeObject* metatype);
bool enumerations_are_made_by(const std::array<PyObject*, enumeration_functions>& functions);
bool enumerations_are_untouched();

// deepcopy(value, memo)
Object genuine_deepcopy(Handle value, Handle memo, CallSite site);

// _keep_alive(value, memo), by what the module `copy` now has under the name
void keep_alive_by_name(Handle value, Handle memo, CallSite site);

} // namespace py::fast
