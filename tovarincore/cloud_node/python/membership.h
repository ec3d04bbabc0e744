// `key in dict` and then `dict[key]`, with one search where nobody could notice.
#pragma once

#include "layout.h"
#include "object.h"

namespace py {

// Then a search for a text runs no Python code, and one that is left out shows nowhere. For exact dictionaries.
bool has_text_keys_only(PyObject* dict);

// The answer to `key in container`, with the value that was found on the way.
class Membership {
public:
    Membership(Handle container, Handle key, Where where = Where::here());

    explicit operator bool() const { return is_member_; }

    // container[key], which may be other ones or have changed meanwhile
    Object item(Handle container, Handle key, Where where = Where::here()) const;

private:
    Object key_;
    bool is_member_ = false;
    PyObject* value_ =
        nullptr; // borrowed, as long as the dictionary has this version; null where it has to be searched
    std::uint64_t version_ = 0;
};

} // namespace py
