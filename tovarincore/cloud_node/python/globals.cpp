#include "globals.h"

#include "errors.h"

#include <array>

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

[[noreturn]] void raise_name_error(Name name, CallSite site)
{
    PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.ptr());
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (PyObject_SetAttrString(value, "name", name.ptr()) < 0) // as the interpreter does, for its suggestions
        PyErr_Clear();
    PyErr_Restore(type, value, traceback);
    throw Raised{site};
}

} // namespace

Handle module_dictionary() { return borrow(module_names); }

Handle builtin_dictionary() { return borrow(builtin_names); }

void open_module(Handle module)
{
    // Kept also when the import fails: a class of that attempt may live on, and reads its names here.
    module_names = Object(borrow(PyModule_GetDict(module.ptr()))).release();
    builtin_names = Object(borrow(PyEval_GetBuiltins())).release(); // those of the importing frame, as for any module
    fast::open(builtin_names);
    Object flags(borrow(PySys_GetObject("flags")));
    if (!flags)
        raise(borrow(PyExc_RuntimeError)({"sys.flags is missing: put it back before this import"_s}));
    assertions_enabled = !flags.get("optimize"_s).truthy();
}

Object global(Name name, CallSite site)
{
    if (PyObject* known = fast::known_global(name.memory(), module_names, builtin_names)) [[likely]]
        return Object(borrow(known));
    bool runs_no_code = fast::is_searched_quietly(module_names, builtin_names); // else it may change them
    Object found = global_of(borrow(module_names), name, site);
    if (runs_no_code)
        fast::note_global(name.memory(), module_names, builtin_names, found.ptr());
    return found;
}

Object global_of(Handle names, Name name, CallSite site)
{
    for (PyObject* dict : {names.ptr(), builtin_names}) {
        if (PyObject* found = PyDict_GetItemWithError(dict, name.ptr()))
            return Object(borrow(found));
        if (PyErr_Occurred())
            throw Raised{site};
    }
    raise_name_error(name, site);
}

void set_global(Name name, Handle value, CallSite site)
{
    check(PyDict_SetItem(module_names, name.ptr(), value.ptr()), site);
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
        kept_builtins.at(place++) = {name.ptr(), global_of(borrow(builtin_names), name, CallSite::here()).release()};
}

bool is_instance(Handle object, Handle type, CallSite site)
{
    Object function = global("isinstance"_s, site);
    fast::Answer known = fast::is_instance(function.ptr(), object.ptr(), type.ptr());
    return known == fast::Answer::unknown ? function({object, type}, site).truthy(site) : known == fast::Answer::yes;
}

Py_ssize_t len(Handle object, CallSite site)
{
    Object function = global("len"_s, site);
    Py_ssize_t length = fast::len(function.ptr(), object.ptr());
    if (length < 0 && !PyErr_Occurred())
        length = PyNumber_AsSsize_t(function({object}, site).ptr(), PyExc_OverflowError);
    if (length < 0 && PyErr_Occurred())
        throw Raised{site};
    return length;
}

Object str(Handle object, CallSite site)
{
    Object function = global("str"_s, site);
    Object text = adopt(fast::str(function.ptr(), object.ptr()));
    if (!text && PyErr_Occurred())
        throw Raised{site};
    return text ? text : function({object}, site);
}

} // namespace py
