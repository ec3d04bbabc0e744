#include "function.h"

#include "function_shape.h"
#include "globals.h"
#include "recursion.h"

namespace py {

namespace {

// Puts the arguments passed by keyword into their places. Names are interned, so that their addresses are compared;
// false where they are not, or do not fit.
bool place_keywords(PyObject* names, PyObject* const* arguments, PyObject* keywords, PyObject** bound)
{
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(keywords); ++i) {
        Py_ssize_t place = 0;
        while (place < PyTuple_GET_SIZE(names) && PyTuple_GET_ITEM(names, place) != PyTuple_GET_ITEM(keywords, i))
            ++place;
        if (place == PyTuple_GET_SIZE(names) || bound[place] != nullptr)
            return false;
        bound[place] = arguments[i];
    }
    return true;
}

// Fills `bound` with borrowed references: positional arguments, keywords, defaults. Runs no code; false where that is
// not enough, or where the arguments do not fit.
bool bind(const Method& method, PyObject* names, PyObject* const* arguments, std::size_t given, PyObject* keywords,
          PyObject** bound)
{
    if (given > method.count)
        return false;
    for (std::size_t i = 0; i < method.count; ++i) // one loop: two would become calls of the C library
        bound[i] = i < given ? arguments[i] : nullptr;
    if (keywords != nullptr && !place_keywords(names, arguments + given, keywords, bound))
        return false;
    for (std::size_t i = given; i < method.count; ++i) {
        if (bound[i] == nullptr)
            bound[i] = value_of(method.defaults[i]);
        if (bound[i] == nullptr)
            return false;
    }
    return true;
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

std::size_t len_of_tuple(Handle tuple) { return static_cast<std::size_t>(PyTuple_GET_SIZE(tuple.ptr())); }

// The interpreter binds the arguments: the shape, called with them, gives them back in order, or raises the error of a
// call that does not fit.
PyObject* run_as_bound_by_shape(FunctionObject* self, PyObject* const* arguments, std::size_t flagged_count,
                                PyObject* keywords)
{
    return at_the_edge(nullptr, [&] {
        Object shape = shape_of(self);
        bool replaced = self->replaced;
        Object bound = steal(PyObject_Vectorcall(shape.ptr(), arguments, flagged_count, keywords));
        if (replaced || !PyTuple_CheckExact(bound.ptr()) || len_of_tuple(bound) != self->method->count)
            return bound; // the result of what a program has put in the place of our code
        return steal(run(self, &PyTuple_GET_ITEM(bound.ptr(), 0)));
    });
}

// Apart from call_own_function(), whose shortest way so needs no room for arguments.
[[gnu::noinline]] PyObject* bind_and_run(FunctionObject* self, PyObject* const* arguments, std::size_t flagged_count,
                                         PyObject* keywords)
{
    PyObject* bound[most_parameters];
    auto given = static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count));
    if (keywords != nullptr && !has_parameter_names(self))
        return nullptr;
    if (!self->rebound && !self->replaced && bind(*self->method, self->names, arguments, given, keywords, bound))
        return run(self, bound);
    return run_as_bound_by_shape(self, arguments, flagged_count, keywords);
}

PyObject* bind_to(PyObject* self, PyObject* instance, PyObject*)
{
    if (instance == nullptr || instance == Py_None) {
        Py_INCREF(self);
        return self;
    }
    return PyMethod_New(self, instance);
}

PyObject* qualified_name(PyObject* self) { return get_from_shape(self, const_cast<char*>("__qualname__")); }

PyObject* represent(PyObject* self)
{
    PyObject* name = qualified_name(self);
    PyObject* shown = name == nullptr ? nullptr : PyUnicode_FromFormat("<function %U at %p>", name, self);
    Py_XDECREF(name);
    return shown;
}

PyObject* reduce(PyObject* self, PyObject*) { return qualified_name(self); } // pickled by name

template <class Visit> int each_reference(FunctionObject* self, Visit visit)
{
    for (PyObject** member :
         {&self->module, &self->names, &self->annotations, &self->shape, &self->code, &self->attributes})
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

PyGetSetDef of_shape(const char* name)
{
    return {name, get_from_shape, set_in_shape, nullptr, const_cast<char*>(name)};
}

PyGetSetDef properties[] = {
    of_shape("__class__"), // isinstance(f, types.FunctionType) holds, which inspect and unittest.mock ask
    of_shape("__name__"),
    of_shape("__qualname__"),
    of_shape("__module__"),
    of_shape("__doc__"),
    of_shape("__defaults__"),
    of_shape("__kwdefaults__"),
    of_shape("__annotations__"),
    of_shape("__code__"),
    of_shape("__globals__"),
    of_shape("__closure__"),
    of_shape("__builtins__"),
#if PY_VERSION_HEX >= 0x030C0000
    of_shape("__type_params__"),
#endif
#if PY_VERSION_HEX >= 0x030E0000
    of_shape("__annotate__"),
#endif
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
    if (keywords == nullptr && given == self->method->count && !self->replaced)
        return run(self, arguments);
    return bind_and_run(self, arguments, flagged_count, keywords);
}

void ready_function_type() { check(PyType_Ready(&function_type)); }

Object make_function(const Method& method, const char* class_name, Handle module_name)
{
    auto* made = PyObject_GC_New(FunctionObject, &function_type);
    Object function = steal(reinterpret_cast<PyObject*>(made));
    made->vectorcall = call_own_function;
    made->method = &method;
    made->class_name = class_name;
    made->module = Object(module_name).release();
    made->names = made->annotations = made->shape = made->code = nullptr;
    made->attributes = made->weak_references = nullptr;
    made->rebound = made->replaced = false;
    PyObject_GC_Track(function.ptr());
    return function;
}

} // namespace py
