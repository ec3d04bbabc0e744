#include "globals.h"

#include "errors.h"
#include "imports.h"
#include "quiet_lookup.h"

#include <array>
#include <cstring>

namespace py {

namespace {

PyObject* module_names = nullptr;  // the module's dictionary
PyObject* builtin_names = nullptr; // the dictionary of the built-ins

// The built-ins resolved at import, each kept for the life of the process.
struct KeptBuiltin {
    PyObject* name = nullptr;
    PyObject* value = nullptr;
};
std::array<KeptBuiltin, 5> kept_builtins;

// The interpreter's own functions of these names, to tell whether somebody replaced them; null where that was so
// already when the module was imported.
PyObject *genuine_isinstance = nullptr, *genuine_len = nullptr;

// A borrowed value, or an empty Handle when the name is unknown.
Handle find_global(Name name, Where where)
{
    const GlobalCache& cache = name.caches().global;
    if (layout::known && cache.value != nullptr && cache.module_version == layout::version_of_dict(module_names) &&
        cache.builtins_version == layout::version_of_dict(builtin_names)) [[likely]]
        return borrow(cache.value);
    PyObject* found = PyDict_GetItemWithError(module_names, name.ptr());
    if (found == nullptr && !PyErr_Occurred())
        found = PyDict_GetItemWithError(builtin_names, name.ptr());
    if (found == nullptr && PyErr_Occurred())
        throw Raised{where};
    // Else the search may have run code that changed the dictionaries.
    if (!layout::known || !has_text_keys_only(module_names) || !has_text_keys_only(builtin_names))
        return borrow(found);
    if (NameCaches* caches = name.caches_to_fill())
        caches->global = {layout::version_of_dict(module_names), layout::version_of_dict(builtin_names), found};
    return borrow(found);
}

// Its __class__ is its type: isinstance() asks for both.
bool is_plainly_of_its_type(PyObject* object)
{
    PyObject* name = "__class__"_s.ptr();
    static PyObject* const usual = _PyType_Lookup(&PyBaseObject_Type, name);
    return Py_TYPE(object)->tp_getattro == PyObject_GenericGetAttr && _PyType_Lookup(Py_TYPE(object), name) == usual;
}

[[noreturn]] void raise_name_error(Name name, Where where)
{
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.ptr());
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (PyObject_SetAttrString(value, "name", name.ptr()) < 0) // as the interpreter does, for its suggestions
        PyErr_Clear();
    PyErr_Restore(type, value, traceback);
    throw Raised{where};
}

} // namespace

Handle module_dictionary() { return borrow(module_names); }

Handle builtin_dictionary() { return borrow(builtin_names); }

Object genuine_builtin(Name name)
{
    PyObject* found = PyDict_GetItemWithError(builtin_names, name.ptr());
    bool genuine = found != nullptr && PyCFunction_CheckExact(found) && PyCFunction_GET_SELF(found) != nullptr &&
                   PyModule_Check(PyCFunction_GET_SELF(found)) &&
                   PyModule_GetDict(PyCFunction_GET_SELF(found)) == builtin_names &&
                   std::strcmp(reinterpret_cast<PyCFunctionObject*>(found)->m_ml->ml_name, name.text()) == 0;
    return genuine ? Object(borrow(found)) : Object();
}

void open_module(Handle module)
{
    open_quiet_lookups();
    // Kept also when the import fails: a class of that attempt may live on, and reads its names here.
    module_names = Object(borrow(PyModule_GetDict(module.ptr()))).release();
    builtin_names = Object(borrow(PyEval_GetBuiltins())).release(); // those of the importing frame, as for any module
    genuine_isinstance = genuine_builtin("isinstance"_s).release();
    genuine_len = genuine_builtin("len"_s).release();
    open_imports();
    Object flags = steal(PyObject_GetAttrString(borrow(PySys_GetObject("flags")).ptr(), "optimize"));
    assertions_enabled = !flags.truthy();
}

Object global(Name name, Where where)
{
    Handle found = find_global(name, where);
    if (!found)
        raise_name_error(name, where);
    return Object(found);
}

Object global_of(Handle names, Name name, Where where)
{
    for (PyObject* dict : {names.ptr(), builtin_names}) {
        if (PyObject* found = PyDict_GetItemWithError(dict, name.ptr()))
            return Object(borrow(found));
        if (PyErr_Occurred())
            throw Raised{where};
    }
    raise_name_error(name, where);
}

void set_global(Name name, Handle value, Where where)
{
    check(PyDict_SetItem(module_names, name.ptr(), value.ptr()), where);
}

Handle kept_builtin(Name name)
{
    for (const KeptBuiltin& kept : kept_builtins)
        if (kept.name == name.ptr())
            return borrow(kept.value);
    return {};
}

void keep_builtins(std::initializer_list<Name> names)
{
    std::size_t place = 0;
    for (Name name : names)
        kept_builtins.at(place++) = {name.ptr(), global_of(borrow(builtin_names), name, Where::here()).release()};
}

bool is_instance(Handle object, Handle type, Where where)
{
    Handle function = find_global("isinstance"_s, where);
    if (function.ptr() != genuine_isinstance) [[unlikely]]
        return global("isinstance"_s, where)({object, type}, where).truthy(where);
    if (is_plainly_of_its_type(object.ptr()) && PyType_CheckExact(type.ptr()))
        return PyType_IsSubtype(Py_TYPE(object.ptr()), reinterpret_cast<PyTypeObject*>(type.ptr())) != 0;
    int status = PyObject_IsInstance(object.ptr(), type.ptr());
    check(status, where);
    return status != 0;
}

Py_ssize_t len(Handle object, Where where)
{
    Handle function = find_global("len"_s, where);
    if (function.ptr() != genuine_len) [[unlikely]] {
        Object length = global("len"_s, where)({object}, where);
        Py_ssize_t value = PyNumber_AsSsize_t(length.ptr(), PyExc_OverflowError);
        if (value == -1 && PyErr_Occurred())
            throw Raised{where};
        return value;
    }
    Py_ssize_t length = PyObject_Size(object.ptr());
    if (length < 0)
        throw Raised{where};
    return length;
}

Object str(Handle object, Where where)
{
    Handle function = find_global("str"_s, where);
    if (function.ptr() != reinterpret_cast<PyObject*>(&PyUnicode_Type)) [[unlikely]]
        return global("str"_s, where)({object}, where);
    return steal(PyObject_Str(object.ptr()), where);
}

} // namespace py
