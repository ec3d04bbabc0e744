// List, dict, tuple and number literals, and joined texts.
#pragma once

#include "errors.h"

namespace py {

struct Entry {
    Argument key;
    Argument value;
};

Object list(Arguments elements, Where where = Where::here());                   // [a, b]
Object tuple(Arguments elements, Where where = Where::here());                  // (a, b)
Object dict(std::initializer_list<Entry> entries, Where where = Where::here()); // {k: v, ...}, in order
Object concat(Arguments parts, Where where = Where::here());                    // a + b + c
Object formatted(Handle text, Handle value, Where where = Where::here());       // f"text{value}"
Object number(long value, Where where = Where::here());                         // 3
void append(Handle new_list, Handle element, Where where = Where::here());      // for a list made here: an exact list

} // namespace py
