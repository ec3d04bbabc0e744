#include "quiet_lookup.h"

#include "../builders.h"

namespace py::fast {

#if PY_VERSION_HEX < 0x030B0000
// How the interpreter searches dictionaries of texts, seen on one of our own.
void open_quiet_lookups()
{
    Object sample = dict({{"sample"_s, none()}, {"other"_s, none()}});
    layout::search_for_texts = layout::search_of(sample.ptr());
    check(PyDict_DelItem(sample.ptr(), "other"_s.ptr()));
    layout::search_after_deletions = layout::search_of(sample.ptr());
}

bool has_text_keys_only(PyObject* dict)
{
    if (layout::shared_values_in(dict))
        return true; // a dictionary shares its keys only as long as all of them are texts
    const void* search = layout::search_of(dict);
    return search == layout::search_for_texts || search == layout::search_after_deletions;
}
#else
void open_quiet_lookups() {}

bool has_text_keys_only(PyObject* dict) { return layout::has_text_keys_only(dict); }
#endif

bool is_quiet_class(PyTypeObject* type)
{
    PyObject* bases = type->tp_mro;
    if (bases == nullptr || !PyTuple_Check(bases))
        return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(bases); ++i) {
        PyObject* base = PyTuple_GET_ITEM(bases, i);
        if (!PyType_Check(base) || !has_text_keys_only(names_of_class(reinterpret_cast<PyTypeObject*>(base))))
            return false;
    }
    return true;
}

} // namespace py::fast
