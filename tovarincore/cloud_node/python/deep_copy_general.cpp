#include "deep_copy_general.h"

#include "builders.h"
#include "deep_copy_enumerations.h"
#include "deep_copy_genuine.h"
#include "deep_copy_types.h"
#include "iteration.h"
#include "recursion.h"

namespace py {

namespace {

Object identity_of(Handle object, Where where) { return steal(PyLong_FromVoidPtr(object.ptr()), where); }

// An instance whose own names hide no hook; Python's function looks at the rest.
bool is_plain_instance(Handle object, CopyVerdict& verdict)
{
    if (layout::SharedValues shared = layout::shared_values_of(object.ptr()))
        return has_plain_names(shared, verdict);
    PyObject* dict = layout::dict_of(object.ptr());
    return dict == nullptr || (PyDict_CheckExact(dict) && has_plain_names(dict));
}

void restore_state(Handle made, Handle state_given, Where where)
{
    Object state(state_given);
    Object slot_state = none();
    PyObject* found = nullptr;
    check(find_attribute(made.ptr(), "__setstate__"_s.ptr(), &found), where);
    if (found != nullptr) {
        Object set_state = adopt(found);
        set_state({state}, where);
        return;
    }
    if (PyTuple_Check(state.ptr()) && PyTuple_GET_SIZE(state.ptr()) == 2) {
        auto [attributes, slots] = unpack<2>(state, where);
        state = attributes;
        slot_state = slots;
    }
    if (!state.is_none())
        made.get("__dict__"_s, where).method("update"_s, where)({state}, where);
    if (slot_state.is_none())
        return;
    for (Object pair : each(slot_state.method("items"_s, where)(where), where)) {
        auto [name, value] = unpack<2>(pair, where);
        check(PyObject_SetAttr(made.ptr(), name.ptr(), value.ptr()), where);
    }
}

} // namespace

Object GeneralCopy::remembered(Handle original) const
{
    PyObject* found = PyDict_GetItemWithError(memo_.ptr(), identity_of(original, where_).ptr());
    if (found == nullptr && PyErr_Occurred())
        throw Raised{where_};
    return found == nullptr ? Object() : Object(borrow(found));
}

void GeneralCopy::remember(Handle original, Handle made) const
{
    check(PyDict_SetItem(memo_.ptr(), identity_of(original, where_).ptr(), made.ptr()), where_);
}

// The memo's entry about itself is a list of the originals, so that no address is used twice while it is in use.
void GeneralCopy::keep_alive(Handle original) const
{
    if (!deepcopy_is_untouched()) { // by a hook that has just run
        keep_alive_by_name(original, memo_, where_);
        return;
    }
    Object kept = remembered(memo_);
    if (!kept)
        remember(memo_, list({original}, where_));
    else if (PyList_CheckExact(kept.ptr()))
        check(PyList_Append(kept.ptr(), original.ptr()), where_);
    else
        keep_alive_by_name(original, memo_, where_);
}

Object GeneralCopy::copy(Handle value_given)
{
    Object value(value_given); // the code of a hook may take it away from its owner
    if (Object known = remembered(value))
        return known;
    if (is_plain_value(Py_TYPE(value.ptr())))
        return deepcopy_is_untouched() ? value : genuine_deepcopy(value, memo_, where_);
    Level level(where_);
    Object made = copy_unknown(value);
    if (!made)
        return genuine_deepcopy(value, memo_, where_);
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
    CopyVerdict& verdict = copy_verdict(type);
    switch (verdict.kind) {
    case CopyKind::list:
        return copy_list(value);
    case CopyKind::tuple:
        return copy_tuple(value);
    case CopyKind::dict:
        return copy_dict(value);
    case CopyKind::atomic:
        return Object(value);
    case CopyKind::object: // its class goes through the memo as well, as the one argument that it is made from
        if (!is_plain_instance(value, verdict) || remembered(borrow(reinterpret_cast<PyObject*>(type))))
            return {};
        return copy_object(value);
    case CopyKind::enumeration:
        if (!is_own_copy(value.ptr(), verdict))
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
    Object made = list({}, where_);
    remember(original, made);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(original.ptr()); ++i)
        append(made, copy(borrow(PyList_GET_ITEM(original.ptr(), i))), where_);
    return made;
}

Object GeneralCopy::copy_tuple(Handle original)
{
    Object elements = list({}, where_);
    bool changed = false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(original.ptr()); ++i) {
        Object element = copy(borrow(PyTuple_GET_ITEM(original.ptr(), i)));
        changed = changed || element.ptr() != PyTuple_GET_ITEM(original.ptr(), i);
        append(elements, element, where_);
    }
    if (Object known = remembered(original))
        return known; // a container inside holds the tuple, and has copied it already
    return changed ? steal(PyList_AsTuple(elements.ptr()), where_) : Object(original);
}

Object GeneralCopy::copy_dict(Handle original)
{
    Object made = dict({}, where_);
    remember(original, made);
    for (Object pair : each(original.method("items"_s, where_)(where_), where_)) {
        Object value =
            copy(borrow(PyTuple_GET_ITEM(pair.ptr(), 1))); // before the key, as `made[copy(k)] = copy(v)` does
        Object key = copy(borrow(PyTuple_GET_ITEM(pair.ptr(), 0)));
        made.set_item(key, value, where_);
    }
    return made;
}

Object GeneralCopy::copy_object(Handle original)
{
    PyTypeObject* type = Py_TYPE(original.ptr());
    Object type_in_use(borrow(reinterpret_cast<PyObject*>(type))); // a finaliser may give the original another class
    Object state = steal(PyObject_GenericGetDict(original.ptr(), nullptr), where_);
    bool has_state = PyDict_GET_SIZE(state.ptr()) > 0; // before code can run that fills it
    Object made = steal(layout::new_instance(type), where_);
    remember(original, made);
    if (has_state)
        restore_state(made, copy(state), where_);
    return made;
}

} // namespace py
