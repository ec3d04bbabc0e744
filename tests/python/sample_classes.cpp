// Classes made from tables, for the tests of functions and of the class builder.
#include "object_layer.h"

namespace object_layer {

namespace {

ClassCell own_class;

Object init(Handle self, Handle value)
{
    super_of(own_class, self).method("__init__"_s)();
    self.set("value"_s, value);
    return none();
}

Object echo(Handle, Handle a, Handle b, Handle c) { return tuple({a, b, c}); }
Object fail(Handle self) { return self.get("no_such_attribute"_s); }
Object recurse(Handle self) { return self.method("again"_s)(); }
Object hidden(Handle a) { return Object(a); }
Object required(Handle) { return none(); }

constexpr Method sample_methods[] = {
    method<init>("__init__"_s, "self, value: int -> None"),
    method<echo>("echo"_s, "self, a: str, b=None, c: bool = True -> Tuple[str, None, bool]", "Returns its arguments."),
    method<fail>("fail"_s, "self"),
    method<recurse>("recurse"_s, "self"),
    static_method(method<hidden>("__hidden"_s, "a")),
};

constexpr Method abstract_methods[] = {
    abstract(method<required>("required"_s, "self")),
};

} // namespace

void build_sample_classes()
{
    build_class({"Base", "A base with one abstract operation.", abstract_methods}, {global("ABC"_s)});
    own_class.keep(build_class({"Sample", nullptr, sample_methods}, {}, {{"kind"_s, "sample"_s}}));
}

namespace {

int execute(PyObject* module)
{
    PyObject* done = at_the_edge("<module>", [&] {
        open_module(borrow(module));
        ready_function_type();
        check(PyModule_AddFunctions(module, verbs));
        check(PyModule_AddFunctions(module, deep_copies));
        check(PyModule_AddFunctions(module, scans));
        keep_builtins({"staticmethod"_s, "super"_s, "AssertionError"_s});
        set_global("ABC"_s, import_from("abc"_s, "ABC"_s));
        set_global("abstractmethod"_s, import_from("abc"_s, "abstractmethod"_s));
        set_global("deepcopy"_s, import_from("copy"_s, "deepcopy"_s));
        deepcopy_is_bound();
        build_sample_classes();
        return none();
    });
    if (done == nullptr)
        return -1;
    Py_DECREF(done);
    return 0;
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "_object_layer", nullptr, 0, nullptr, slots, nullptr, nullptr, nullptr,
};

} // namespace

} // namespace object_layer

PyMODINIT_FUNC PyInit__object_layer() { return PyModuleDef_Init(&object_layer::definition); }
