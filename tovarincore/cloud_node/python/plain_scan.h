// Passing over the elements of a list that certainly are not the one looked for, without running any Python code: those
// whose attribute is plainly stored and plainly holds something else. The loop over the rest is the Python loop.
#pragma once

#include "iteration.h"

namespace py {

// The first position from which `element.name == text` has to be asked; at most len(list). 0 where nothing is known.
Py_ssize_t first_candidate(Handle list, Name name, Handle text, Where where = Where::here());

// The same with the text that `element` has under the name.
Py_ssize_t first_candidate_like(Handle list, Name name, Handle element, Where where = Where::here());

// The first position from which the truth of `element.name` has to be asked.
Py_ssize_t first_not_false(Handle list, Name name, Where where = Where::here());

// for (Candidates rest(xs, "node"_s, "uuid"_s, text, others); rest.next(x);) ...
// The elements of xs in order, except that those with another plain text under x.node.uuid go to the list `others`.
class Candidates {
public:
    Candidates(Handle iterable, Name hop, Name name, Handle text, Handle others, Where where = Where::here());

    // As Each::next(); at the end the variable is the last of all elements, as in the loop that this stands for.
    bool next(Object& variable);

private:
    void put_aside(Py_ssize_t end, Object& variable);
    Object slice(Py_ssize_t end) const;
    Py_ssize_t next_candidate() const;

    Each elements_; // walked when the iterable is no exact list
    Object list_;   // empty then
    Py_ssize_t index_ = 0;
    Name hop_, name_;
    Object text_, others_;
    Where where_;
};

} // namespace py
