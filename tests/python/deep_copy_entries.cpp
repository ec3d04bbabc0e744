// The native deep copy by itself, so that it can be tried in place of copy.deepcopy.
#include "object_layer.h"

#include "python/deep_copy.h"
#if TOVARIN_FAST
#include "python/fast/deep_copy_general.h"
#include "python/fast/deep_copy_genuine.h"
#include "python/fast/deep_copy_plain.h"
#include "python/fast/runtime.h"
#endif

namespace object_layer {

namespace {

#if TOVARIN_FAST

bool is_native_now() { return fast::is_genuine_deepcopy(global("deepcopy"_s)) && fast::deepcopy_is_untouched(); }

// From here on as where the look at the layout has failed: nothing is known that was not remembered before.
Object distrust_layout(Handle)
{
    fast::runtime::is_as_compiled = false;
    deepcopy_is_bound();
    return none();
}

// deepcopy(value, memo)
Object copy_with_memo(Handle value, Handle memo) { return fast::GeneralCopy(memo, CallSite::here()).copy(value); }

// The way without Python code alone: NotImplemented where it gives up.
Object plain_copy(Handle value)
{
    fast::ready_copy_names();
    PyObject* made = fast::PlainCopy().copy_all(value.ptr());
    if (made == nullptr && PyErr_Occurred())
        throw Raised{CallSite::here()};
    return made == nullptr ? Object(borrow(Py_NotImplemented)) : adopt(made);
}

#else

bool is_native_now() { return false; }
Object distrust_layout(Handle) { return none(); }
Object copy_with_memo(Handle value, Handle memo) { return global("deepcopy"_s)({value, memo}); }
Object plain_copy(Handle) { return Object(borrow(Py_NotImplemented)); }

#endif

// The way with a real memo alone.
Object general_copy(Handle value) { return copy_with_memo(value, dict({})); }

Object is_native(Handle) { return Object(boolean(is_native_now())); }

// deepcopy(x, memo=None, _nil=[])
PyObject* native_deepcopy(PyObject*, PyObject* arguments, PyObject* keywords)
{
    static const char* const names[] = {"x", "memo", "_nil", nullptr};
    PyObject *value = nullptr, *memo = Py_None, *unused = nullptr;
    if (!PyArg_ParseTupleAndKeywords(arguments, keywords, "O|OO:deepcopy", const_cast<char**>(names), &value, &memo,
                                     &unused))
        return nullptr;
    return at_the_edge("deepcopy", [&] {
        if (memo == Py_None)
            return deep_copy(borrow(value));
        if (!PyDict_CheckExact(memo) || !is_native_now())
            return global("deepcopy"_s)({borrow(value), borrow(memo)});
        return copy_with_memo(borrow(value), borrow(memo));
    });
}

} // namespace

PyMethodDef deep_copies[] = {
    entry<distrust_layout>("distrust_layout"),
    {"native_deepcopy", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&native_deepcopy)),
     METH_VARARGS | METH_KEYWORDS, nullptr},
    entry<plain_copy>("plain_copy"),
    entry<general_copy>("general_copy"),
    entry<is_native>("is_native"),
    {nullptr, nullptr, 0, nullptr},
};

} // namespace object_layer
