// The module's own names: its dictionary and the built-ins, looked up as a Python module looks them up.
#pragma once

#include "object.h"

#include <initializer_list>

namespace py {

// The dictionary of the module being defined. Borrowed: the module lives until the process ends.
Handle module_dictionary();

// The dictionary of the built-ins. Borrowed as well.
Handle builtin_dictionary();

// To be called first when the module starts: keeps its dictionary and the interpreter's built-ins.
void open_module(Handle module);

// name                    (the module's dictionary, then the built-ins, then NameError), at each call: tests replace
// names
Object global(Name name, CallSite site = CallSite::here());
void set_global(Name name, Handle value, CallSite site = CallSite::here());

// The same for another module: its dictionary, then the built-ins, then NameError.
Object global_of(Handle module_names, Name name, CallSite site);

// A built-in that the module resolved once, when it started. Borrowed.
Handle kept_builtin(Name name);
void keep_builtins(std::initializer_list<Name> names); // NameError for a missing one

// isinstance(object, class), len(object), str(object), by what stands under these names
bool is_instance(Handle object, Handle type, CallSite site = CallSite::here());
Py_ssize_t len(Handle object, CallSite site = CallSite::here());
Object str(Handle object, CallSite site = CallSite::here());

} // namespace py
