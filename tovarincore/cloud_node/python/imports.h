// The import statements, through the __import__ that the built-ins hold at that moment.
#pragma once

#include "object.h"

#include <initializer_list>

namespace py {

void open_imports(); // called by open_module()

// import module
Object import_module(Name module, Where where = Where::here());

// from module import name
Object import_from(Name module, Name name, Where where = Where::here());

// from module import a, b, c, in two steps as the statement takes them: the module once, then each name.
Object import_for_names(Name module, std::initializer_list<Name> names, Where where = Where::here());
Object name_of_module(Handle module, Name name, Where where = Where::here());

} // namespace py
