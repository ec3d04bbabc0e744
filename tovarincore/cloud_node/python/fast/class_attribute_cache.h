// Where an attribute of a class itself was found the last time: NodeState.RUNNING, NodeState.from_aws_value(...).
// Answers, as attribute_cache.h does, only where the interpreter's own lookup runs no Python code.
#pragma once

#include "layout.h"

namespace py::fast {

class ClassAttributeCache {
public:
    // Borrowed. Null: look it up in the general way, and consider() it.
    PyObject* known_value(PyObject* object) const
    {
        if (!knows(object) || kind_ == Kind::class_method)
            return nullptr;
        return kind_ == Kind::value ? found_ : layout::wrapped_function(found_);
    }

    // The function of a class method, to be called with the class as its first argument; borrowed. Null: as above.
    PyObject* known_method(PyObject* object) const
    {
        if (!knows(object) || kind_ != Kind::class_method)
            return nullptr;
        PyObject* function = layout::wrapped_function(found_);
        return function != nullptr && PyFunction_Check(function) ? function : nullptr;
    }

    // The function of a static method, to be called without the class; borrowed. Null: as above.
    PyObject* known_static_method(PyObject* object) const
    {
        return knows(object) && kind_ == Kind::static_method ? layout::wrapped_function(found_) : nullptr;
    }

    // Learns from a class that comes twice running; for class objects only.
    void consider(PyObject* object, PyObject* name);

private:
    enum class Kind : unsigned char { value, static_method, class_method };

    bool knows(PyObject* object) const
    {
        if (object != reinterpret_cast<PyObject*>(class_)) [[likely]]
            return false;
        return layout::version_of_type(class_) == version_ && Py_TYPE(object) == metaclass_ &&
               layout::version_of_type(metaclass_) == metaclass_version_ && Py_TYPE(found_) == found_type_ &&
               layout::version_of_type(found_type_) == found_type_version_;
    }

    PyTypeObject* class_ = nullptr;
    PyTypeObject* metaclass_ = nullptr;
    PyObject* found_ = nullptr; // lives as long as this version of the class
    PyTypeObject* found_type_ = nullptr;
    unsigned version_ = 0;
    unsigned metaclass_version_ = 0;
    unsigned found_type_version_ = 0;
    unsigned candidate_version_ = 0;
    unsigned unfit_version_ = 0; // of a class that computes the attribute; not tried again
    Kind kind_ = Kind::value;
};

} // namespace py::fast
