#include "function.h"

#include "function_shape.h"
#include "globals.h"
#include "recursion.h"

#include <algorithm>
#include <structmember.h>

namespace py {

namespace {

// Borrowed; null for a required parameter.
PyObject* default_in_row(const Parameter& parameter)
{
    static PyObject* const values[] = {nullptr, Py_None, Py_False, Py_True};
    static_assert(static_cast<int>(Default::none) == 1 && static_cast<int>(Default::true_) == 3);
    return values[static_cast<std::size_t>(parameter.default_value)];
}

// The same, or what a program has put in its place.
PyObject* default_value(const Method& method, PyObject* defaults, std::size_t index)
{
    if (defaults == nullptr)
        return default_in_row(method.parameters[index]);
    if (defaults == Py_None)
        return nullptr;
    Py_ssize_t place =
        static_cast<Py_ssize_t>(index) - static_cast<Py_ssize_t>(method.count) + PyTuple_GET_SIZE(defaults);
    return place < 0 ? nullptr : PyTuple_GET_ITEM(defaults, place);
}

enum class Binding { done, mismatch, failed };

// Finds the parameter that a keyword names: by identity, since names are interned, then by comparison.
Py_ssize_t find_parameter(FunctionObject* self, PyObject* keyword)
{
    PyObject* names = parameter_names(self);
    if (names == nullptr)
        return -2;
    Object in_use(borrow(names)); // while they are compared
    Py_ssize_t count = PyTuple_GET_SIZE(names);
    for (Py_ssize_t i = 0; i < count; ++i)
        if (PyTuple_GET_ITEM(names, i) == keyword)
            return i;
    for (Py_ssize_t i = 0; i < count; ++i) {
        int equal = PyObject_RichCompareBool(PyTuple_GET_ITEM(names, i), keyword, Py_EQ);
        if (equal != 0)
            return equal < 0 ? -2 : i;
    }
    return -1;
}

// Puts the arguments passed by keyword into their places.
Binding bind_keywords(FunctionObject* self, PyObject* const* arguments, PyObject* keywords, PyObject** bound)
{
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(keywords); ++i) {
        Py_ssize_t index = find_parameter(self, PyTuple_GET_ITEM(keywords, i));
        if (index == -2)
            return Binding::failed;
        if (index == -1 || bound[index] != nullptr)
            return Binding::mismatch;
        bound[index] = arguments[i];
    }
    return Binding::done;
}

// Fills `bound` with borrowed references: positional arguments, keywords, defaults. Comparing the keywords may run code
// that gives the function other defaults: those count then, and `defaults` owns them.
Binding bind(FunctionObject* self, PyObject* const* arguments, std::size_t given, PyObject* keywords, PyObject** bound,
             Object& defaults)
{
    std::size_t count = self->method->count;
    if (given > count)
        return Binding::mismatch;
    std::copy_n(arguments, given, bound);
    if (keywords != nullptr) {
        std::fill(bound + given, bound + count, nullptr);
        Binding binding = bind_keywords(self, arguments + given, keywords, bound);
        if (binding != Binding::done)
            return binding;
    }
    defaults = Object(borrow(self->defaults));
    for (std::size_t i = given; i < count; ++i) {
        if (keywords == nullptr || bound[i] == nullptr)
            bound[i] = default_value(*self->method, defaults.ptr(), i);
        if (bound[i] == nullptr)
            return Binding::mismatch;
    }
    return Binding::done;
}

PyObject* run(FunctionObject* self, PyObject* const* arguments)
{
    // A method that comes back to itself without a Python frame in between must end in RecursionError as well.
    NativeCall call;
    if (!call.enter())
        return nullptr;
    PyObject* result = self->method->body(*self->method, arguments);
    call.leave();
    return result;
}

// Apart from call_own_function(), whose shortest way so needs no room for arguments.
[[gnu::noinline]] PyObject* bind_and_run(FunctionObject* self, PyObject* const* arguments, std::size_t flagged_count,
                                         PyObject* keywords)
{
    PyObject* bound[most_parameters]; // borrowed, some from the defaults, which the call may replace
    Object defaults;
    switch (
        bind(self, arguments, static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count)), keywords, bound, defaults)) {
    case Binding::done:
        return run(self, bound);
    case Binding::mismatch:
        return call_shape(self, arguments, flagged_count, keywords);
    case Binding::failed:
        break;
    }
    return nullptr;
}

PyObject* bind_to(PyObject* self, PyObject* instance, PyObject*)
{
    if (instance == nullptr || instance == Py_None) {
        Py_INCREF(self);
        return self;
    }
    return PyMethod_New(self, instance);
}

PyObject* represent(PyObject* self)
{
    PyObject* name = qualified_name(reinterpret_cast<FunctionObject*>(self));
    return name == nullptr ? nullptr : PyUnicode_FromFormat("<function %U at %p>", name, self);
}

PyObject* new_reference(PyObject* object)
{
    Py_XINCREF(object);
    return object;
}

// Takes texts only, as a function's names do: repr and pickle read them.
int set_text(PyObject** member, PyObject* value, const char* attribute)
{
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object", attribute);
        return -1;
    }
    Py_INCREF(value);
    Py_XSETREF(*member, value);
    return 0;
}

PyObject* get_name(PyObject* self, void*) { return new_reference(reinterpret_cast<FunctionObject*>(self)->name); }

int set_name(PyObject* self, PyObject* value, void*)
{
    return set_text(&reinterpret_cast<FunctionObject*>(self)->name, value, "__name__");
}

PyObject* get_qualname(PyObject* self, void*)
{
    return new_reference(qualified_name(reinterpret_cast<FunctionObject*>(self)));
}

int set_qualname(PyObject* self, PyObject* value, void*)
{
    return set_text(&reinterpret_cast<FunctionObject*>(self)->qualname, value, "__qualname__");
}

PyObject* get_doc(PyObject* self, void*)
{
    auto* function = reinterpret_cast<FunctionObject*>(self);
    if (function->doc == nullptr)
        function->doc =
            function->method->doc == nullptr ? new_reference(Py_None) : PyUnicode_FromString(function->method->doc);
    return new_reference(function->doc);
}

int set_doc(PyObject* self, PyObject* value, void*)
{
    value = new_reference(value == nullptr ? Py_None : value); // deleted: none from then on
    Py_XSETREF(reinterpret_cast<FunctionObject*>(self)->doc, value);
    return 0;
}

PyObject* get_defaults(PyObject* self, void*)
{
    auto* function = reinterpret_cast<FunctionObject*>(self);
    if (function->defaults == nullptr) {
        const Method& method = *function->method;
        std::size_t first = 0;
        while (first < method.count && default_in_row(method.parameters[first]) == nullptr)
            ++first;
        if (first == method.count)
            Py_RETURN_NONE;
        PyObject* made = PyTuple_New(static_cast<Py_ssize_t>(method.count - first));
        if (made == nullptr)
            return nullptr;
        for (std::size_t i = first; i < method.count; ++i)
            PyTuple_SET_ITEM(made, static_cast<Py_ssize_t>(i - first),
                             Object(borrow(default_in_row(method.parameters[i]))).release());
        return made;
    }
    Py_INCREF(function->defaults);
    return function->defaults;
}

int set_defaults(PyObject* self, PyObject* value, void*)
{
    auto* function = reinterpret_cast<FunctionObject*>(self);
    if (value == nullptr)
        value = Py_None;
    if (value != Py_None && !PyTuple_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__defaults__ must be set to a tuple object");
        return -1;
    }
    Py_INCREF(value);
    Py_XSETREF(function->defaults, value);
    Py_CLEAR(function->shape);
    return 0;
}

PyObject* get_annotations(PyObject* self, void*)
{
    auto* function = reinterpret_cast<FunctionObject*>(self);
    if (function->annotations == nullptr)
        function->annotations = make_annotations(*function->method);
    Py_XINCREF(function->annotations);
    return function->annotations;
}

int set_annotations(PyObject* self, PyObject* value, void*)
{
    if (value == nullptr || !PyDict_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__annotations__ must be set to a dict object");
        return -1;
    }
    Py_INCREF(value);
    Py_XSETREF(reinterpret_cast<FunctionObject*>(self)->annotations, value);
    return 0;
}

PyObject* get_keyword_defaults(PyObject*, void*) { Py_RETURN_NONE; }

PyObject* get_code(PyObject* self, void*) { return function_code(reinterpret_cast<FunctionObject*>(self)); }

PyObject* get_globals(PyObject*, void*) { return Object(module_dictionary()).release(); }

PyObject* reduce(PyObject* self, PyObject*) { return get_qualname(self, nullptr); }

template <class Visit> int each_reference(FunctionObject* self, Visit visit)
{
    for (PyObject** member : {&self->name, &self->qualname, &self->module, &self->doc, &self->defaults,
                              &self->annotations, &self->names, &self->shape, &self->attributes})
        if (int stop = visit(member))
            return stop;
    return 0;
}

int traverse(PyObject* self, visitproc visit, void* arg)
{
    return each_reference(reinterpret_cast<FunctionObject*>(self),
                          [&](PyObject** member) { return *member == nullptr ? 0 : visit(*member, arg); });
}

int clear(PyObject* self)
{
    return each_reference(reinterpret_cast<FunctionObject*>(self), [](PyObject** member) {
        Py_CLEAR(*member);
        return 0;
    });
}

void deallocate(PyObject* self)
{
    PyObject_GC_UnTrack(self);
    if (reinterpret_cast<FunctionObject*>(self)->weak_references != nullptr)
        PyObject_ClearWeakRefs(self);
    clear(self);
    PyObject_GC_Del(self);
}

PyMemberDef members[] = {
    {"__module__", T_OBJECT, offsetof(FunctionObject, module), 0, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"__name__", get_name, set_name, nullptr, nullptr},
    {"__qualname__", get_qualname, set_qualname, nullptr, nullptr},
    {"__doc__", get_doc, set_doc, nullptr, nullptr},
    {"__defaults__", get_defaults, set_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_keyword_defaults, nullptr, nullptr, nullptr},
    {"__annotations__", get_annotations, set_annotations, nullptr, nullptr},
    {"__code__", get_code, nullptr, nullptr, nullptr},
    {"__globals__", get_globals, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef methods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyTypeObject function_type = [] {
    PyTypeObject type{};
    Py_SET_REFCNT(reinterpret_cast<PyObject*>(&type), 1);
    type.tp_name = "tovarincore.cloud_node.native_function";
    type.tp_basicsize = sizeof(FunctionObject);
    type.tp_dealloc = deallocate;
    type.tp_vectorcall_offset = offsetof(FunctionObject, vectorcall);
    type.tp_repr = represent;
    type.tp_call = PyVectorcall_Call;
    type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR;
    type.tp_traverse = traverse;
    type.tp_clear = clear;
    type.tp_weaklistoffset = offsetof(FunctionObject, weak_references);
    type.tp_methods = methods;
    type.tp_members = members;
    type.tp_getset = properties;
    type.tp_descr_get = bind_to;
    type.tp_dictoffset = offsetof(FunctionObject, attributes);
    return type;
}();

} // namespace

bool is_own_function(PyObject* object) { return Py_IS_TYPE(object, &function_type); }

PyObject* call_own_function(PyObject* callable, PyObject* const* arguments, std::size_t flagged_count,
                            PyObject* keywords)
{
    auto* self = reinterpret_cast<FunctionObject*>(callable);
    auto given = static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count));
    if (keywords == nullptr && given == self->method->count)
        return run(self, arguments);
    return bind_and_run(self, arguments, flagged_count, keywords);
}

PyObject* call_own_function_in_place(PyObject* callable, PyObject** arguments, std::size_t given)
{
    auto* self = reinterpret_cast<FunctionObject*>(callable);
    std::size_t next = given;
    while (next < self->method->count && self->defaults == nullptr) {
        arguments[next] = default_in_row(self->method->parameters[next]);
        if (arguments[next] == nullptr)
            break;
        ++next;
    }
    if (next == self->method->count)
        return run(self, arguments);
    return bind_and_run(self, arguments, given, nullptr);
}

void ready_function_type() { check(PyType_Ready(&function_type)); }

Object make_function(const Method& method, const char* class_name, Handle module_name)
{
    Object name(method.name);
    auto* made = PyObject_GC_New(FunctionObject, &function_type);
    Object function = steal(reinterpret_cast<PyObject*>(made));
    made->vectorcall = call_own_function;
    made->method = &method;
    made->class_name = class_name;
    made->name = name.release();
    made->module = Object(module_name).release();
    made->qualname = made->doc = made->defaults = made->annotations = nullptr;
    made->names = made->shape = made->attributes = made->weak_references = nullptr;
    PyObject_GC_Track(function.ptr());
    return function;
}

} // namespace py
