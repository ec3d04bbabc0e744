// "name"_s: an interned Python string, made at its first use and kept for the life of the process.
#pragma once

#include "fast_hooks.h"

#include <cstddef>
#include <utility>

namespace py {

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
    const fast::MemoryOfName& memory() const { return memory_; }

private:
    void intern() const;

    const char* text_;
    mutable PyObject* interned_ = nullptr;
    [[no_unique_address]] fast::MemoryOfName memory_;
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
    const fast::MemoryOfName& memory() const { return slot_->memory(); }

private:
    const NameSlot* slot_;
};

inline namespace literals {
template <NameText Text> constexpr Name operator""_s() { return NameOf<Text>::slot; }
} // namespace literals

} // namespace py
