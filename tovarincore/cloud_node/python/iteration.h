// for loops, unpacking, and the lazy search `next((x for x in xs if wanted(x)), None)`.
#pragma once

#include "errors.h"

#include <array>

namespace py {

// for (Object x : each(xs)) ...       iter(xs) is called at once, so xs may be a temporary
//
// Where a lock is held, the variable has to outlive the loop, as Python's does: its last value may have a finaliser
// that takes the lock.
//
//     Object x;
//     for (Each rest = each(xs); rest.next(x);) ...
class Each {
public:
    // `start` is a position in an exact list, which is then walked without an iterator object; else negative.
    Each(Object source, Py_ssize_t start, Where where) : source_(std::move(source)), index_(start), where_(where) {}

    // Gives the variable the next element; false, and the variable stays as it is, at the end.
    bool next(Object& variable)
    {
        if (index_ < 0)
            return next_of_iterator(variable);
        if (index_ >= PyList_GET_SIZE(source_.ptr()))
            return false;
        variable = Object(borrow(PyList_GET_ITEM(source_.ptr(), index_++)));
        return true;
    }

    struct End {};

    class Position {
    public:
        explicit Position(Each& each) : each_(each) { ++*this; }
        Object operator*() { return std::move(current_); }
        bool operator!=(End) const { return going_on_; }
        Position& operator++()
        {
            going_on_ = each_.next(current_);
            return *this;
        }

    private:
        Each& each_;
        Object current_;
        bool going_on_ = false;
    };

    Position begin() { return Position(*this); }
    static End end() { return {}; }

private:
    bool next_of_iterator(Object& variable);

    Object source_; // a list, or an iterator where index_ is negative
    Py_ssize_t index_;
    Where where_;
};

Each each(Handle iterable, Where where = Where::here());

// for x in xs, without the first `start` elements; `start` may be positive for an exact list only
Each each_from(Py_ssize_t start, Handle iterable, Where where = Where::here());

void unpack_into(Handle sequence, Object* targets, Py_ssize_t count, Where where);

// auto [a, b] = unpack<2>(pair);    a, b = pair, with the interpreter's own error texts
template <std::size_t Count> std::array<Object, Count> unpack(Handle sequence, Where where = Where::here())
{
    std::array<Object, Count> targets;
    unpack_into(sequence, targets.data(), static_cast<Py_ssize_t>(Count), where);
    return targets;
}

// A StopIteration inside a generator expression reaches the caller as a RuntimeError.
[[noreturn]] void raise_from_generator(const Raised& raised, WhereInFunction here);

// next((x for x in iterable if wanted(x)), None)
template <class Wanted>
Object first_match(Handle iterable, Wanted wanted, WhereInFunction here = WhereInFunction::here())
{
    Each elements = each(iterable, here);
    try {
        for (Object element : elements)
            if (wanted(element))
                return element;
    } catch (const Raised& raised) {
        if (!raised.matches(borrow(PyExc_StopIteration)))
            throw;
        raise_from_generator(raised, here);
    }
    return none();
}

} // namespace py
