#include "attribute_cache.h"

#include "quiet_lookup.h"

namespace py {

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

Py_ssize_t index_of(PyObject* dict, PyObject* name)
{
    PyObject *key, *value;
    Py_ssize_t index = 0;
    for (Py_ssize_t position = 0; PyDict_Next(dict, &position, &key, &value) != 0; ++index)
        if (key == name)
            return index;
    return -1;
}

} // namespace

void AttributeCache::consider(PyObject* instance, PyObject* name)
{
    if constexpr (!layout::known)
        return;
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
    if constexpr (!layout::known)
        return;
    PyTypeObject* type = Py_TYPE(instance);
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_dictoffset < 0 || !is_quiet_class(type))
        return;
    PyObject* on_class = _PyType_Lookup(type, name);
    unsigned version = layout::version_of_type(type);
    if (version == 0 || !gives_way(on_class)) {
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
    PyObject* dict = type->tp_dictoffset == 0 ? nullptr : *layout::dict_slot(instance);
    if (dict != nullptr && (!PyDict_CheckExact(dict) || layout::shared_values(dict) == nullptr)) {
        passed_over_ = unlike_the_last;
        return;
    }
    Py_ssize_t index = -1;
    if (dict == nullptr) {
        keys_.forget();
    } else {
        index = index_of(dict, name);
        // A name that is no interned text could still be found by comparing.
        if (index < 0 && PyDict_GetItemWithError(dict, name) != nullptr)
            return;
        if (!keys_.are_those_of(dict))
            keys_.remember(dict);
        if (!keys_.are_those_of(dict)) {
            type_ = nullptr;
            return;
        }
    }
    type_ = type;
    version_ = version;
    on_class_ = on_class;
    guard_ = guard;
    guard_version_ = guard == nullptr ? 0 : layout::version_of_type(guard);
    place_ = index + 1;
    method_ =
        on_class != nullptr && PyType_HasFeature(Py_TYPE(on_class), Py_TPFLAGS_METHOD_DESCRIPTOR) ? on_class : nullptr;
    settable_ = type->tp_setattro == PyObject_GenericSetAttr;
}

} // namespace py
