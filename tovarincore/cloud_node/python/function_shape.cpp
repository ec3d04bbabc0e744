#include "function_shape.h"

#include "builders.h"
#include "globals.h"
#include "iteration.h"

#include <algorithm>
#include <opcode.h>
#include <string>
#include <string_view>

namespace py {

namespace {

Object text(std::string_view characters)
{
    return steal(PyUnicode_FromStringAndSize(characters.data(), static_cast<Py_ssize_t>(characters.size())));
}

Object bytes(const std::string& content)
{
    return steal(PyBytes_FromStringAndSize(content.data(), static_cast<Py_ssize_t>(content.size())));
}

std::string pair(std::size_t first, std::size_t second)
{
    return {static_cast<char>(first), static_cast<char>(second)};
}

// Where its instructions, two bytes each, are in the source: all in the first line.
std::string lines_of(std::size_t instructions)
{
#if PY_VERSION_HEX < 0x030B0000
    return pair(2 * instructions, 0);
#else
    constexpr std::size_t most = 8, without_columns = 0x80 + (13 << 3); // of an entry
    std::string lines;
    for (std::size_t done = 0; done < instructions; done += most)
        lines += pair(without_columns + std::min(most, instructions - done) - 1, 0);
    return lines;
#endif
}

// lambda self, region: (self, region)        under the method's name
//
// Written down in place of compiled: compiling at import would take as long as the rest of it, and a call that does not
// fit compiles nothing in Python. The compiler of CPython 3.10 also frees memory twice where there is none left.
Object code_for(FunctionObject* self)
{
    if (!has_parameter_names(self))
        raise_failure(CallSite::here());
    std::size_t count = self->method->count;
    std::string instructions;
#if PY_VERSION_HEX >= 0x030B0000
    instructions += pair(RESUME, 0);
    long flags = CO_OPTIMIZED | CO_NEWLOCALS;
#else
    long flags = CO_OPTIMIZED | CO_NEWLOCALS | CO_NOFREE;
#endif
    for (std::size_t place = 0; place < count; ++place)
        instructions += pair(LOAD_FAST, place);
    instructions += pair(BUILD_TUPLE, count) + pair(RETURN_VALUE, 0);
    Object empty =
        steal(reinterpret_cast<PyObject*>(PyCode_NewEmpty("tovarincore/cloud_node", self->method->name.text(), 1)));
    Object parameters = number(static_cast<long>(count));
    return empty.method("replace"_s)({"co_argcount"_k = parameters, "co_nlocals"_k = parameters,
                                      "co_stacksize"_k = number(static_cast<long>(count) + 1),
                                      "co_flags"_k = number(flags), "co_code"_k = bytes(instructions),
                                      "co_linetable"_k = bytes(lines_of(instructions.size() / 2)),
                                      "co_varnames"_k = borrow(self->names)});
}

Object defaults_for(const Method& method)
{
    Object defaults = list({});
    for (std::size_t i = 0; i < method.count; ++i)
        if (PyObject* value = value_of(method.defaults[i]))
            append(defaults, borrow(value));
    return PyList_GET_SIZE(defaults.ptr()) == 0 ? none() : steal(PyList_AsTuple(defaults.ptr()));
}

// The same dictionary each time.
Object annotations_of(FunctionObject* self)
{
    if (self->annotations != nullptr)
        return Object(borrow(self->annotations));
    Object annotations = dict({});
    Signature rest{self->method->signature};
    while (!rest.is_taken())
        if (Parameter parameter = rest.take(); !parameter.annotation.empty())
            annotations.set_item(text(parameter.name), text(parameter.annotation));
    if (!rest.result().empty())
        annotations.set_item("return"_s, text(rest.result()));
    if (self->annotations == nullptr) // else code that a collection ran has made one
        self->annotations = annotations.release();
    return Object(borrow(self->annotations));
}

Object qualified_name(FunctionObject* self)
{
    return steal(PyUnicode_FromFormat("%s.%s", self->class_name, self->method->name.text()));
}

// What needs no shape, which most programs never ask for: the class statement and `staticmethod` ask functions for
// these.
PyObject* get_from_row(FunctionObject* self, std::string_view name)
{
    if (name == "__name__")
        return Object(self->method->name).release();
    if (name == "__qualname__")
        return qualified_name(self).release();
    if (name == "__module__")
        return Object(borrow(self->module)).release();
    if (name == "__class__")
        return Object(borrow(reinterpret_cast<PyObject*>(&PyFunction_Type))).release();
    if (name == "__doc__" && self->method->doc == nullptr)
        return none().release();
    if (name == "__annotations__")
        return annotations_of(self).release();
    return nullptr;
}

} // namespace

bool has_parameter_names(FunctionObject* self)
{
    if (self->names != nullptr)
        return true;
    PyObject* names = PyTuple_New(static_cast<Py_ssize_t>(self->method->count));
    Signature rest{self->method->signature};
    for (std::size_t i = 0; names != nullptr && i < self->method->count; ++i) {
        std::string_view text = rest.take().name;
        PyObject* name = PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
        if (name != nullptr)
            PyUnicode_InternInPlace(&name);
        PyTuple_SET_ITEM(names, static_cast<Py_ssize_t>(i), name);
        if (name == nullptr)
            Py_CLEAR(names);
    }
    Py_XDECREF(std::exchange(self->names, names)); // a collection may have run code that made them
    return names != nullptr;
}

Object shape_of(FunctionObject* self)
{
    if (self->shape == nullptr) {
        const Method& method = *self->method;
        Object name = qualified_name(self);
        Object code = code_for(self);
        Object shape = steal(PyFunction_NewWithQualName(code.ptr(), module_dictionary().ptr(), name.ptr()));
        shape.set("__name__"_s, method.name);
        shape.set("__module__"_s, borrow(self->module));
        shape.set("__doc__"_s, method.doc == nullptr ? none() : text(method.doc));
        shape.set("__defaults__"_s, defaults_for(method));
        shape.set("__annotations__"_s, annotations_of(self));
        if (self->shape == nullptr) { // else code that a collection ran has made one
            self->shape = shape.release();
            self->code = code.release();
        }
    }
    return Object(borrow(self->shape));
}

PyObject* get_from_shape(PyObject* object, void* closure)
{
    auto* self = reinterpret_cast<FunctionObject*>(object);
    const auto* name = static_cast<const char*>(closure);
    return at_the_edge(nullptr, [&] {
        if (self->shape == nullptr)
            if (PyObject* known = get_from_row(self, name))
                return adopt(known);
        return steal(PyObject_GetAttrString(shape_of(self).ptr(), name));
    });
}

int set_in_shape(PyObject* object, PyObject* value, void* closure)
{
    auto* self = reinterpret_cast<FunctionObject*>(object);
    std::string_view name = static_cast<const char*>(closure);
    PyObject* done = at_the_edge(nullptr, [&] {
        Object shape = shape_of(self);
        check(PyObject_SetAttrString(shape.ptr(), name.data(), value)); // null deletes
        self->rebound = self->rebound || name == "__defaults__" || name == "__kwdefaults__";
        self->replaced = PyFunction_GET_CODE(shape.ptr()) != self->code;
        return none();
    });
    Py_XDECREF(done);
    return done == nullptr ? -1 : 0;
}

} // namespace py
