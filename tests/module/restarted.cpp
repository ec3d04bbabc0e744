// A program that embeds the interpreter, ends it, and starts it again.
#include <Python.h>

namespace {

int run(const char* code)
{
    Py_Initialize();
    int status = PyRun_SimpleString(code);
    return Py_FinalizeEx() < 0 ? 1 : status;
}

} // namespace

int main()
{
    int first = run("from tovarincore import cloud_node; print(cloud_node.cloud_manager_glbl is not None)");
    int second = run("try:\n"
                     "    from tovarincore import cloud_node\n"
                     "except ImportError as error:\n"
                     "    print(error)\n");
    return first | second;
}
