#include "deep_copy_genuine.h"

#include "globals.h"
#include "layout.h"

#include <array>
#include <string_view>

namespace py {

namespace {

// One dictionary whose content deepcopy depends on, with the version at which it was last found as it should be.
struct Watched {
    PyObject* dict = nullptr;
    std::uint64_t version = 0;

    bool unchanged() const { return layout::version_of_dict(dict) == version; }
    void remember() { version = layout::version_of_dict(dict); }
};

PyObject* kept_function = nullptr; // copy.deepcopy; null when it was replaced before we were imported
PyObject* kept_code = nullptr;
PyObject* kept_defaults = nullptr;
Watched copy_names, dispatch, copyreg_names, reducers, builtin_names;

constexpr std::array called_builtins{"id", "issubclass", "getattr", "hasattr", "isinstance"};
std::array<PyObject*, called_builtins.size()> kept_called_builtins{};

PyObject* in(PyObject* dict, const char* name) { return PyDict_GetItemString(dict, name); } // borrowed or null

// The function that a module defined itself under this name.
bool is_own_function(PyObject* names, PyObject* function, std::string_view name)
{
    if (function == nullptr || !PyFunction_Check(function) || PyFunction_GET_GLOBALS(function) != names)
        return false;
    auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
    return PyUnicode_CompareWithASCIIString(code->co_name, name.data()) == 0;
}

bool has_own_function(PyObject* names, const char* name) { return is_own_function(names, in(names, name), name); }

bool dispatches(PyTypeObject* type, const char* copier)
{
    PyObject* found = PyDict_GetItem(dispatch.dict, reinterpret_cast<PyObject*>(type));
    return found != nullptr && found == in(copy_names.dict, copier);
}

bool dispatch_is_as_it_comes()
{
    PyTypeObject* atomic[] = {Py_TYPE(Py_None),  Py_TYPE(Py_Ellipsis), Py_TYPE(Py_NotImplemented),
                              &PyLong_Type,      &PyFloat_Type,        &PyBool_Type,
                              &PyComplex_Type,   &PyBytes_Type,        &PyUnicode_Type,
                              &PyCode_Type,      &PyType_Type,         &PyRange_Type,
                              &PyCFunction_Type, &PyFunction_Type,     &_PyWeakref_RefType,
                              &PyProperty_Type};
    for (PyTypeObject* type : atomic)
        if (!dispatches(type, "_deepcopy_atomic"))
            return false;
    return dispatches(&PyList_Type, "_deepcopy_list") && dispatches(&PyTuple_Type, "_deepcopy_tuple") &&
           dispatches(&PyDict_Type, "_deepcopy_dict") && dispatches(&PyMethod_Type, "_deepcopy_method") &&
           PyDict_GET_SIZE(dispatch.dict) == static_cast<Py_ssize_t>(std::size(atomic)) + 4;
}

bool copy_module_is_as_it_comes()
{
    for (const char* name : {"_deepcopy_atomic", "_deepcopy_list", "_deepcopy_tuple", "_deepcopy_dict",
                             "_deepcopy_method", "_keep_alive", "_reconstruct"})
        if (!has_own_function(copy_names.dict, name))
            return false;
    for (const char* shadowing : {"type", "zip", "tuple", "str", "len", "KeyError"})
        if (in(copy_names.dict, shadowing) != nullptr)
            return false;
    for (const char* shadowing : called_builtins)
        if (in(copy_names.dict, shadowing) != nullptr)
            return false;
    return in(copy_names.dict, "_deepcopy_dispatch") == dispatch.dict &&
           in(copy_names.dict, "dispatch_table") == reducers.dict;
}

bool builtins_are_as_they_come()
{
    for (std::size_t i = 0; i < called_builtins.size(); ++i)
        if (in(builtin_names.dict, called_builtins[i]) != kept_called_builtins[i])
            return false;
    return in(builtin_names.dict, "type") == reinterpret_cast<PyObject*>(&PyType_Type) &&
           in(builtin_names.dict, "tuple") == reinterpret_cast<PyObject*>(&PyTuple_Type) &&
           in(builtin_names.dict, "zip") == reinterpret_cast<PyObject*>(&PyZip_Type) &&
           in(builtin_names.dict, "str") == reinterpret_cast<PyObject*>(&PyUnicode_Type) &&
           in(builtin_names.dict, "KeyError") == PyExc_KeyError;
}

bool everything_is_as_it_comes()
{
    return copy_module_is_as_it_comes() && dispatch_is_as_it_comes() && builtins_are_as_they_come() &&
           has_own_function(copyreg_names.dict, "__newobj__") && has_own_function(copyreg_names.dict, "_slotnames") &&
           in(copyreg_names.dict, "dispatch_table") == reducers.dict;
}

PyObject* names_of(const char* module) // borrowed: modules stay
{
    Object name = steal(PyUnicode_FromString(module));
    Object found = adopt(PyImport_GetModule(name.ptr()));
    return found && PyModule_Check(found.ptr()) ? PyModule_GetDict(found.ptr()) : nullptr;
}

bool find_everything()
{
    copy_names.dict = names_of("copy");
    copyreg_names.dict = names_of("copyreg");
    builtin_names.dict = PyEval_GetBuiltins();
    if (copy_names.dict == nullptr || copyreg_names.dict == nullptr)
        return false;
    dispatch.dict = in(copy_names.dict, "_deepcopy_dispatch");
    reducers.dict = in(copyreg_names.dict, "dispatch_table");
    if (dispatch.dict == nullptr || !PyDict_CheckExact(dispatch.dict) || reducers.dict == nullptr ||
        !PyDict_CheckExact(reducers.dict))
        return false;
    for (std::size_t i = 0; i < called_builtins.size(); ++i)
        kept_called_builtins[i] = in(builtin_names.dict, called_builtins[i]);
    return true;
}

// The function that copy's own helpers were defined with is the one that copy.py defined.
bool is_defined_by_copy(PyObject* function)
{
    PyObject* list_copier = in(copy_names.dict, "_deepcopy_list");
    if (!is_own_function(copy_names.dict, function, "deepcopy") || list_copier == nullptr ||
        !PyFunction_Check(list_copier))
        return false;
    PyObject* defaults = PyFunction_GET_DEFAULTS(list_copier);
    return defaults != nullptr && PyTuple_GET_SIZE(defaults) == 1 && PyTuple_GET_ITEM(defaults, 0) == function;
}

} // namespace

void keep_genuine_deepcopy()
{
    if (!layout::known)
        return;
    Object function = global("deepcopy"_s);
    if (!find_everything() || !is_defined_by_copy(function.ptr()))
        return;
    for (PyObject* dict : {dispatch.dict, reducers.dict}) // named by an attribute that a program may replace
        Py_INCREF(dict);
    kept_code = Object(borrow(PyFunction_GET_CODE(function.ptr()))).release();
    kept_defaults = Object(borrow(PyFunction_GET_DEFAULTS(function.ptr()))).release();
    kept_function = function.release();
}

bool is_genuine_deepcopy(Handle function)
{
    return function.ptr() == kept_function && kept_function != nullptr &&
           PyFunction_GET_CODE(kept_function) == kept_code && PyFunction_GET_DEFAULTS(kept_function) == kept_defaults;
}

bool deepcopy_is_untouched()
{
    Watched* all[] = {&copy_names, &dispatch, &copyreg_names, &reducers, &builtin_names};
    bool unchanged = true;
    for (const Watched* watched : all)
        unchanged = unchanged && watched->unchanged();
    if (unchanged) [[likely]]
        return true;
    if (!everything_is_as_it_comes())
        return false;
    for (Watched* watched : all)
        watched->remember();
    return true;
}

Handle reducer_table() { return borrow(reducers.dict); }

Object genuine_deepcopy(Handle value, Handle memo, Where where)
{
    return call(borrow(kept_function), {value, memo}, where);
}

void genuine_keep_alive(Handle value, Handle memo, Where where)
{
    call(borrow(in(copy_names.dict, "_keep_alive")), {value, memo}, where);
}

} // namespace py
