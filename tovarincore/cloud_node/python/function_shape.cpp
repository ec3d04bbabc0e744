#include "function_shape.h"

#include "builders.h"
#include "globals.h"

namespace py {

namespace {

// Code of `lambda: None`, from which the code object of each function is derived.
Object plain_code()
{
    Object code = steal(Py_CompileString("lambda: None", "tovarincore/cloud_node", Py_eval_input));
    Object constants = code.get("co_consts"_s);
    return constants.item(Py_ssize_t{0});
}

Object make_code(FunctionObject* self)
{
    PyObject* names = parameter_names(self);
    if (names == nullptr)
        throw Raised{Where::here()};
    Object count = number(static_cast<long>(self->method->count));
    Object flags = number(CO_OPTIMIZED | CO_NEWLOCALS);
    return plain_code().method("replace"_s)({"co_argcount"_k = count, "co_nlocals"_k = count,
                                             "co_varnames"_k = borrow(names), "co_name"_k = borrow(self->name),
                                             "co_flags"_k = flags});
}

Object shape_of(FunctionObject* self)
{
    if (self->shape == nullptr) {
        Object code = make_code(self);
        PyObject* name = qualified_name(self);
        check(name == nullptr ? -1 : 0);
        Object shape = steal(PyFunction_NewWithQualName(code.ptr(), module_dictionary().ptr(), name));
        Object defaults = steal(PyObject_GetAttr(reinterpret_cast<PyObject*>(self), "__defaults__"_s.ptr()));
        check(PyFunction_SetDefaults(shape.ptr(), defaults.ptr()));
        Object replaced = adopt(std::exchange(self->shape, shape.release()));
    }
    return Object(borrow(self->shape));
}

} // namespace

PyObject* parameter_names(FunctionObject* self)
{
    if (self->names != nullptr)
        return self->names;
    PyObject* names = PyTuple_New(static_cast<Py_ssize_t>(self->method->count));
    if (names == nullptr)
        return nullptr;
    for (std::size_t i = 0; i < self->method->count; ++i) {
        PyObject* name = PyUnicode_InternFromString(self->method->parameters[i].name);
        if (name == nullptr) {
            Py_DECREF(names);
            return nullptr;
        }
        PyTuple_SET_ITEM(names, static_cast<Py_ssize_t>(i), name);
    }
    return self->names = names;
}

PyObject* qualified_name(FunctionObject* self)
{
    if (self->qualname == nullptr)
        self->qualname = PyUnicode_FromFormat("%s.%s", self->class_name, self->method->name.text());
    return self->qualname;
}

PyObject* make_annotations(const Method& method)
{
    return at_the_edge("__annotations__", [&] {
        Object annotations = dict({});
        for (std::size_t i = 0; i < method.count; ++i)
            if (method.parameters[i].annotation != nullptr) {
                Object text = steal(PyUnicode_FromString(method.parameters[i].annotation));
                check(PyDict_SetItemString(annotations.ptr(), method.parameters[i].name, text.ptr()));
            }
        if (method.result != nullptr) {
            Object text = steal(PyUnicode_FromString(method.result));
            check(PyDict_SetItemString(annotations.ptr(), "return", text.ptr()));
        }
        return annotations;
    });
}

PyObject* function_code(FunctionObject* self)
{
    return at_the_edge("__code__", [&] { return steal(PyObject_GetAttr(shape_of(self).ptr(), "__code__"_s.ptr())); });
}

PyObject* call_shape(FunctionObject* self, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords)
{
    try {
        Object shape = shape_of(self); // comparing names may give the function other defaults, and so another shape
        steal(PyObject_Vectorcall(shape.ptr(), arguments, flagged_count, keywords));
        PyErr_SetString(PyExc_SystemError, "arguments that fit were taken for a mismatch");
    } catch (const Raised&) {
        Parked parked;
    }
    return nullptr;
}

} // namespace py
