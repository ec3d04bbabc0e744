// Which look-ups run no Python code: those in dictionaries that have texts only for keys. In any other one, a key's own
// __eq__ may be called, and with it anything.
#pragma once

#include "layout.h"

namespace py::fast {

void open_quiet_lookups(); // once, when the module starts

// Searching this exact dictionary for a text runs no code.
bool has_text_keys_only(PyObject* dict);

// Looking a text up in the class and its bases runs no code.
bool is_quiet_class(PyTypeObject* type);

} // namespace py::fast
