// Calls, by the interpreter's vector call protocol.
#include "function.h"
#include "layout.h"
#include "object.h"
#include "quiet_lookup.h"
#include "recursion.h"

#include <utility>

namespace py {

namespace {

bool are_names_of(PyObject* names, const Argument* keywords, std::size_t count)
{
    if (names == nullptr || std::cmp_not_equal(PyTuple_GET_SIZE(names), count))
        return false;
    for (std::size_t i = 0; i < count; ++i)
        if (PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(i)) != keywords[i].keyword()->ptr())
            return false;
    return true;
}

// A class whose instances come from object.__new__ and a Python __init__: what calling the class does is then done
// here, without a tuple and a dictionary of the arguments in between. Null where it has to be the call of the class.
PyObject* python_initialiser(PyObject* callable)
{
    if (!layout::known || !Py_IS_TYPE(callable, &PyType_Type))
        return nullptr;
    auto* type = reinterpret_cast<PyTypeObject*>(callable);
    if (type->tp_new != PyBaseObject_Type.tp_new || PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT) ||
        type->tp_init == PyBaseObject_Type.tp_init || !is_quiet_class(type))
        return nullptr;
    PyObject* found = _PyType_Lookup(type, "__init__"_s.ptr());
    return found != nullptr && PyFunction_Check(found) ? found : nullptr;
}

// Without a collection, whose finalisers could give the class another initialiser.
PyObject* allocate(PyTypeObject* type)
{
    NoCollection undisturbed;
    return layout::new_instance(type);
}

// class(...)
Object construct(Handle callable, Handle initialiser, PyObject** values, std::size_t positional, Handle names,
                 Where where)
{
    auto* type = reinterpret_cast<PyTypeObject*>(callable.ptr());
    Object function(initialiser);
    Object made = steal(allocate(type), where);
    values[0] = made.ptr();
    Level level(where);
    Object result = steal(PyObject_Vectorcall(function.ptr(), values, positional + 1, names.ptr()), where);
    if (!result.is_none()) {
        PyErr_Format(PyExc_TypeError, "__init__() should return None, not '%.200s'", Py_TYPE(result.ptr())->tp_name);
        throw Raised{where};
    }
    return made;
}

} // namespace

// A call site passes the same names each time: the last tuple that began with the same name is kept.
Object keyword_names(const Argument* keywords, std::size_t count, Where where)
{
    Object kept(borrow(keywords[0].keyword()->caches().keyword_names));
    if (are_names_of(kept.ptr(), keywords, count))
        return kept;
    Object names = steal(PyTuple_New(static_cast<Py_ssize_t>(count)), where);
    for (std::size_t i = 0; i < count; ++i)
        PyTuple_SET_ITEM(names.ptr(), static_cast<Py_ssize_t>(i),
                         Object(borrow(keywords[i].keyword()->ptr())).release());
    if (NameCaches* caches = keywords[0].keyword()->caches_to_fill()) // what it holds by now: making the tuple may have
        kept = adopt(std::exchange(caches->keyword_names, Object(names).release())); // run code that calls
    return names;
}

Object call_prepared(Handle function, PyObject** values, std::size_t positional, Handle names, Where where)
{
    if (PyObject* initialiser = python_initialiser(function.ptr()))
        return construct(function, borrow(initialiser), values, positional, names, where);
    return steal(
        PyObject_Vectorcall(function.ptr(), values + 1, positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names.ptr()),
        where);
}

MethodOfObject Handle::method(Name name, Where where) const
{
    if (PyObject* found = name.caches().attribute.known_method(pointer_))
        return {Object(borrow(found)), *this};
    if (PyType_Check(pointer_)) {
        if (PyObject* found = name.caches().class_attribute.known_method(pointer_))
            return {Object(borrow(found)), *this};
        if (NameCaches* caches = name.caches_to_fill())
            caches->class_attribute.consider(pointer_, name.ptr());
    } else if (PyObject* found = module_attribute(pointer_, name.ptr())) {
        return {Object(borrow(found)), Handle()};
    } else if (NameCaches* caches = name.caches_to_fill()) {
        caches->attribute.consider(pointer_, name.ptr());
    }
    PyObject* found = nullptr;
    bool takes_self = find_method(pointer_, name.ptr(), &found);
    return {steal(found, where), takes_self ? *this : Handle()};
}

Object MethodOfObject::call(PyObject** values, std::size_t positional, Handle names, Where where) const
{
    if (!self_)
        return call_prepared(function_, values, positional, names, where);
    values[0] = self_.ptr();
    PyObject* function = function_.ptr();
    if (is_own_function(function))
        return steal(call_own_function(function, values, positional + 1, names.ptr()), where);
    return steal(PyObject_Vectorcall(function, values, positional + 1, names.ptr()), where);
}

} // namespace py
