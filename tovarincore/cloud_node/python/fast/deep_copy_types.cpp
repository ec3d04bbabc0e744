#include "deep_copy_types.h"

#include "deep_copy_enumerations.h"
#include "deep_copy_genuine.h"
#include "quiet_lookup.h"

#include <array>

namespace py::fast {

namespace {

// By address, at one of four neighbouring places, so that the few types of a registry do not drive each other out.
std::array<CopyPlan, 64> plans;
constexpr std::size_t neighbours = 4;
std::uint64_t reducers_seen = 0;

bool inherits(PyTypeObject* type, Name name) // from object, unchanged
{
    return class_attribute(type, name) == class_attribute(&PyBaseObject_Type, name);
}

// Dictionaries find the class by its address, as they do unless its metaclass says otherwise.
bool is_found_by_address(PyTypeObject* type)
{
    PyTypeObject* metatype = Py_TYPE(type);
    return metatype->tp_hash == PyType_Type.tp_hash && metatype->tp_richcompare == PyType_Type.tp_richcompare;
}

bool has_registered_reducer(PyTypeObject* type)
{
    PyObject *key, *reducer;
    for (Py_ssize_t position = 0; PyDict_Next(reducer_table().ptr(), &position, &key, &reducer) != 0;)
        if (key == reinterpret_cast<PyObject*>(type) || !PyType_Check(key) ||
            !is_found_by_address(reinterpret_cast<PyTypeObject*>(key)))
            return true;
    return false;
}

} // namespace

bool has_no_hooks(PyTypeObject* type)
{
    return type->tp_getattro == PyObject_GenericGetAttr && class_attribute(type, "__deepcopy__"_s) == nullptr &&
           inherits(type, "__class__"_s) && !has_registered_reducer(type);
}

namespace {

// `__dict__` is the accessor that the class statement made for the class in which it is found.
bool has_ordinary_dict(PyTypeObject* type)
{
    PyObject* accessor = class_attribute(type, "__dict__"_s);
    if (accessor == nullptr || !Py_IS_TYPE(accessor, &PyGetSetDescr_Type))
        return false;
    PyTypeObject* owner = PyDescr_TYPE(accessor);
    return PyDict_GetItemWithError(names_of_class(owner), "__dict__"_s.ptr()) == accessor &&
           PyType_IsSubtype(type, owner) && PyType_HasFeature(owner, Py_TPFLAGS_HEAPTYPE);
}

// copyreg leaves the names of the slots on the class at the first copy; that first copy is left to Python's function.
bool is_known_to_have_no_slots(PyTypeObject* type, PyObject*& names)
{
    names = PyDict_GetItemWithError(names_of_class(type), "__slotnames__"_s.ptr());
    return names != nullptr && PyList_CheckExact(names) && PyList_GET_SIZE(names) == 0;
}

bool is_plain_object(PyTypeObject* type, PyObject*& slot_names)
{
    return Py_IS_TYPE(type, &PyType_Type) && PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE) &&
           !PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT) && layout::has_managed_dict(type) &&
           type->tp_itemsize == 0 && type->tp_basicsize == layout::plain_size(type) &&
           type->tp_alloc == PyType_GenericAlloc && type->tp_finalize == nullptr && type->tp_del == nullptr &&
           type->tp_new == PyBaseObject_Type.tp_new && has_no_hooks(type) && inherits(type, "__new__"_s) &&
           inherits(type, "__reduce_ex__"_s) && inherits(type, "__reduce__"_s) && inherits(type, "__getstate__"_s) &&
           class_attribute(type, "__setstate__"_s) == nullptr && class_attribute(type, "__getnewargs__"_s) == nullptr &&
           class_attribute(type, "__getnewargs_ex__"_s) == nullptr && has_ordinary_dict(type) &&
           is_known_to_have_no_slots(type, slot_names);
}

bool is_atomic_type(PyTypeObject* type)
{
    for (PyTypeObject* atomic :
         {&PyBytes_Type, &PyComplex_Type, Py_TYPE(Py_Ellipsis), Py_TYPE(Py_NotImplemented), &PyCode_Type, &PyRange_Type,
          &PyCFunction_Type, &PyFunction_Type, &_PyWeakref_RefType, &PyProperty_Type})
        if (type == atomic)
            return true;
    return is_plain_value(type) || PyType_IsSubtype(type, &PyType_Type); // classes, whatever their metaclass
}

CopyKind find_out(PyTypeObject* type, CopyPlan& plan)
{
    if (type == &PyList_Type)
        return CopyKind::list;
    if (type == &PyTuple_Type)
        return CopyKind::tuple;
    if (type == &PyDict_Type)
        return CopyKind::dict;
    if (!is_quiet_class(type) || !is_quiet_class(Py_TYPE(type)) || !is_found_by_address(type))
        return CopyKind::unusual;
    if (is_atomic_type(type))
        return CopyKind::atomic;
    if (is_plain_object(type, plan.slot_names))
        return CopyKind::object;
    return is_plain_enumeration(type, plan.members) ? CopyKind::enumeration : CopyKind::unusual;
}

// Where the plan on the type is, or the place that it takes.
CopyPlan& plan_place(PyTypeObject* type)
{
    std::size_t first = place_of(type);
    for (std::size_t i = 0; i < neighbours; ++i)
        if (CopyPlan& plan = plans[(first + i) % plans.size()]; plan.type == type)
            return plan;
    for (std::size_t i = 0; i < neighbours; ++i)
        if (CopyPlan& plan = plans[(first + i) % plans.size()]; plan.type == nullptr)
            return plan;
    static std::size_t turn = 0;
    return plans[(first + turn++ % neighbours) % plans.size()];
}

bool is_plain_name(PyObject* name)
{
    return PyUnicode_CheckExact(name) && PyUnicode_READY(name) >= 0 &&
           !(PyUnicode_GET_LENGTH(name) >= 2 && PyUnicode_READ_CHAR(name, 0) == '_' &&
             PyUnicode_READ_CHAR(name, 1) == '_');
}

} // namespace

void ready_copy_names()
{
    static bool ready = false;
    if (ready)
        return;
    for (Name name : {"__deepcopy__"_s, "__class__"_s, "__dict__"_s, "__slotnames__"_s, "__new__"_s, "__reduce_ex__"_s,
                      "__reduce__"_s, "__getstate__"_s, "__setstate__"_s, "__getnewargs__"_s, "__getnewargs_ex__"_s,
                      "__call__"_s, "__getattribute__"_s, "_value_"_s, "_value2member_map_"_s})
        name.ptr();
    ready = true;
}

CopyPlan& copy_plan(PyTypeObject* type)
{
    if (std::uint64_t reducers = layout::version_of_dict(reducer_table().ptr()); reducers != reducers_seen)
        [[unlikely]] {
        for (CopyPlan& plan : plans)
            plan.type = nullptr;
        reducers_seen = reducers;
    }
    CopyPlan& plan = plan_place(type);
    unsigned version = layout::version_of_type(type);
    if (plan.type == type && plan.version == version && version != 0 &&
        plan.metatype_version == layout::version_of_type(Py_TYPE(type))) [[likely]]
        return plan;
    plan.keys.forget(); // of a class that may be gone, and its table's address in use again
    plan.kind = find_out(type, plan);
    // Looking names up has given both a version, unless the interpreter has run out of them.
    plan.version = layout::version_of_type(type);
    plan.metatype_version = layout::version_of_type(Py_TYPE(type));
    plan.type = type;
    if (plan.version == 0 && (plan.kind == CopyKind::object || plan.kind == CopyKind::enumeration))
        plan.kind = CopyKind::unusual;
    return plan;
}

bool has_plain_names(PyObject* dict)
{
    PyObject *name, *value;
    for (Py_ssize_t position = 0; PyDict_Next(dict, &position, &name, &value) != 0;)
        if (!is_plain_name(name))
            return false;
    return true;
}

bool has_plain_names(const layout::SharedValues& shared, CopyPlan& plan)
{
    if (plan.keys.cover(shared)) [[likely]]
        return true;
    for (Py_ssize_t i = 0; i < shared.count(); ++i)
        if (!is_plain_name(shared.name(i)))
            return false;
    plan.keys.remember(shared);
    return true;
}

} // namespace py::fast
