// The native deep copy by itself, so that it can be tried in place of copy.deepcopy.
#include "object_layer.h"

#include "python/deep_copy.h"
#include "python/deep_copy_general.h"
#include "python/deep_copy_genuine.h"
#include "python/deep_copy_plain.h"

namespace object_layer {

namespace {

// deepcopy(x, memo=None, _nil=[])
PyObject* native_deepcopy(PyObject*, PyObject* arguments, PyObject* keywords)
{
    static const char* const names[] = {"x", "memo", "_nil", nullptr};
    PyObject *value = nullptr, *memo = Py_None, *unused = nullptr;
    if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "O|OO:deepcopy", const_cast<char**>(names), &value, &memo,
                                     &unused))
        return nullptr;
    return at_the_edge("deepcopy", [&] {
        Object function = global("deepcopy"_s);
        if (memo == Py_None)
            return deep_copy(borrow(value));
        if (!PyDict_CheckExact(memo) || !is_genuine_deepcopy(function) || !deepcopy_is_untouched())
            return function({borrow(value), borrow(memo)});
        return GeneralCopy(borrow(memo), Where::here()).copy(borrow(value));
    });
}

// The way without Python code alone: NotImplemented where it gives up.
Object plain_copy(Handle value)
{
    ready_copy_names();
    PyObject* made = PlainCopy().copy(value.ptr());
    if (made == nullptr && PyErr_Occurred())
        throw Raised{Where::here()};
    return made == nullptr ? Object(borrow(Py_NotImplemented)) : adopt(made);
}

// The way with a real memo alone.
Object general_copy(Handle value) { return GeneralCopy(dict({}), Where::here()).copy(value); }

Object is_native(Handle)
{
    return Object(boolean(layout::known && is_genuine_deepcopy(global("deepcopy"_s)) && deepcopy_is_untouched()));
}

} // namespace

PyMethodDef deep_copies[] = {
    {"native_deepcopy", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&native_deepcopy)),
     METH_VARARGS | METH_KEYWORDS, nullptr},
    entry<plain_copy>("plain_copy"),
    entry<general_copy>("general_copy"),
    entry<is_native>("is_native"),
    {nullptr, nullptr, 0, nullptr},
};

} // namespace object_layer
