#include "globals.h"

#include "errors.h"

namespace py {

namespace {

PyObject* module_names = nullptr;  // the module's dictionary
PyObject* builtin_names = nullptr; // the dictionary of the built-ins
PyObject* kept_builtins = nullptr; // dict: the built-ins resolved at import

// The genuine functions of these names, to tell whether somebody replaced them.
PyObject *genuine_import = nullptr, *genuine_isinstance = nullptr, *genuine_len = nullptr;

// A borrowed value, or an empty Handle when the name is unknown.
Handle find_global(Name name, Where where)
{
    GlobalCache& cache = name.global_cache();
    if (layout::known && cache.value != nullptr && cache.module_version == layout::version_of_dict(module_names) &&
        cache.builtins_version == layout::version_of_dict(builtin_names)) [[likely]]
        return borrow(cache.value);
    PyObject* found = PyDict_GetItemWithError(module_names, name.ptr());
    if (found == nullptr && !PyErr_Occurred())
        found = PyDict_GetItemWithError(builtin_names, name.ptr());
    if (found == nullptr && PyErr_Occurred())
        throw Raised{where};
    cache = {layout::version_of_dict(module_names), layout::version_of_dict(builtin_names), found};
    return borrow(found);
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

PyObject* built_in(const char* name)
{
    PyObject* found = PyDict_GetItemString(builtin_names, name);
    Py_XINCREF(found);
    return found;
}

Object import_with(Name module, Handle names_wanted, Where where)
{
    PyObject* importer = PyDict_GetItemWithError(builtin_names, "__import__"_s.ptr());
    if (importer == nullptr) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ImportError, "__import__ not found");
        throw Raised{where};
    }
    if (importer == genuine_import)
        return steal(PyImport_ImportModuleLevelObject(module.ptr(), module_names, nullptr, names_wanted.ptr(), 0), where);
    Object level = steal(PyLong_FromLong(0), where);
    Object replaced(borrow(importer));
    return call(replaced, {module, borrow(module_names), none(), names_wanted, level}, where);
}

[[noreturn]] void raise_cannot_import(Handle module, Name name, Handle module_name, Where where)
{
    Object path = adopt(PyModule_GetFilenameObject(module.ptr()));
    Object message;
    if (path) {
        message = steal(PyUnicode_FromFormat("cannot import name %R from %R (%S)", name.ptr(), module_name.ptr(), path.ptr()),
                        where);
    } else {
        PyErr_Clear();
        path = none();
        message = steal(
            PyUnicode_FromFormat("cannot import name %R from %R (unknown location)", name.ptr(), module_name.ptr()), where);
    }
    PyErr_SetImportError(message.ptr(), module_name.ptr(), path.is_none() ? nullptr : path.ptr());
    throw Raised{where};
}

} // namespace

Handle module_dictionary() { return borrow(module_names); }

void open_module(Handle module)
{
    module_names = PyModule_GetDict(module.ptr());
    Object builtins = steal(PyImport_ImportModule("builtins"));
    builtin_names = PyModule_GetDict(builtins.ptr());
    kept_builtins = steal(PyDict_New()).release();
    genuine_import = built_in("__import__");
    genuine_isinstance = built_in("isinstance");
    genuine_len = built_in("len");
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

void set_global(Name name, Handle value, Where where)
{
    check(PyDict_SetItem(module_names, name.ptr(), value.ptr()), where);
}

Object call_global(Name name, Arguments arguments, Where where)
{
    Object function = global(name, where);
    return call(function, arguments, where);
}

Handle kept_builtin(Name name) { return borrow(PyDict_GetItemWithError(kept_builtins, name.ptr())); }

void keep_builtins(std::initializer_list<Name> names)
{
    for (Name name : names) {
        PyObject* found = PyDict_GetItemWithError(builtin_names, name.ptr());
        if (found == nullptr)
            raise_name_error(name, Where::here());
        check(PyDict_SetItem(kept_builtins, name.ptr(), found));
    }
}

Object import_module(Name module, Where where) { return import_with(module, borrow(Py_None), where); }

Object import_from(Name module, Name name, Where where)
{
    Object wanted = steal(PyTuple_Pack(1, name.ptr()), where);
    Object source = import_with(module, wanted, where);
    Object found = adopt(PyObject_GetAttr(source.ptr(), name.ptr()));
    if (found)
        return found;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError))
        throw Raised{where};
    PyErr_Clear();
    // A sub-module that is still being imported stands in sys.modules before it is an attribute of its package.
    Object source_name = adopt(PyObject_GetAttr(source.ptr(), "__name__"_s.ptr()));
    if (!source_name || !PyUnicode_Check(source_name.ptr())) {
        PyErr_Clear();
        source_name = steal(PyUnicode_FromString("<unknown module name>"), where);
        raise_cannot_import(source, name, source_name, where);
    }
    Object full_name = steal(PyUnicode_FromFormat("%U.%U", source_name.ptr(), name.ptr()), where);
    found = adopt(PyImport_GetModule(full_name.ptr()));
    if (found)
        return found;
    if (PyErr_Occurred())
        throw Raised{where};
    raise_cannot_import(source, name, source_name, where);
}

bool is_instance(Handle object, Handle type, Where where)
{
    Handle function = find_global("isinstance"_s, where);
    if (function.ptr() != genuine_isinstance) [[unlikely]]
        return call_global("isinstance"_s, {object, type}, where).truthy(where);
    int status = PyObject_IsInstance(object.ptr(), type.ptr());
    check(status, where);
    return status != 0;
}

Py_ssize_t len(Handle object, Where where)
{
    Handle function = find_global("len"_s, where);
    if (function.ptr() != genuine_len) [[unlikely]] {
        Object length = call_global("len"_s, {object}, where);
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
        return call_global("str"_s, {object}, where);
    return steal(PyObject_Str(object.ptr()), where);
}

} // namespace py
