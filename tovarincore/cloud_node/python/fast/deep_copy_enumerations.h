// Members of enumerations, which are their own copies as long as the enum module is as it comes.
#pragma once

#include "deep_copy_types.h"

namespace py::fast {

// A class of the enum module whose members copy as that module has them do. `members`: see CopyPlan.
bool is_plain_enumeration(PyTypeObject* type, PyObject*& members);

// Whether deepcopy would find this member of such a class to be its own copy.
bool is_own_copy(PyObject* member, CopyPlan& plan);

// Whether deepcopy makes it again from its value, through the memo, and so finds it; and that value, borrowed.
inline constexpr bool members_are_made_from_values = PY_VERSION_HEX < 0x030B0000;
PyObject* value_of_member(PyObject* member);

} // namespace py::fast
