// List, dict, tuple and number literals, and joined texts.
#pragma once

#include "errors.h"

namespace py {

struct Entry {
    Argument key;
    Argument value;
};

Object list(Arguments elements, CallSite site = CallSite::here());                   // [a, b]
Object tuple(Arguments elements, CallSite site = CallSite::here());                  // (a, b)
Object dict(std::initializer_list<Entry> entries, CallSite site = CallSite::here()); // {k: v, ...}, in order
Object concat(Arguments parts, CallSite site = CallSite::here());                    // a + b + c
Object formatted(Handle text, Handle value, CallSite site = CallSite::here());       // f"text{value}"
Object number(long value, CallSite site = CallSite::here());                         // 3
void append(Handle new_list, Handle element, CallSite site = CallSite::here()); // for a list made here: an exact list

} // namespace py
