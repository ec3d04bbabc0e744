// The scans that run no Python code, by themselves.
#include "object_layer.h"

namespace object_layer {

namespace {

Object candidate(Handle list, Handle text) { return number(static_cast<long>(first_candidate(list, "name"_s, text))); }

Object candidate_like(Handle list, Handle element)
{
    return number(static_cast<long>(first_candidate_like(list, "name"_s, element)));
}

Object not_false(Handle list) { return number(static_cast<long>(first_not_false(list, "ready"_s))); }

// The elements that have a turn, those that are put aside, and the variable at the end.
Object candidates(Handle iterable, Handle text)
{
    Object turns = list({}), others = list({}), element = none();
    Candidates walk(iterable, "node"_s, "name"_s, text, others);
    while (walk.next(element))
        append(turns, element);
    return tuple({turns, others, element});
}

} // namespace

PyMethodDef scans[] = {
    entry<candidate>("candidate"),   entry<candidate_like>("candidate_like"), entry<not_false>("not_false"),
    entry<candidates>("candidates"), {nullptr, nullptr, 0, nullptr},
};

} // namespace object_layer
