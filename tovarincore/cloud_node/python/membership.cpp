#include "membership.h"

#include "builders.h"

namespace py {

namespace {

const void* search_for_texts = nullptr;
const void* search_after_deletions = nullptr;

// How the interpreter searches dictionaries of texts, seen on one of our own.
void find_out()
{
    Object sample = dict({{"sample"_s, none()}, {"other"_s, none()}});
    search_for_texts = layout::search_of(sample.ptr());
    check(PyDict_DelItem(sample.ptr(), "other"_s.ptr()));
    search_after_deletions = layout::search_of(sample.ptr());
}

} // namespace

bool has_text_keys_only(PyObject* dict)
{
    if constexpr (!layout::known)
        return false;
    if (search_for_texts == nullptr)
        find_out();
    const void* search = layout::search_of(dict);
    return search == search_for_texts || search == search_after_deletions;
}

Membership::Membership(Handle container, Handle key, Where where) : key_(key)
{
    PyObject* dict = container.ptr();
    if (!PyDict_CheckExact(dict) || !PyUnicode_CheckExact(key.ptr()) || !has_text_keys_only(dict)) {
        is_member_ = container.contains(key, where);
        return;
    }
    value_ = PyDict_GetItemWithError(dict, key.ptr());
    is_member_ = value_ != nullptr;
    version_ = layout::version_of_dict(dict);
}

Object Membership::item(Handle container, Handle key, Where where) const
{
    // No two dictionaries ever have the same version.
    if (value_ != nullptr && key.is(key_) && PyDict_CheckExact(container.ptr()) &&
        layout::version_of_dict(container.ptr()) == version_)
        return Object(borrow(value_));
    return container.item(key, where);
}

} // namespace py
