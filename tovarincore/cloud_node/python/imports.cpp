#include "imports.h"

#include "builders.h"
#include "globals.h"

namespace py {

namespace {

PyObject* genuine_import = nullptr; // null when __import__ was replaced before the module was imported

Object import_with(Name module, Handle names_wanted, Where where)
{
    PyObject* importer = PyDict_GetItemWithError(builtin_dictionary().ptr(), "__import__"_s.ptr());
    if (importer == nullptr) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ImportError, "__import__ not found");
        throw Raised{where};
    }
    PyObject* names = module_dictionary().ptr();
    if (importer == genuine_import)
        return steal(PyImport_ImportModuleLevelObject(module.ptr(), names, nullptr, names_wanted.ptr(), 0), where);
    Object replaced(borrow(importer));
    return replaced({module, borrow(names), none(), names_wanted, number(0, where)}, where);
}

// Whether the module is still running its body: then the missing name is most likely a circular import's.
bool is_initialising(Handle module)
{
    PyObject* spec = PyObject_GetAttr(module.ptr(), "__spec__"_s.ptr());
    PyObject* flag = spec == nullptr ? nullptr : PyObject_GetAttr(spec, "_initializing"_s.ptr());
    int initialising = flag == nullptr ? 0 : PyObject_IsTrue(flag);
    Py_XDECREF(flag);
    Py_XDECREF(spec);
    PyErr_Clear();
    return initialising > 0;
}

[[noreturn]] void raise_cannot_import(Handle module, Name name, Handle module_name, Where where)
{
    PyObject* of_module = module_name.ptr();
    Object path = adopt(PyModule_GetFilenameObject(module.ptr()));
    PyObject* message = nullptr;
    if (!path) {
        PyErr_Clear();
        message = PyUnicode_FromFormat("cannot import name %R from %R (unknown location)", name.ptr(), of_module);
    } else if (is_initialising(module)) {
        message = PyUnicode_FromFormat("cannot import name %R from partially initialized module %R "
                                       "(most likely due to a circular import) (%S)",
                                       name.ptr(), of_module, path.ptr());
    } else {
        message = PyUnicode_FromFormat("cannot import name %R from %R (%S)", name.ptr(), of_module, path.ptr());
    }
    Object text = steal(message, where);
    PyErr_SetImportError(text.ptr(), of_module, path ? path.ptr() : nullptr);
    throw Raised{where};
}

} // namespace

void open_imports() { genuine_import = genuine_builtin("__import__"_s).release(); }

Object import_module(Name module, Where where) { return import_with(module, borrow(Py_None), where); }

Object import_from(Name module, Name name, Where where)
{
    return name_of_module(import_for_names(module, {name}, where), name, where);
}

Object import_for_names(Name module, std::initializer_list<Name> names, Where where)
{
    Object wanted = steal(PyTuple_New(static_cast<Py_ssize_t>(names.size())), where);
    Py_ssize_t place = 0;
    for (Name name : names)
        PyTuple_SET_ITEM(wanted.ptr(), place++, Object(name).release());
    return import_with(module, wanted, where);
}

Object name_of_module(Handle module, Name name, Where where)
{
    Object found = adopt(PyObject_GetAttr(module.ptr(), name.ptr()));
    if (found)
        return found;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError))
        throw Raised{where};
    PyErr_Clear();
    // A sub-module that is still being imported stands in sys.modules before it is an attribute of its package.
    Object module_name = adopt(PyObject_GetAttr(module.ptr(), "__name__"_s.ptr()));
    if (!module_name || !PyUnicode_Check(module_name.ptr())) {
        PyErr_Clear();
        module_name = steal(PyUnicode_FromString("<unknown module name>"), where);
        raise_cannot_import(module, name, module_name, where);
    }
    Object full_name = steal(PyUnicode_FromFormat("%U.%U", module_name.ptr(), name.ptr()), where);
    found = adopt(PyImport_GetModule(full_name.ptr()));
    if (found)
        return found;
    if (PyErr_Occurred())
        throw Raised{where};
    raise_cannot_import(module, name, module_name, where);
}

} // namespace py
