// Owning and borrowed references to Python objects, and the operations every room uses on them.
//
// Rules of use
//   1. A local variable is always an Object:          Object node = self.get("node"_s);
//   2. A parameter is a Handle, a result an Object:   Object name_of(Handle node);
//      (a Handle that outlives the Object behind it dangles: never `Handle h = o.get(...)`)
//   3. Raw pointers enter by steal(p) or borrow(p) and leave by release(); there is no implicit way.
//   4. Every operation either succeeds or throws Raised with the interpreter's error indicator set.
//
// A call reads as in Python, and is evaluated in Python's order: what is called first, then the arguments, which stand
// in braces, from left to right.
//      f(a, k=b)          f({a, "k"_k = b})
//      o.m(f(x), y)       o.method("m"_s)({f({x}), y})
#pragma once

#include "call_site.h"
#include "comparing.h"
#include "interpreter.h"
#include "name.h"

#include <concepts>
#include <initializer_list>
#include <utility>

namespace py {

// The error indicator is set; `where` is the statement that failed. `traced` once the traceback shows that statement.
struct Raised {
    CallSite site;
    bool traced = false;

    // except error_class:        with the interpreter's TypeError where that is no class of errors, nor a tuple of them
    bool matches(class Handle error_class, CallSiteInFunction here = CallSiteInFunction::here()) const;
};

class Object;
class Argument;
class MethodOfObject;
using Arguments = std::initializer_list<Argument>;

// Drops the last reference to an object, or parks it while an error is unwinding the stack: its finaliser must not run
// there, for a thread that is ended inside a destructor during that would abort the process.
void drop_last_reference(PyObject* pointer);

struct ParkedObjects {
    static constexpr std::size_t first_size = 30;

    PyObject** begin() { return allocated == nullptr ? first : allocated; }
    bool add(PyObject* pointer);

    std::size_t count = 0;
    std::size_t size = first_size;
    PyObject** allocated = nullptr; // null: `first` serves
    PyObject* first[first_size]{};
};

// Where an error is caught: takes over what its way up the stack has parked, before any code runs there. Drops it at
// the end of the scope, since locals outlive a handler and a `finally` clause.
class Parked {
public:
    Parked();
    ~Parked() noexcept(false);
    Parked(const Parked&) = delete;
    Parked& operator=(const Parked&) = delete;

private:
    ParkedObjects objects_;
};

class Handle {
public:
    constexpr Handle() = default;
    Handle(Name name) : pointer_(name.ptr()) {}
    Handle(int) = delete; // a literal 0 would otherwise become a null pointer

    PyObject* ptr() const { return pointer_; }
    explicit operator bool() const { return pointer_ != nullptr; } // whether there is an object at all; see truthy()

    inline Object get(Name name, CallSite site = CallSite::here()) const;            // self.name
    void set(Name name, Handle value, CallSite site = CallSite::here()) const;       // self.name = value
    Object item(Handle key, CallSite site = CallSite::here()) const;                 // self[key]
    Object item(Py_ssize_t index, CallSite site = CallSite::here()) const;           // self[index]
    Object first(CallSite site = CallSite::here()) const;                            // self[0]
    void set_item(Handle key, Handle value, CallSite site = CallSite::here()) const; // self[key] = value
    void set_item(Py_ssize_t index, Handle value, CallSite site = CallSite::here()) const;
    bool contains(Handle value, CallSite site = CallSite::here()) const;      // value in self
    bool truthy(CallSite site = CallSite::here()) const;                      // if self:
    inline bool equals(Handle other, CallSite site = CallSite::here()) const; // if self == other: (never by identity)
    bool greater(Handle other, CallSite site = CallSite::here()) const;       // if self > other:
    bool is(Handle other) const { return pointer_ == other.pointer_; }
    bool is_none() const { return pointer_ == Py_None; }
    inline Object operator()(CallSite site = CallSite::here()) const; // self()
    template <std::size_t Count>                                      // self(...)
    Object operator()(const Argument (&arguments)[Count], CallSite site = CallSite::here()) const;
    MethodOfObject method(Name name, CallSite site = CallSite::here()) const; // self.name, in self.name(...)

private:
    Object get_remembered(Name name, CallSite site) const;
    Object look_up(Name name, CallSite site) const;
    MethodOfObject look_up_method(Name name, CallSite site) const;
    bool compares_equal(Handle other, CallSite site) const; // where not both are texts

protected:
    explicit constexpr Handle(PyObject* pointer) : pointer_(pointer) {}
    PyObject* pointer_ = nullptr;

    friend Handle borrow(PyObject* pointer);
};

class Object : public Handle {
public:
    constexpr Object() = default;
    explicit Object(Handle other) : Handle(other.ptr()) { Py_XINCREF(pointer_); }
    Object(const Object& other) : Handle(other.pointer_) { Py_XINCREF(pointer_); }
    Object(Object&& other) noexcept : Handle(std::exchange(other.pointer_, nullptr)) {}

    Object& operator=(const Object& other) noexcept(false) { return *this = Object(other); }

    Object& operator=(Object&& other) noexcept(false)
    {
        // The old object is dropped last, when this one is whole again. No stack is unwound through here: the thread
        // is not ending.
        if (PyObject* old = std::exchange(pointer_, other.release()))
            drop(old);
        return *this;
    }

    // May run Python code, in which a daemon thread can be ended by unwinding: hence noexcept(false).
    [[gnu::always_inline]] ~Object() noexcept(false)
    {
        // A daemon thread is ended by unwinding its frames without the GIL: objects must not be touched then.
        if (pointer_ == nullptr || (fast::is_finalising() && thread_is_ending()))
            return;
        drop(pointer_);
    }

    [[nodiscard]] PyObject* release() { return std::exchange(pointer_, nullptr); }

    bool equals(Handle other, CallSite site = CallSite::here()) const& { return Handle::equals(other, site); }
    bool contains(Handle value, CallSite site = CallSite::here()) const& { return Handle::contains(value, site); }
    bool truthy(CallSite site = CallSite::here()) const& { return Handle::truthy(site); }
    Object get(Name name, CallSite site = CallSite::here()) const& { return Handle::get(name, site); }
    Object item(Handle key, CallSite site = CallSite::here()) const& { return Handle::item(key, site); }
    Object item(Py_ssize_t index, CallSite site = CallSite::here()) const& { return Handle::item(index, site); }
    Object first(CallSite site = CallSite::here()) const& { return Handle::first(site); }

    // On a temporary, which is dropped at once, as Python does it: no stack is unwound then, as it may be where a
    // destructor runs, and whether the thread is ending need not be asked.
    bool equals(Handle other, CallSite site = CallSite::here()) && { return compare_and_drop(other, nullptr, site); }
    bool equals(Object&& other, CallSite site = CallSite::here()) && { return compare_and_drop(other, &other, site); }
    bool contains(Handle value, CallSite site = CallSite::here()) &&
    {
        return drop_behind(Handle::contains(value, site));
    }
    bool truthy(CallSite site = CallSite::here()) && { return drop_behind(Handle::truthy(site)); }
    Object get(Name name, CallSite site = CallSite::here()) && // written out: searches ask for it at every turn
    {
        Object value = Handle::get(name, site);
        drop(release());
        return value;
    }
    Object item(Handle key, CallSite site = CallSite::here()) && { return drop_behind(Handle::item(key, site)); }
    Object item(Py_ssize_t index, CallSite site = CallSite::here()) &&
    {
        return drop_behind(Handle::item(index, site));
    }
    Object first(CallSite site = CallSite::here()) && { return drop_behind(Handle::first(site)); }

private:
    struct Owned {};
    Object(Owned, PyObject* pointer) : Handle(pointer) {}

    [[gnu::always_inline]] static void drop(PyObject* pointer)
    {
        if (Py_REFCNT(pointer) > 1) [[likely]]
            Py_DECREF(pointer);
        else
            drop_last_reference(pointer);
    }

    template <class Result> [[gnu::always_inline]] Result drop_behind(Result result)
    {
        drop(release());
        return result;
    }

    [[gnu::always_inline]] void drop_with(Object* other)
    {
        drop(release());
        if (other != nullptr)
            drop(other->release());
    }

    // The truth of the result is asked when the operands are gone.
    bool compare_and_drop(Handle other, Object* other_temporary, CallSite site);
    bool compare_objects_and_drop(Handle other, Object* other_temporary, CallSite site);

    friend Object adopt(PyObject* pointer);
};

inline Handle borrow(PyObject* pointer) { return Handle(pointer); }

// Takes a reference over; null is allowed and gives an empty Object.
inline Object adopt(PyObject* pointer) { return Object(Object::Owned{}, pointer); }

// An API call has failed. Some of the interpreter's do so without an error when there is no memory: MemoryError then.
[[noreturn]] void raise_failure(CallSite site);

// Takes over the new reference that an API call returned; null means that the call failed.
inline Object steal(PyObject* pointer, CallSite site = CallSite::here())
{
    if (pointer == nullptr) [[unlikely]]
        raise_failure(site);
    return adopt(pointer);
}

// For API calls that report failure by a negative number.
inline void check(int status, CallSite site = CallSite::here())
{
    if (status < 0) [[unlikely]]
        throw Raised{site};
}

void do_what_is_due(CallSite site);

// Does what the interpreter does between two instructions of Python: signals, other threads and the exceptions that
// they raise here. To be called after whatever may take long without running Python code, inside the body that holds a
// lock. Else the next Python code would be interrupted in its stead, which may be the lock's release, or a finaliser.
inline void checkpoint(CallSite site = CallSite::here())
{
    if (fast::something_is_due()) [[unlikely]]
        do_what_is_due(site);
}

Object Handle::get(Name name, CallSite site) const
{
    if constexpr (fast::is_on)
        return get_remembered(name, site);
    else
        return steal(fast::general_attribute(name.memory(), name.ptr(), pointer_), site);
}

[[gnu::always_inline]] inline bool Handle::equals(Handle other, CallSite site) const
{
    if (are_plain_texts(pointer_, other.pointer_)) [[likely]]
        return is_same_text(pointer_, other.pointer_);
    return compares_equal(other, site);
}

[[gnu::always_inline]] inline bool Object::compare_and_drop(Handle other, Object* other_temporary, CallSite site)
{
    if (are_plain_texts(pointer_, other.ptr())) [[likely]] {
        bool same = is_same_text(pointer_, other.ptr());
        drop_with(other_temporary);
        return same;
    }
    return compare_objects_and_drop(other, other_temporary, site);
}

// "name"_k = value: an argument passed by keyword.
struct Keyword {
    Name name;
    Handle value;
};

struct KeywordName {
    Name name;
    Keyword operator=(Handle value) const { return {name, value}; }
};

inline namespace literals {
template <NameText Text> KeywordName operator""_k() { return {NameOf<Text>::slot}; }
} // namespace literals

// One argument of a call. Borrows: write it in the call, never keep it.
class Argument {
public:
    template <std::convertible_to<Handle> Value> Argument(const Value& value) : value_(Handle(value)) {}
    Argument(const Keyword& keyword) : value_(keyword.value), keyword_(&keyword.name.slot()) {}
    Argument(int) = delete;

    PyObject* value() const { return value_.ptr(); }
    const NameSlot* keyword() const { return keyword_; } // null: passed by position

private:
    Handle value_;
    const NameSlot* keyword_ = nullptr;
};

Object keyword_names(const Argument* keywords, std::size_t count, CallSite site);

// The arguments of one call as the vector call protocol wants them: a free slot in front, the values, those passed by
// keyword last, and a tuple of their names.
template <std::size_t Count> struct VectorCall {
    PyObject* values[Count + 1];
    std::size_t positional = 0;
    Object names;

    [[gnu::always_inline]] explicit VectorCall(const Argument (&arguments)[Count], CallSite site)
    {
        for (std::size_t i = 0; i < Count; ++i) {
            values[i + 1] = arguments[i].value();
            positional += arguments[i].keyword() == nullptr;
        }
        if (positional < Count)
            names = keyword_names(arguments + positional, Count - positional, site);
    }
};

// The call itself; `values` begins with the free slot.
Object call_prepared(Handle function, PyObject** values, std::size_t positional, Handle names, CallSite site);

template <std::size_t Count>
[[gnu::always_inline]] inline Object Handle::operator()(const Argument (&arguments)[Count], CallSite site) const
{
    VectorCall<Count> prepared(arguments, site);
    return call_prepared(*this, prepared.values, prepared.positional, prepared.names, site);
}

inline Object Handle::operator()(CallSite site) const
{
    PyObject* values[1];
    return call_prepared(*this, values, 0, Handle(), site);
}

// A method looked up on its object, to be called at once: no bound method is made in between.
class MethodOfObject {
public:
    template <std::size_t Count>
    [[gnu::always_inline]] Object operator()(const Argument (&arguments)[Count], CallSite site = CallSite::here()) &&
    {
        VectorCall<Count> prepared(arguments, site);
        return call(prepared.values, prepared.positional, prepared.names, site);
    }

    Object operator()(CallSite site = CallSite::here()) &&
    {
        PyObject* values[1];
        return call(values, 0, Handle(), site);
    }

private:
    friend class Handle;
    MethodOfObject(Object function, Handle self) : function_(std::move(function)), self_(self) {}
    Object call(PyObject** values, std::size_t positional, Handle names, CallSite site) const;

    Object function_;
    Handle self_; // the first argument; empty where the function does not take it
};

inline Object none() { return Object(borrow(Py_None)); }
inline Handle true_() { return borrow(Py_True); }
inline Handle false_() { return borrow(Py_False); }
inline Handle boolean(bool value) { return value ? true_() : false_(); }

} // namespace py
