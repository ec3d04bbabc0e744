#include "deep_copy_genuine.h"

#include "../globals.h"
#include "../recursion.h"
#include "quiet_lookup.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

namespace py::fast {

namespace {

// One dictionary whose content deepcopy depends on, with the version at which it was last found as it should be.
struct Watched {
    PyObject* dict = nullptr; // kept for the life of the process
    std::uint64_t version = 0;

    bool unchanged() const { return layout::version_of_dict(dict) == version; }
    void remember() { version = layout::version_of_dict(dict); }
};

// One function written in Python that deepcopy depends on, with all that a program may replace inside of it.
class WatchedFunction {
public:
    PyObject* function() const { return function_; }

    bool unchanged() const
    {
        return PyFunction_GET_CODE(function_) == code_ && PyFunction_GET_DEFAULTS(function_) == defaults_ &&
               PyFunction_GET_KW_DEFAULTS(function_) == keyword_defaults_ &&
               (keyword_defaults_ == nullptr ||
                layout::version_of_dict(keyword_defaults_) == keyword_defaults_version_);
    }

    void keep(PyObject* function)
    {
        function_ = function;
        code_ = PyFunction_GET_CODE(function);
        defaults_ = PyFunction_GET_DEFAULTS(function);
        keyword_defaults_ = PyFunction_GET_KW_DEFAULTS(function);
        for (PyObject* part : {function_, code_, defaults_, keyword_defaults_})
            Py_XINCREF(part); // for the life of the process
        keyword_defaults_version_ = keyword_defaults_ == nullptr ? 0 : layout::version_of_dict(keyword_defaults_);
    }

private:
    PyObject *function_ = nullptr, *code_ = nullptr, *defaults_ = nullptr, *keyword_defaults_ = nullptr;
    std::uint64_t keyword_defaults_version_ = 0;
};

bool are_unchanged(std::span<const WatchedFunction> functions)
{
    return std::ranges::all_of(functions, [](const WatchedFunction& function) { return function.unchanged(); });
}

bool deepcopy_is_known = false; // false when it was replaced before we were imported
Watched copy_names, dispatch, copyreg_names, reducers, builtin_names, modules;
PyObject* copyreg_module = nullptr; // held by `modules`, while that is unchanged; its class may change

constexpr std::array copy_functions{"deepcopy",       "_deepcopy_atomic", "_deepcopy_list", "_deepcopy_tuple",
                                    "_deepcopy_dict", "_deepcopy_method", "_keep_alive",    "_reconstruct"};
constexpr std::array copyreg_functions{"__newobj__", "_slotnames"};
std::array<WatchedFunction, copy_functions.size()> kept_copy_functions;
std::array<WatchedFunction, copyreg_functions.size()> kept_copyreg_functions;

constexpr std::array called_builtins{"id", "issubclass", "getattr", "hasattr", "isinstance"};
std::array<PyObject*, called_builtins.size()> kept_called_builtins{};

std::array<WatchedFunction, enumeration_functions> kept_enumeration_functions;
constexpr const char* enumeration_function_names[] = {
#if PY_VERSION_HEX < 0x030B0000
    "__call__", "__new__", "__reduce_ex__"
#else
    "__deepcopy__"
#endif
};

// A function that the module of these names defined itself, under this name.
bool is_own_function(PyObject* names, PyObject* function, std::string_view name)
{
    if (function == nullptr || !PyFunction_Check(function) || PyFunction_GET_GLOBALS(function) != names)
        return false;
    auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
    return PyUnicode_CompareWithASCIIString(code->co_name, name.data()) == 0;
}

bool keep_functions(std::span<WatchedFunction> kept, PyObject* module_names, std::span<const char* const> names)
{
    for (std::size_t i = 0; i < names.size(); ++i) {
        PyObject* function = item_named(module_names, names[i]);
        if (!is_own_function(module_names, function, names[i]))
            return false;
        kept[i].keep(function);
    }
    return true;
}

bool stand_in(PyObject* module_names, std::span<const WatchedFunction> kept, std::span<const char* const> names)
{
    for (std::size_t i = 0; i < names.size(); ++i)
        if (item_named(module_names, names[i]) != kept[i].function())
            return false;
    return true;
}

// Searched by address, as a class is found in a dictionary of classes.
bool dispatches(PyTypeObject* type, const char* copier)
{
    PyObject *key, *found;
    for (Py_ssize_t position = 0; PyDict_Next(dispatch.dict, &position, &key, &found) != 0;)
        if (key == reinterpret_cast<PyObject*>(type))
            return found == item_named(copy_names.dict, copier);
    return false;
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
    // Not the name `deepcopy` itself: copy's functions have each other as defaults.
    if (!stand_in(copy_names.dict, std::span(kept_copy_functions).subspan(1), std::span(copy_functions).subspan(1)))
        return false;
    for (const char* shadowing : {"type", "zip", "tuple", "str", "len", "KeyError"})
        if (item_named(copy_names.dict, shadowing) != nullptr)
            return false;
    for (const char* shadowing : called_builtins)
        if (item_named(copy_names.dict, shadowing) != nullptr)
            return false;
    return item_named(copy_names.dict, "_deepcopy_dispatch") == dispatch.dict &&
           item_named(copy_names.dict, "dispatch_table") == reducers.dict;
}

bool builtins_are_as_they_come()
{
    for (std::size_t i = 0; i < called_builtins.size(); ++i)
        if (item_named(builtin_names.dict, called_builtins[i]) != kept_called_builtins[i])
            return false;
    return item_named(builtin_names.dict, "type") == reinterpret_cast<PyObject*>(&PyType_Type) &&
           item_named(builtin_names.dict, "tuple") == reinterpret_cast<PyObject*>(&PyTuple_Type) &&
           item_named(builtin_names.dict, "zip") == reinterpret_cast<PyObject*>(&PyZip_Type) &&
           item_named(builtin_names.dict, "str") == reinterpret_cast<PyObject*>(&PyUnicode_Type) &&
           item_named(builtin_names.dict, "KeyError") == PyExc_KeyError;
}

// What object.__reduce_ex__ finds in sys.modules.
bool copyreg_is_as_it_comes()
{
    copyreg_module = item_named(modules.dict, "copyreg");
    return copyreg_module != nullptr && PyModule_CheckExact(copyreg_module) &&
           PyModule_GetDict(copyreg_module) == copyreg_names.dict &&
           stand_in(copyreg_names.dict, kept_copyreg_functions, copyreg_functions) &&
           item_named(copyreg_names.dict, "dispatch_table") == reducers.dict;
}

// Exact dictionaries, which are searched without running code.
bool are_quiet(std::initializer_list<PyObject*> dicts)
{
    return std::ranges::all_of(
        dicts, [](PyObject* dict) { return dict != nullptr && PyDict_CheckExact(dict) && has_text_keys_only(dict); });
}

bool everything_is_as_it_comes()
{
    if (!are_quiet({copy_names.dict, copyreg_names.dict, builtin_names.dict, modules.dict}))
        return false;
    return copy_module_is_as_it_comes() && dispatch_is_as_it_comes() && builtins_are_as_they_come() &&
           copyreg_is_as_it_comes();
}

PyObject* kept(PyObject* borrowed) { return Object(borrow(borrowed)).release(); } // for the life of the process

PyObject* names_of(const char* module) // kept, or null
{
    Object name = steal(PyUnicode_FromString(module));
    Object found = adopt(PyImport_GetModule(name.ptr()));
    return found && PyModule_Check(found.ptr()) ? kept(PyModule_GetDict(found.ptr())) : nullptr;
}

bool find_everything()
{
    copy_names.dict = names_of("copy");
    copyreg_names.dict = names_of("copyreg");
    builtin_names.dict = kept(PyEval_GetBuiltins());
    modules.dict = kept(PyImport_GetModuleDict());
    if (!are_quiet({copy_names.dict, copyreg_names.dict, builtin_names.dict, modules.dict}))
        return false;
    dispatch.dict = kept(item_named(copy_names.dict, "_deepcopy_dispatch"));
    reducers.dict = kept(item_named(copyreg_names.dict, "dispatch_table"));
    for (PyObject* dict : {dispatch.dict, reducers.dict})
        if (dict == nullptr || !PyDict_CheckExact(dict))
            return false;
    for (std::size_t i = 0; i < called_builtins.size(); ++i)
        kept_called_builtins[i] = kept(item_named(builtin_names.dict, called_builtins[i]));
    return keep_functions(kept_copy_functions, copy_names.dict, copy_functions) &&
           keep_functions(kept_copyreg_functions, copyreg_names.dict, copyreg_functions);
}

// The function that copy's own helpers were defined with.
bool is_used_by_its_helpers(PyObject* function)
{
    PyObject* defaults = PyFunction_GET_DEFAULTS(item_named(copy_names.dict, "_deepcopy_list"));
    return defaults != nullptr && PyTuple_GET_SIZE(defaults) == 1 && PyTuple_GET_ITEM(defaults, 0) == function;
}

PyObject* names_of_enum_module() // borrowed, or null
{
    PyObject* module = has_text_keys_only(modules.dict) ? item_named(modules.dict, "enum") : nullptr;
    PyObject* names = module != nullptr && PyModule_CheckExact(module) ? PyModule_GetDict(module) : nullptr;
    return names != nullptr && has_text_keys_only(names) ? names : nullptr;
}

} // namespace

void deepcopy_is_bound(PyObject* function)
{
    deepcopy_is_known = runtime::is_as_compiled && find_everything() && function == kept_copy_functions[0].function() &&
                        is_used_by_its_helpers(kept_copy_functions[0].function());
}

bool is_genuine_deepcopy(Handle function)
{
    return deepcopy_is_known && function.ptr() == kept_copy_functions[0].function();
}

bool deepcopy_is_untouched()
{
    if (!are_unchanged(kept_copy_functions) || !are_unchanged(kept_copyreg_functions))
        return false;
    Watched* all[] = {&copy_names, &dispatch, &copyreg_names, &reducers, &builtin_names, &modules};
    bool unchanged = true;
    for (const Watched* watched : all)
        unchanged = unchanged && watched->unchanged();
    if (unchanged) [[likely]]
        return PyModule_CheckExact(copyreg_module);
    if (!everything_is_as_it_comes())
        return false;
    for (Watched* watched : all)
        watched->remember();
    return true;
}

Handle reducer_table() { return borrow(reducers.dict); }

bool is_enumeration_metaclass(PyTypeObject* metatype)
{
    PyObject* names = names_of_enum_module();
    return names != nullptr && item_named(names, "EnumMeta") == reinterpret_cast<PyObject*>(metatype);
}

bool enumerations_are_made_by(const std::array<PyObject*, enumeration_functions>& functions)
{
    if (kept_enumeration_functions[0].function() == nullptr) {
        PyObject* names = names_of_enum_module();
        if (names == nullptr)
            return false;
        for (std::size_t i = 0; i < functions.size(); ++i)
            if (!is_own_function(names, functions[i], enumeration_function_names[i]))
                return false;
        for (std::size_t i = 0; i < functions.size(); ++i)
            kept_enumeration_functions[i].keep(functions[i]);
    }
    for (std::size_t i = 0; i < functions.size(); ++i)
        if (kept_enumeration_functions[i].function() != functions[i])
            return false;
    return true;
}

bool enumerations_are_untouched() { return are_unchanged(kept_enumeration_functions); }

Object genuine_deepcopy(Handle value, Handle memo, CallSite site)
{
    return borrow(kept_copy_functions[0].function())({value, memo}, site);
}

namespace {

// Whether the recursion limit leaves room for a function in Python that calls one in C. Leaves no error set.
bool has_room_for_calls()
{
    NativeCall outer, inner;
    bool has_room = false;
    if (outer.enter()) {
        has_room = inner.enter();
        if (has_room)
            inner.leave();
        outer.leave();
    }
    if (!has_room)
        PyErr_Clear();
    return has_room;
}

} // namespace

// By a call of Python's own deepcopy, as it makes many of in the place of a native copy.
void do_what_is_left(const CallSite& site)
{
    if (deepcopy_is_known && runtime::something_is_due() && deepcopy_is_untouched() && has_room_for_calls())
        genuine_deepcopy(none(), none(), site);
}

void keep_alive_by_name(Handle value, Handle memo, CallSite site)
{
    Object function = global_of(borrow(copy_names.dict), "_keep_alive"_s, site);
    function({value, memo}, site);
}

} // namespace py::fast
