#include "imports.h"

#include "builders.h"
#include "globals.h"

namespace py {

namespace {

Object import_with(Name module, Handle names_wanted, CallSite site)
{
    PyObject* importer = PyDict_GetItemWithError(builtin_dictionary().ptr(), "__import__"_s.ptr());
    if (importer == nullptr) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ImportError, "__import__ not found");
        throw Raised{site};
    }
    Object function(borrow(importer));
    return function({module, module_dictionary(), none(), names_wanted, number(0, site)}, site);
}

// Whether the module is still running its body: then the missing name is most likely a circular import's.
bool is_initialising(Handle module)
{
    Object spec = adopt(PyObject_GetAttr(module.ptr(), "__spec__"_s.ptr()));
    Object flag = spec ? adopt(PyObject_GetAttr(spec.ptr(), "_initializing"_s.ptr())) : Object();
    bool initialising = flag && PyObject_IsTrue(flag.ptr()) > 0;
    PyErr_Clear();
    return initialising;
}

[[noreturn]] void raise_cannot_import(Handle module, Name name, Handle module_name, CallSite site)
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
    Object text = steal(message, site);
    PyErr_SetImportError(text.ptr(), of_module, path ? path.ptr() : nullptr);
    throw Raised{site};
}

} // namespace

Object import_module(Name module, CallSite site) { return import_with(module, borrow(Py_None), site); }

Object import_from(Name module, Name name, CallSite site)
{
    return name_of_module(import_for_names(module, {name}, site), name, site);
}

Object import_for_names(Name module, std::initializer_list<Name> names, CallSite site)
{
    Object wanted = steal(PyTuple_New(static_cast<Py_ssize_t>(names.size())), site);
    Py_ssize_t place = 0;
    for (Name name : names)
        PyTuple_SET_ITEM(wanted.ptr(), place++, Object(name).release());
    return import_with(module, wanted, site);
}

Object name_of_module(Handle module, Name name, CallSite site)
{
    Object found = adopt(PyObject_GetAttr(module.ptr(), name.ptr()));
    if (found)
        return found;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError))
        throw Raised{site};
    PyErr_Clear();
    // A sub-module that is still being imported stands in sys.modules before it is an attribute of its package.
    Object module_name = adopt(PyObject_GetAttr(module.ptr(), "__name__"_s.ptr()));
    if (!module_name || !PyUnicode_Check(module_name.ptr())) {
        PyErr_Clear();
        module_name = steal(PyUnicode_FromString("<unknown module name>"), site);
        raise_cannot_import(module, name, module_name, site);
    }
    Object full_name = steal(PyUnicode_FromFormat("%U.%U", module_name.ptr(), name.ptr()), site);
    found = adopt(PyImport_GetModule(full_name.ptr()));
    if (found)
        return found;
    if (PyErr_Occurred())
        throw Raised{site};
    raise_cannot_import(module, name, module_name, site);
}

} // namespace py
