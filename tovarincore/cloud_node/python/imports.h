// The import statements, through the __import__ that the built-ins hold at that moment.
#pragma once

#include "object.h"

#include <initializer_list>

namespace py {

// import module
Object import_module(Name module, CallSite site = CallSite::here());

// from module import name
Object import_from(Name module, Name name, CallSite site = CallSite::here());

// from module import a, b, c, in two steps as the statement takes them: the module once, then each name.
Object import_for_names(Name module, std::initializer_list<Name> names, CallSite site = CallSite::here());
Object name_of_module(Handle module, Name name, CallSite site = CallSite::here());

} // namespace py
