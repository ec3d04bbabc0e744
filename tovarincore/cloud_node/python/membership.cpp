#include "membership.h"

#include "builders.h"

namespace py {

namespace {

// Then a search for a text runs no Python code, and one that is left out shows nowhere.
bool has_text_keys_only(PyObject* dict)
{
    static const void* search_for_texts = nullptr;
    if (search_for_texts == nullptr)
        search_for_texts = layout::search_of(py::dict({{"sample"_s, none()}}).ptr());
    return layout::search_of(dict) == search_for_texts;
}

} // namespace

Membership::Membership(Handle container, Handle key, Where where) : key_(key)
{
    PyObject* dict = container.ptr();
    if (!layout::known || !PyDict_CheckExact(dict) || !PyUnicode_CheckExact(key.ptr()) || !has_text_keys_only(dict)) {
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
