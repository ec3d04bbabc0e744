#include "self_check.h"

#include "../builders.h"
#include "layout.h"
#include "quiet_lookup.h"
#include "runtime.h"

namespace py::fast {

namespace {

Object sample_class()
{
    Object text = steal(PyUnicode_FromString("Sample"));
    return borrow(reinterpret_cast<PyObject*>(&PyType_Type))({text, tuple({}), dict({})});
}

// An instance keeps its values by the key table that its class has.
bool shares_keys_as_compiled(Handle sample)
{
    layout::SharedValues shared = layout::shared_values_of(sample.ptr());
    if (!shared || shared.count() != 2 || shared.name(1) != "other"_s.ptr())
        return false;
    return layout::value_in_table(sample.ptr(), shared.table(), 1) == Py_True;
}

// Another one has a separate dictionary.
bool has_dict_as_compiled(Handle sample)
{
    Object own = dict({{"sample"_s, none()}, {"other"_s, true_()}});
    sample.set("__dict__"_s, own);
    if (layout::combined_dict_of(sample.ptr()) != own.ptr() || layout::position_of(own.ptr(), "other"_s.ptr()) != 1)
        return false;
    return layout::value_at(own.ptr(), "other"_s.ptr(), 1) == Py_True && has_text_keys_only(own.ptr());
}

bool counts_versions_as_compiled(Handle type)
{
    auto* inside = reinterpret_cast<PyTypeObject*>(type.ptr());
    _PyType_Lookup(inside, "other"_s.ptr()); // gives it a version
    unsigned version = layout::version_of_type(inside);
    type.set("other"_s, none());
    Object changing = dict({});
    auto version_of_dict = layout::version_of_dict(changing.ptr());
    changing.set_item("other"_s, none());
    return version != 0 && version != layout::version_of_type(inside) &&
           version_of_dict != layout::version_of_dict(changing.ptr());
}

bool objects_are_as_compiled()
{
    Object type = sample_class();
    Object sharing = type(), other = type();
    sharing.set("sample"_s, none());
    sharing.set("other"_s, true_());
    return layout::has_managed_dict(reinterpret_cast<PyTypeObject*>(type.ptr())) && shares_keys_as_compiled(sharing) &&
           has_dict_as_compiled(other) && counts_versions_as_compiled(type);
}

} // namespace

void look_at_layout() { runtime::is_as_compiled = runtime::state_is_as_compiled() && objects_are_as_compiled(); }

} // namespace py::fast
