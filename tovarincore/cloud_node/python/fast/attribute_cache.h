// Where an attribute of a given name was found the last time, so that the next read of it takes a few comparisons.
// One for each name in the source. It answers only where the interpreter's own lookup would give the same without
// running any Python code; everything else takes that lookup.
#pragma once

#include "shared_key_table.h"

namespace py::fast {

// Where dictionaries that share no keys, as unpickling leaves them, had the name the last time.
struct PlaceInDict {
    PyObject* name = nullptr; // borrowed from the source's own, which lives as long as the process; null: unknown
    Py_ssize_t position = 0;

    // The instance's value, borrowed; null where that is not known to be there.
    PyObject* value(PyObject* instance) const
    {
        if (name == nullptr)
            return nullptr;
        PyObject* dict = layout::combined_dict_of(instance);
        return dict == nullptr ? nullptr : layout::value_at(dict, name, position);
    }
};

// Where instances with a managed __dict__ keep an attribute: by the key table that they share, or in a dictionary each.
struct Place {
    const void* table = nullptr; // null: not known
    Py_ssize_t index = 0;
    PlaceInDict in_dict;

    bool is_known() const { return table != nullptr || in_dict.name != nullptr; }

    // Borrowed; null where the value is not known to be there.
    PyObject* value(PyObject* instance) const
    {
        if (PyObject* value = layout::value_in_table(instance, table, index)) [[likely]]
            return value;
        return in_dict.value(instance);
    }
};

// The same for the instances of one class that share a key table: what a walk over many of them asks.
struct SharedSlot {
    PyTypeObject* type;
    layout::TableReader in_table;

    PyObject* value(PyObject* instance) const { return Py_TYPE(instance) == type ? in_table.value(instance) : nullptr; }
};

// Where the instances of one type keep one attribute. Valid as long as no Python code runs.
struct PlainSlot {
    PyTypeObject* type = nullptr;
    Place place;

    // Borrowed; null where it takes the interpreter's lookup to find the value.
    PyObject* value(PyObject* instance) const { return Py_TYPE(instance) == type ? place.value(instance) : nullptr; }

    bool is_shared_alone() const { return place.in_dict.name == nullptr; }
    SharedSlot shared() const { return {type, layout::TableReader(type, place.table, place.index)}; }
};

class AttributeCache {
public:
    // The value in the instance's own __dict__; borrowed. Null: look it up in the general way, and consider() it.
    PyObject* known_value(PyObject* instance) const
    {
        return knows(Py_TYPE(instance)) && place_.is_known() ? place_.value(instance) : nullptr;
    }

    // The same, where the instance shares the key table of its class: the shortest of all reads, and asked first.
    PyObject* shared_value(PyObject* instance) const
    {
        if (!knows(Py_TYPE(instance)) || place_.table == nullptr) [[unlikely]]
            return nullptr;
        return layout::value_in_table(instance, place_.table, place_.index);
    }

    // The function of the class, to be called with the instance as its first argument; borrowed. Null: as above.
    PyObject* known_method(PyObject* instance) const
    {
        if (!knows(Py_TYPE(instance)) || method_ == nullptr) [[unlikely]]
            return nullptr;
        if (layout::has_no_dict(type_))
            return method_;
        const void* table = place_.table == nullptr ? keys_.table() : nullptr; // else the name may be in it
        return layout::has_only_names_of(instance, table, keys_.count()) ? method_ : nullptr;
    }

    // The property of the class that computes the value; borrowed. Null: as above.
    PyObject* known_property(PyObject* instance) const
    {
        return property_ != nullptr && knows(Py_TYPE(instance)) ? property_ : nullptr;
    }

    // Whether `instance.name = value` puts the value into the place of one that the instance itself has.
    bool sets_known_value(PyObject* instance) const { return known_value(instance) != nullptr && settable_; }

    // Does so, where that is known. False: it failed, with an error set.
    bool set_known_value(PyObject* instance, PyObject* name, PyObject* value) const
    {
        if (layout::SharedValues shared = layout::shared_values_of(instance)) [[likely]]
            return layout::replace_value(instance, name, shared, place_.index, value);
        PyObject* dict = layout::combined_dict_of(instance);
        if (dict == nullptr)
            return PyObject_SetAttr(instance, name, value) == 0;
        Py_INCREF(dict); // the old value's finaliser may replace it
        int status = PyDict_SetItem(dict, name, value);
        Py_DECREF(dict);
        return status == 0;
    }

    // The slot that the value of this instance lies in; without a type when the lookup has to be the interpreter's.
    PlainSlot slot(PyObject* instance, PyObject* name)
    {
        if (known_value(instance) == nullptr) {
            learn(instance, name);
            if (known_value(instance) == nullptr)
                return {};
        }
        return {type_, place_};
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

    // Where the instance keeps the name. What is known of instances that keep it in the other way stays for the same
    // class. False: not to be told.
    bool learn_place(PyObject* instance, PyObject* name, bool same_class);

    PyTypeObject* type_ = nullptr;
    PyTypeObject* candidate_ = nullptr;
    unsigned version_ = 0;
    unsigned unfit_version_ = 0;    // of a type whose instances do not keep the attribute plainly; not tried again
    PyObject* on_class_ = nullptr;  // what the class has under the name; lives as long as this version of the type
    PyTypeObject* guard_ = nullptr; // its type, where that may change or be exchanged
    unsigned guard_version_ = 0;
    unsigned char passed_over_ = 0; // how many instances are still not tried, after one that taught nothing
    bool settable_ = false;
    Place place_;                  // has no table where the name is not among the table's known keys
    PyObject* method_ = nullptr;   // lives as long as this version of the type
    PyObject* property_ = nullptr; // the same
    SharedKeyTable keys_;
};

} // namespace py::fast
