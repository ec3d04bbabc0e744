// Loops that pass over what certainly is not wanted.
#include "object_layer.h"

namespace object_layer {

namespace {

// The elements that have a turn in a loop that looks for the wanted ones, those that are passed over, and the variable
// at the end.
Object turns_of(Handle iterable, const Wanted& wanted)
{
    Object turns = list({}), others = list({}), element = none();
    for (Each rest = each(iterable, wanted, others); rest.next(element);)
        append(turns, element);
    return tuple({turns, others, element});
}

Object turns_for_text(Handle iterable, Handle text) { return turns_of(iterable, having("name"_s, text)); }
Object turns_for_text_behind(Handle iterable, Handle text)
{
    return turns_of(iterable, having("node"_s, "name"_s, text));
}
Object turns_for_truth(Handle iterable) { return turns_of(iterable, having("ready"_s)); }
Object first_alike(Handle owner, Handle element)
{
    owner.get("records"_s); // what is stored is known from an earlier read
    return number(static_cast<long>(first_like(owner, "records"_s, "name"_s, element)));
}

} // namespace

PyMethodDef scans[] = {
    entry<turns_for_text>("turns_for_text"),
    entry<turns_for_text_behind>("turns_for_text_behind"),
    entry<turns_for_truth>("turns_for_truth"),
    entry<first_alike>("first_like"),
    {nullptr, nullptr, 0, nullptr},
};

} // namespace object_layer
