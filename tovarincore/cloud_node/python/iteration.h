// for loops, unpacking, and the lazy search `next((x for x in xs if wanted(x)), None)`.
#pragma once

#include "errors.h"

#include <array>
#include <optional>

namespace py {

// What a loop looks for, said so that elements which certainly are something else need no turn: those in a list whose
// attribute is plainly stored and plainly holds something else. The loop asks anyway: without the fast half, and
// for elements of which nothing is certain, it has every turn.
struct Wanted {
    std::optional<Name> hop; // the attribute is one of what the element has under this name
    Name attribute;
    Handle text; // empty: the truth of the attribute
};

inline Wanted having(Name attribute) { return {{}, attribute, {}}; }
inline Wanted having(Name attribute, Handle text) { return {{}, attribute, text}; }
inline Wanted having(Name hop, Name attribute, Handle text) { return {hop, attribute, text}; }

// What a loop does between two turns: see checkpoint(). Without the fast half that is a call of the interpreter, which
// takes a sixth of a search's turn: there, one turn in sixteen has it.
class BetweenTurns {
public:
    void operator()(CallSite site = CallSite::here())
    {
        if (fast::is_on || turns_++ % 16 == 0)
            checkpoint(site);
    }

    // After the last turn.
    void end(CallSite site = CallSite::here())
    {
        if constexpr (!fast::is_on)
            checkpoint(site);
    }

private:
    unsigned turns_ = 0;
};

// for (Object x : each(xs)) ...       iter(xs) is called at once, so xs may be a temporary
//
// Where a lock is held, the variable has to outlive the loop, as Python's does: its last value may have a finaliser
// that takes the lock.
//
//     Object x;
//     for (Each rest = each(xs); rest.next(x);) ...
class Each {
public:
    // Passes elements over that are not wanted, if anything is, and appends them to the list that a variable holds, if
    // one is given. The variable outlives the loop.
    Each(Handle iterable, const Wanted* wanted, Object* passed_over, CallSite site);

    // Gives the variable the next element; false at the end. The variable is then the last of all elements, also when
    // that was passed over, or stays as it was where there was none.
    bool next(Object& variable)
    {
        between_turns_(site_); // reading and comparing an element may run no Python code
        if (index_ < 0 || (fast::is_on && wanted_))
            return next_in_another_way(variable);
        return next_of_list(variable);
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
    bool next_of_list(Object& variable)
    {
        if (index_ >= PyList_GET_SIZE(source_.ptr())) {
            between_turns_.end(site_);
            return false;
        }
        variable = Object(borrow(PyList_GET_ITEM(source_.ptr(), index_++)));
        return true;
    }

    bool next_in_another_way(Object& variable);
    bool next_of_iterator(Object& variable);
    void pass_over(const Wanted& wanted, Object& variable);

    Object source_;         // an exact list, or an iterator where index_ is negative
    Py_ssize_t index_ = -1; // of the next element
    std::optional<Wanted> wanted_;
    Object text_;
    Object* passed_over_;
    CallSite site_;
    BetweenTurns between_turns_;
};

// for x in xs
inline Each each(Handle iterable, CallSite site = CallSite::here()) { return {iterable, nullptr, nullptr, site}; }

// The same, for a loop that only asks for the wanted ones, and appends the others to a list, if it does anything with
// them: `temp_pool` in
//     for (Each clients = each(pool, having("node"_s, "uuid"_s, uuid), temp_pool); clients.next(client);)
inline Each each(Handle iterable, const Wanted& wanted, Object& passed_over, CallSite site = CallSite::here())
{
    return {iterable, &wanted, &passed_over, site};
}
inline Each each(Handle iterable, const Wanted& wanted, CallSite site = CallSite::here())
{
    return {iterable, &wanted, nullptr, site};
}

// Where a search by index in `owner.list`, which reads that at each turn, for an element with the attribute of `like`
// has to begin: behind elements that certainly have another one, or 0 where reading the list could be noticed.
Py_ssize_t first_like(Handle owner, Name list, Name attribute, Handle like, CallSite site = CallSite::here());

void unpack_into(Handle sequence, Object* targets, Py_ssize_t count, CallSite site);

// auto [a, b] = unpack<2>(pair);    a, b = pair, with the interpreter's own error texts
template <std::size_t Count> std::array<Object, Count> unpack(Handle sequence, CallSite site = CallSite::here())
{
    std::array<Object, Count> targets;
    unpack_into(sequence, targets.data(), static_cast<Py_ssize_t>(Count), site);
    return targets;
}

// A StopIteration inside a generator expression reaches the caller as a RuntimeError.
[[noreturn]] void raise_from_generator(const Raised& raised, CallSiteInFunction here);

// next((x for x in iterable if wanted(x)), None)
template <class Wanted>
Object first_match(Handle iterable, Wanted wanted, CallSiteInFunction here = CallSiteInFunction::here())
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
