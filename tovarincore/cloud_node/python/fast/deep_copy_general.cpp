#include "deep_copy_general.h"

#include "../builders.h"
#include "../iteration.h"
#include "../recursion.h"
#include "deep_copy_enumerations.h"
#include "deep_copy_genuine.h"
#include "deep_copy_types.h"

namespace py::fast {

namespace {

Object identity_of(Handle object, CallSite site) { return steal(PyLong_FromVoidPtr(object.ptr()), site); }

// An instance whose own names hide no hook; Python's function looks at the rest.
bool is_plain_instance(Handle object, CopyPlan& plan)
{
    if (layout::SharedValues shared = layout::shared_values_of(object.ptr()))
        return has_plain_names(shared, plan);
    PyObject* dict = layout::dict_of(object.ptr());
    return dict == nullptr || (PyDict_CheckExact(dict) && has_plain_names(dict));
}

void restore_state(Handle made, Handle state_given, CallSite site)
{
    Object state(state_given);
    Object slot_state = none();
    PyObject* found = nullptr;
    check(find_attribute(made.ptr(), "__setstate__"_s.ptr(), &found), site);
    if (found != nullptr) {
        Object set_state = adopt(found);
        set_state({state}, site);
        return;
    }
    if (PyTuple_Check(state.ptr()) && PyTuple_GET_SIZE(state.ptr()) == 2) {
        auto [attributes, slots] = unpack<2>(state, site);
        state = attributes;
        slot_state = slots;
    }
    if (!state.is_none())
        made.get("__dict__"_s, site).method("update"_s, site)({state}, site);
    if (slot_state.is_none())
        return;
    for (Object pair : each(slot_state.method("items"_s, site)(site), site)) {
        auto [name, value] = unpack<2>(pair, site);
        check(PyObject_SetAttr(made.ptr(), name.ptr(), value.ptr()), site);
    }
}

} // namespace

Object GeneralCopy::remembered(Handle original) const
{
    PyObject* found = PyDict_GetItemWithError(memo_.ptr(), identity_of(original, site_).ptr());
    if (found == nullptr && PyErr_Occurred())
        throw Raised{site_};
    return found == nullptr ? Object() : Object(borrow(found));
}

void GeneralCopy::remember(Handle original, Handle made) const
{
    check(PyDict_SetItem(memo_.ptr(), identity_of(original, site_).ptr(), made.ptr()), site_);
}

// The memo's entry about itself is a list of the originals, so that no address is used twice while it is in use.
void GeneralCopy::keep_alive(Handle original) const
{
    if (!deepcopy_is_untouched()) { // by a hook that has just run
        keep_alive_by_name(original, memo_, site_);
        return;
    }
    Object kept = remembered(memo_);
    if (!kept)
        remember(memo_, list({original}, site_));
    else if (PyList_CheckExact(kept.ptr()))
        check(PyList_Append(kept.ptr(), original.ptr()), site_);
    else
        keep_alive_by_name(original, memo_, site_);
}

Object GeneralCopy::copy(Handle value_given)
{
    Object value(value_given); // the code of a hook may take it away from its owner
    checkpoint(site_);
    if (Object known = remembered(value))
        return known;
    if (is_plain_value(Py_TYPE(value.ptr())))
        return deepcopy_is_untouched() ? value : genuine_deepcopy(value, memo_, site_);
    if (depth_ == deepest)
        return genuine_deepcopy(value, memo_, site_);
    Level level(site_);
    ++depth_;
    Object made = copy_unknown(value);
    --depth_;
    if (!made)
        return genuine_deepcopy(value, memo_, site_);
    if (!made.is(value)) {
        remember(value, made);
        keep_alive(value);
    }
    return made;
}

// Empty when Python's function has to do it.
Object GeneralCopy::copy_unknown(Handle value)
{
    if (!deepcopy_is_untouched())
        return {};
    PyTypeObject* type = Py_TYPE(value.ptr());
    CopyPlan& plan = copy_plan(type);
    switch (plan.kind) {
    case CopyKind::list:
        return copy_list(value);
    case CopyKind::tuple:
        return copy_tuple(value);
    case CopyKind::dict:
        return copy_dict(value);
    case CopyKind::atomic:
        return Object(value);
    case CopyKind::object: // its class goes through the memo as well, as the one argument that it is made from
        if (!has_no_slots(plan) || !is_plain_instance(value, plan) ||
            remembered(borrow(reinterpret_cast<PyObject*>(type))))
            return {};
        return copy_object(value);
    case CopyKind::enumeration:
        if (!is_own_copy(value.ptr(), plan))
            return {};
        if constexpr (members_are_made_from_values) {
            if (remembered(borrow(value_of_member(value.ptr()))))
                return {};
            remember(value, value);
        }
        return Object(value);
    case CopyKind::unusual:
        break;
    }
    return {};
}

Object GeneralCopy::copy_list(Handle original)
{
    Object made = list({}, site_);
    remember(original, made);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(original.ptr()); ++i)
        append(made, copy(borrow(PyList_GET_ITEM(original.ptr(), i))), site_);
    return made;
}

Object GeneralCopy::copy_tuple(Handle original)
{
    Object elements = list({}, site_);
    bool changed = false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(original.ptr()); ++i) {
        Object element = copy(borrow(PyTuple_GET_ITEM(original.ptr(), i)));
        changed = changed || element.ptr() != PyTuple_GET_ITEM(original.ptr(), i);
        append(elements, element, site_);
    }
    if (Object known = remembered(original))
        return known; // a container inside holds the tuple, and has copied it already
    return changed ? steal(PyList_AsTuple(elements.ptr()), site_) : Object(original);
}

Object GeneralCopy::copy_dict(Handle original)
{
    Object made = dict({}, site_);
    remember(original, made);
    for (Object pair : each(original.method("items"_s, site_)(site_), site_)) {
        Object value =
            copy(borrow(PyTuple_GET_ITEM(pair.ptr(), 1))); // before the key, as `made[copy(k)] = copy(v)` does
        Object key = copy(borrow(PyTuple_GET_ITEM(pair.ptr(), 0)));
        made.set_item(key, value, site_);
    }
    return made;
}

Object GeneralCopy::copy_object(Handle original)
{
    PyTypeObject* type = Py_TYPE(original.ptr());
    Object type_in_use(borrow(reinterpret_cast<PyObject*>(type))); // a finaliser may give the original another class
    Object state = steal(PyObject_GenericGetDict(original.ptr(), nullptr), site_);
    bool has_state = PyDict_GET_SIZE(state.ptr()) > 0; // before code can run that fills it
    Object made = steal(layout::new_instance(type), site_);
    remember(original, made);
    if (has_state)
        restore_state(made, copy(state), site_);
    return made;
}

} // namespace py::fast
