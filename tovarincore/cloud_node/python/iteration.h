// for loops, unpacking, and the lazy search `next((x for x in xs if wanted(x)), None)`.
#pragma once

#include "errors.h"

#include <array>

namespace py {

// for (Object x : each(xs)): iter(xs) is called at once, so xs may be a temporary.
class Each {
public:
    // `start` is a position in an exact list, which is then walked without an iterator object.
    Each(Object source, Py_ssize_t start, Where where) : source_(std::move(source)), start_(start), where_(where) {}

    struct End {};

    class Position {
    public:
        Position(Handle source, Py_ssize_t index, Where where) : source_(source), index_(index), where_(where)
        {
            if (index_ < 0)
                fetch();
        }

        Object operator*()
        {
            return index_ >= 0 ? Object(borrow(PyList_GET_ITEM(source_.ptr(), index_))) : std::move(current_);
        }

        Position& operator++()
        {
            if (index_ >= 0)
                ++index_;
            else
                fetch();
            return *this;
        }

        bool operator!=(End) const
        {
            return index_ >= 0 ? index_ < PyList_GET_SIZE(source_.ptr()) : static_cast<bool>(current_);
        }

    private:
        void fetch(); // the iterator's next element

        Handle source_; // a list, or an iterator where index_ is negative
        Py_ssize_t index_;
        Where where_;
        Object current_; // of an iterator
    };

    Position begin() const { return {source_, start_, where_}; }
    static End end() { return {}; }

private:
    Object source_;
    Py_ssize_t start_;
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
