// What was found under one name of the source the last time. One for each name that is used more than once.
#pragma once

#include "attribute_cache.h"
#include "class_attribute_cache.h"

namespace py::fast {

// What a global name stood for, as long as neither the module's dictionary nor the built-ins change.
struct GlobalMemory {
    std::uint64_t module_version = 0;
    std::uint64_t builtins_version = 0;
    PyObject* value = nullptr; // held by the dictionary in which it was found
};

struct NameMemory {
    AttributeCache attribute;
    ClassAttributeCache class_attribute;
    GlobalMemory global;
};

// What is known of a name that was not looked up yet, and of one that was looked up once: most are, at import.
inline constinit NameMemory nothing_known{}, nothing_kept{};

// A name's own part of it.
class MemoryOfName {
public:
    const NameMemory& known() const { return *memory_; }

    // Where to keep what was found; null where nothing must be kept, or there is no memory for it, which must not fail
    // a look-up.
    NameMemory* own() const;

    // The same, but null at the first time.
    NameMemory* to_fill() const
    {
        if (memory_ != &nothing_known)
            return own();
        memory_ = &nothing_kept;
        return nullptr;
    }

private:
    mutable NameMemory* memory_ = &nothing_known;
};

} // namespace py::fast
