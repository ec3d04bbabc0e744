// Where an attribute of a given name was found the last time, so that the next read of it takes a few comparisons.
// One for each name in the source. It answers only where the interpreter's own lookup would give the same without
// running any Python code; everything else takes that lookup.
#pragma once

#include "shared_key_table.h"

namespace py::fast {

// Where the instances of one type keep one attribute. Valid as long as no Python code runs.
struct PlainSlot {
    PyTypeObject* type = nullptr;
    const void* table = nullptr;
    Py_ssize_t index = 0;

    // Borrowed; null where it takes the interpreter's lookup to find the value.
    PyObject* value(PyObject* instance) const
    {
        if (Py_TYPE(instance) != type) [[unlikely]]
            return nullptr;
        layout::SharedValues shared = layout::shared_values_of(instance);
        return shared && shared.table() == table ? shared.at(index) : nullptr;
    }
};

class AttributeCache {
public:
    // The value in the instance's own __dict__; borrowed. Null: look it up in the general way, and consider() it.
    PyObject* known_value(PyObject* instance) const
    {
        if constexpr (!layout::known)
            return nullptr;
        if (!knows(Py_TYPE(instance)) || place_ == 0) [[unlikely]]
            return nullptr;
        layout::SharedValues shared = layout::shared_values_of(instance);
        return shared && keys_.is_table_of(shared) ? shared.at(place_ - 1) : nullptr;
    }

    // The function of the class, to be called with the instance as its first argument; borrowed. Null: as above.
    PyObject* known_method(PyObject* instance) const
    {
        if constexpr (!layout::known)
            return nullptr;
        if (!knows(Py_TYPE(instance)) || method_ == nullptr) [[unlikely]]
            return nullptr;
        if (layout::has_no_dict(type_))
            return method_;
        if (layout::SharedValues shared = layout::shared_values_of(instance)) [[likely]]
            return place_ == 0 && keys_.cover(shared) ? method_ : nullptr;
        return layout::dict_of(instance) == nullptr ? method_ : nullptr;
    }

    // Whether `instance.name = value` puts the value into the place of one that the instance itself has.
    bool sets_known_value(PyObject* instance) const { return known_value(instance) != nullptr && settable_; }

    // Does so, where that is known. False: it failed, with an error set.
    bool set_known_value(PyObject* instance, PyObject* name, PyObject* value) const
    {
        return layout::replace_value(instance, name, layout::shared_values_of(instance), place_ - 1, value);
    }

    // The slot that the value of this instance lies in; without a type when the lookup has to be the interpreter's.
    PlainSlot slot(PyObject* instance, PyObject* name)
    {
        if (known_value(instance) == nullptr)
            learn(instance, name);
        if (known_value(instance) == nullptr)
            return {};
        return {type_, keys_.table(), place_ - 1};
    }

    // What is not known yet is learnt from this instance when its type comes twice running.
    void consider(PyObject* instance, PyObject* name);

private:
    bool knows(PyTypeObject* type) const
    {
        return type == type_ && layout::version_of_type(type) == version_ &&
               (guard_ == nullptr ||
                (Py_TYPE(on_class_) == guard_ && layout::version_of_type(guard_) == guard_version_));
    }

    void learn(PyObject* instance, PyObject* name);

    PyTypeObject* type_ = nullptr;
    PyTypeObject* candidate_ = nullptr;
    unsigned version_ = 0;
    unsigned unfit_version_ = 0;    // of a type whose instances do not keep the attribute plainly; not tried again
    PyObject* on_class_ = nullptr;  // what the class has under the name; lives as long as this version of the type
    PyTypeObject* guard_ = nullptr; // its type, where that may change or be exchanged
    unsigned guard_version_ = 0;
    unsigned char passed_over_ = 0; // how many instances are still not tried, after one that taught nothing
    bool settable_ = false;
    Py_ssize_t place_ = 0;       // of the name in the key table, from 1; 0: it is not among the table's known keys
    PyObject* method_ = nullptr; // lives as long as this version of the type
    SharedKeyTable keys_;
};

} // namespace py::fast
