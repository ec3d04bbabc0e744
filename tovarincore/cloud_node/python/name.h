// "name"_s: an interned Python string, made once when the module starts and kept for the life of the process.
#pragma once

#include "attribute_cache.h"

#include <cstddef>

namespace py {

// One per distinct literal. Constructed when the library is loaded, before the interpreter may be used; hence the list,
// which intern_all() walks when the module starts.
class NameSlot {
public:
    explicit NameSlot(const char* text) : text_(text), next_(first_) { first_ = this; }

    PyObject* ptr() const { return interned_; }
    const char* text() const { return text_; }
    AttributeCache& cache() const { return cache_; }
    GlobalCache& global_cache() const { return global_cache_; }

    static void intern_all(); // throws Raised

private:
    const char* text_;
    NameSlot* next_;
    PyObject* interned_ = nullptr;
    mutable AttributeCache cache_;
    mutable GlobalCache global_cache_;
    static inline NameSlot* first_ = nullptr;
};

template <std::size_t N> struct NameText {
    char characters[N];

    consteval NameText(const char (&text)[N])
    {
        for (std::size_t i = 0; i < N; ++i)
            characters[i] = text[i];
    }
};

template <NameText Text> struct NameOf {
    static inline NameSlot slot{Text.characters};
};

// A reference to an interned string; costs one load.
class Name {
public:
    constexpr Name(const NameSlot& slot) : slot_(&slot) {}
    PyObject* ptr() const { return slot_->ptr(); }
    const char* text() const { return slot_->text(); }
    AttributeCache& cache() const { return slot_->cache(); } // for attributes of this name
    GlobalCache& global_cache() const { return slot_->global_cache(); }

private:
    const NameSlot* slot_;
};

inline namespace literals {
template <NameText Text> Name operator""_s() { return NameOf<Text>::slot; }
} // namespace literals

} // namespace py
