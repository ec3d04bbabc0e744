#include "attribute_cache.h"

#include "../comparing.h"
#include "quiet_lookup.h"

#include <utility>

namespace py::fast {

namespace {

// How many instances are passed over after one that taught nothing: mostly those that follow are of its kind.
constexpr unsigned char unlike_the_last = 63;

// What the class has under the name is no data descriptor: it gives way to the instance's own __dict__.
bool gives_way(PyObject* on_class) { return on_class == nullptr || Py_TYPE(on_class)->tp_descr_set == nullptr; }

// The type of the object, where a program can change it and so turn the object into a data descriptor.
PyTypeObject* changeable_type_of(PyObject* object)
{
    return object != nullptr && PyType_HasFeature(Py_TYPE(object), Py_TPFLAGS_HEAPTYPE) ? Py_TYPE(object) : nullptr;
}

// -1: not there. -2: there as another object, which takes the interpreter's look-up to find.
Py_ssize_t index_of(const layout::SharedValues& shared, PyObject* name)
{
    Py_ssize_t index = -1;
    for (Py_ssize_t i = 0; i < shared.count(); ++i) {
        PyObject* other = shared.name(i);
        if (other == name)
            return i;
        if (!are_plain_texts(name, other) || is_same_text(name, other))
            index = -2;
    }
    return index;
}

// Of a class with a managed __dict__: an instance that never had an attribute has neither values nor a dictionary.
bool has_attributes(PyObject* instance)
{
    return layout::shared_values_of(instance) || layout::dict_of(instance) != nullptr;
}

} // namespace

void AttributeCache::consider(PyObject* instance, PyObject* name)
{
    PyTypeObject* type = Py_TYPE(instance);
    unsigned version = layout::version_of_type(type);
    if (version != 0 && version == unfit_version_)
        return;
    if (passed_over_ > 0) {
        --passed_over_;
        return;
    }
    if (std::exchange(candidate_, type) != type)
        return;
    candidate_ = nullptr;
    if (knows(type))
        passed_over_ = unlike_the_last; // instances of this type do not all look the same
    learn(instance, name);
}

void AttributeCache::learn(PyObject* instance, PyObject* name)
{
    PyTypeObject* type = Py_TYPE(instance);
    bool has_dict = layout::has_managed_dict(type);
    if (type->tp_getattro != PyObject_GenericGetAttr || !(has_dict || layout::has_no_dict(type)) ||
        !is_quiet_class(type))
        return;
    PyObject* on_class = _PyType_Lookup(type, name);
    unsigned version = layout::version_of_type(type);
    bool is_property = on_class != nullptr && Py_IS_TYPE(on_class, &PyProperty_Type);
    if (version == 0 || !(is_property || gives_way(on_class))) {
        unfit_version_ = version;
        return;
    }
    PyTypeObject* guard = changeable_type_of(on_class);
    if (guard != nullptr) {
        if (!is_quiet_class(guard))
            return;
        _PyType_Lookup(guard, name); // gives the type a version
        if (layout::version_of_type(guard) == 0)
            return;
    }
    bool same_class = type == type_ && version == version_;
    if (!is_property && has_dict && has_attributes(instance)) {
        if (!learn_place(instance, name, same_class))
            return;
    } else {
        keys_.forget();
        place_ = {};
    }
    type_ = type;
    version_ = version;
    on_class_ = on_class;
    guard_ = guard;
    guard_version_ = guard == nullptr ? 0 : layout::version_of_type(guard);
    method_ =
        on_class != nullptr && PyType_HasFeature(Py_TYPE(on_class), Py_TPFLAGS_METHOD_DESCRIPTOR) ? on_class : nullptr;
    property_ = is_property ? on_class : nullptr;
    settable_ = type->tp_setattro == PyObject_GenericSetAttr;
}

bool AttributeCache::learn_place(PyObject* instance, PyObject* name, bool same_class)
{
    if (layout::SharedValues shared = layout::shared_values_of(instance)) {
        Py_ssize_t index = index_of(shared, name);
        if (index == -2)
            return false;
        if (!keys_.are_those_of(shared))
            keys_.remember(shared);
        if (!keys_.are_those_of(shared)) {
            type_ = nullptr;
            return false;
        }
        place_ = {index < 0 ? nullptr : keys_.table(), index, same_class ? place_.in_dict : PlaceInDict{}};
        return true;
    }
    PyObject* dict = layout::combined_dict_of(instance);
    Py_ssize_t position = dict == nullptr ? -1 : layout::position_of(dict, name);
    if (position < 0) {
        passed_over_ = unlike_the_last;
        return false;
    }
    if (!same_class) {
        keys_.forget();
        place_ = {};
    }
    place_.in_dict = {name, position};
    return true;
}

} // namespace py::fast
