// "name"_s: an interned Python string, made at its first use and kept for the life of the process.
#pragma once

#include "attribute_cache.h"
#include "class_attribute_cache.h"

#include <cstddef>
#include <utility>

namespace py {

// What was found under one name of the source the last time.
struct NameCaches {
    AttributeCache attribute;
    ClassAttributeCache class_attribute;
    GlobalCache global;
    PyObject* keyword_names = nullptr; // the tuple of the last call whose first keyword was this name; or null
};

// What is known of a name that was not looked up yet.
inline constinit NameCaches nothing_known{};

// One per distinct literal, laid out by the compiler: loading the library runs no code for it.
class NameSlot {
public:
    explicit constexpr NameSlot(const char* text) : text_(text) {}

    PyObject* ptr() const // throws Raised when the string cannot be made
    {
        if (interned_ == nullptr) [[unlikely]]
            intern();
        return interned_;
    }

    const char* text() const { return text_; }
    const NameCaches& caches() const { return *caches_; }

    // Where to keep what was found; null where there is no memory for it, which must not fail a look-up.
    NameCaches* own_caches() const;

    // The same, but null at the first time: most names are looked up once, at import.
    NameCaches* caches_to_fill() const { return std::exchange(used_, true) ? own_caches() : nullptr; }

private:
    void intern() const;

    const char* text_;
    mutable PyObject* interned_ = nullptr;
    mutable NameCaches* caches_ = &nothing_known;
    mutable bool used_ = false;
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
    static inline constinit NameSlot slot{Text.characters};
};

// A reference to an interned string; costs one load and one comparison.
class Name {
public:
    constexpr Name(const NameSlot& slot) : slot_(&slot) {}
    PyObject* ptr() const { return slot_->ptr(); }
    const char* text() const { return slot_->text(); }
    const NameSlot& slot() const { return *slot_; }
    const NameCaches& caches() const { return slot_->caches(); }
    NameCaches* own_caches() const { return slot_->own_caches(); }
    NameCaches* caches_to_fill() const { return slot_->caches_to_fill(); }

private:
    const NameSlot* slot_;
};

inline namespace literals {
template <NameText Text> constexpr Name operator""_s() { return NameOf<Text>::slot; }
} // namespace literals

} // namespace py
