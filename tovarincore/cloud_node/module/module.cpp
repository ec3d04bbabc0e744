// PyInit_cloud_node: one short list of steps in order.
#include "../facade/facade.h"
#include "../providers/aws/aws.h"
#include "../providers/k8s/k8s.h"
#include "../providers/local/local.h"
#include "../registry/registry.h"

#include <atomic>

namespace cloud_node {

namespace {

std::atomic<std::int64_t> first_interpreter{-1};
PyObject* loaded_module = nullptr; // kept for the life of the process once its body has run

void run_module_body(Handle module)
{
    open_module(module);
    ready_function_type();
    bind_imports();
    deepcopy_is_bound();
    keep_builtins({"staticmethod"_s, "range"_s, "super"_s, "AssertionError"_s, "NotImplementedError"_s});
    build_node_manager();
    build_cloud_key_pair_manager();
    set_global("aws_node_manager_client_lock"_s, global("threading"_s).method("Lock"_s)());
    build_aws_node_manager();
    build_local_container_node_manager();
    build_k8s_node_manager();
    build_cloud_manager();
    set_global("cloud_manager_glbl"_s, global("CloudManager"_s)());
}

// The check comes before any object is touched: from 3.12 on another interpreter runs without the first one's lock.
bool is_first_interpreter()
{
    std::int64_t current = PyInterpreterState_GetID(PyInterpreterState_Get());
    std::int64_t expected = -1;
    return first_interpreter.compare_exchange_strong(expected, current) || expected == current;
}

// A program may end the interpreter and start another one, which has the same id: so the first one carries a mark.
// False with an error set where the mark cannot be read.
bool is_marked(bool& marked)
{
    static bool first_time = true;
    PyObject* notes = PyInterpreterState_GetDict(PyInterpreterState_Get());
    PyObject* mark = notes == nullptr ? nullptr : PyUnicode_FromString("tovarincore.cloud_node");
    int found = -1;
    if (mark != nullptr && (!first_time || PyDict_SetItem(notes, mark, Py_None) == 0))
        found = PyDict_Contains(notes, mark);
    Py_XDECREF(mark);
    if (found < 0) {
        if (!PyErr_Occurred())
            PyErr_NoMemory();
        return false;
    }
    first_time = false;
    marked = found == 1;
    return true;
}

PyObject* create_module(PyObject* spec, PyModuleDef*)
{
    bool marked = false;
    bool is_first = is_first_interpreter();
    if (is_first && !is_marked(marked))
        return nullptr;
    if (!is_first || !marked) {
        PyErr_SetString(
            PyExc_ImportError,
            "Interpreter change detected - this module can only be loaded into one interpreter per process.");
        return nullptr;
    }
    if (loaded_module != nullptr) {
        Py_INCREF(loaded_module);
        return loaded_module;
    }
    PyObject* name = PyObject_GetAttrString(spec, "name");
    PyObject* module = name == nullptr ? nullptr : PyModule_NewObject(name);
    Py_XDECREF(name);
    return module;
}

// A second import finds the module loaded: the interpreter still calls this slot, and nothing is to be done.
int execute_module(PyObject* module)
{
    if (module == loaded_module)
        return 0;
    PyObject* done = at_the_edge("<module>", [&] {
        run_module_body(borrow(module));
        return none();
    });
    if (done == nullptr) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ImportError, "init cloud_node");
        return -1;
    }
    Py_DECREF(done);
    Py_INCREF(module);
    loaded_module = module;
    return 0;
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(create_module)},
    {Py_mod_exec, reinterpret_cast<void*>(execute_module)},
#if PY_VERSION_HEX >= 0x030C0000
    // Says no more than that create_module may run there: it refuses every interpreter but the first, with its own
    // text.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#endif
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "cloud_node", nullptr, 0, nullptr, slots, nullptr, nullptr, nullptr,
};

} // namespace

} // namespace cloud_node

PyMODINIT_FUNC PyInit_cloud_node() { return PyModuleDef_Init(&cloud_node::definition); }
