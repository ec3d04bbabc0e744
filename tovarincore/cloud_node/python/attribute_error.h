// What the interpreter's look-up tells an AttributeError on its way, so that it can suggest another name.
#pragma once

#include "object.h"

namespace py {

// To be called with an error set, as the look-up of object.name leaves it.
void tell_whose_it_is(Handle name, Handle object);

} // namespace py
