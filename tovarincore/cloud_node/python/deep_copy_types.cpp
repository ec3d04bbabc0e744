#include "deep_copy_types.h"

#include "deep_copy_genuine.h"
#include "quiet_lookup.h"

#include <array>

namespace py {

namespace {

// By address, at one of four neighbouring places, so that the few types of a registry do not drive each other out.
std::array<CopyVerdict, 64> verdicts;
constexpr std::size_t neighbours = 4;
std::uint64_t reducers_seen = 0;

std::size_t place_of(const void* address)
{
    auto number = reinterpret_cast<std::uintptr_t>(address);
    return (number >> 4) ^ (number >> 10);
}

PyObject* lookup(PyTypeObject* type, Name name) { return _PyType_Lookup(type, name.ptr()); } // borrowed or null

bool inherits(PyTypeObject* type, Name name) // from object, unchanged
{
    return lookup(type, name) == lookup(&PyBaseObject_Type, name);
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

// What is common to every type that deepcopy treats without calling code of the type.
bool has_no_hooks(PyTypeObject* type)
{
    return type->tp_getattro == PyObject_GenericGetAttr && lookup(type, "__deepcopy__"_s) == nullptr &&
           inherits(type, "__class__"_s) && !has_registered_reducer(type);
}

// `__dict__` is the accessor that the class statement made for the class in which it is found.
bool has_ordinary_dict(PyTypeObject* type)
{
    PyObject* accessor = lookup(type, "__dict__"_s);
    if (accessor == nullptr || !Py_IS_TYPE(accessor, &PyGetSetDescr_Type))
        return false;
    PyTypeObject* owner = PyDescr_TYPE(accessor);
    return PyDict_GetItemWithError(owner->tp_dict, "__dict__"_s.ptr()) == accessor && PyType_IsSubtype(type, owner) &&
           PyType_HasFeature(owner, Py_TPFLAGS_HEAPTYPE);
}

// copyreg leaves the names of the slots on the class at the first copy; that first copy is left to Python's function.
bool is_known_to_have_no_slots(PyTypeObject* type)
{
    PyObject* names = PyDict_GetItemWithError(type->tp_dict, "__slotnames__"_s.ptr());
    return names != nullptr && PyList_CheckExact(names) && PyList_GET_SIZE(names) == 0;
}

bool is_plain_object(PyTypeObject* type)
{
    Py_ssize_t own_size = PyBaseObject_Type.tp_basicsize + static_cast<Py_ssize_t>(sizeof(PyObject*)) +
                          (type->tp_weaklistoffset > 0 ? static_cast<Py_ssize_t>(sizeof(PyObject*)) : 0);
    return Py_IS_TYPE(type, &PyType_Type) && PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE) &&
           !PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT) && type->tp_dictoffset > 0 && type->tp_itemsize == 0 &&
           type->tp_basicsize == own_size && type->tp_alloc == PyType_GenericAlloc && type->tp_finalize == nullptr &&
           type->tp_del == nullptr && type->tp_new == PyBaseObject_Type.tp_new && has_no_hooks(type) &&
           inherits(type, "__new__"_s) && inherits(type, "__reduce_ex__"_s) && inherits(type, "__reduce__"_s) &&
           lookup(type, "__getstate__"_s) == nullptr && lookup(type, "__setstate__"_s) == nullptr &&
           lookup(type, "__getnewargs__"_s) == nullptr && lookup(type, "__getnewargs_ex__"_s) == nullptr &&
           has_ordinary_dict(type) && is_known_to_have_no_slots(type);
}

// A class of the enum module, and its members found by value in the way that the enum module does it.
bool is_plain_enumeration(PyTypeObject* type, PyObject*& members)
{
    PyTypeObject* metatype = Py_TYPE(type);
    if (!is_enumeration_metaclass(metatype))
        return false;
    members = PyDict_GetItemWithError(type->tp_dict, "_value2member_map_"_s.ptr());
    return has_no_hooks(type) && lookup(metatype, "__getattribute__"_s) == lookup(&PyType_Type, "__getattribute__"_s) &&
           enumerations_are_made_by(lookup(metatype, "__call__"_s), lookup(type, "__new__"_s),
                                    lookup(type, "__reduce_ex__"_s)) &&
           lookup(type, "_value_"_s) == nullptr && members != nullptr && PyDict_CheckExact(members);
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

CopyKind find_out(PyTypeObject* type, PyObject*& members)
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
    if (is_plain_object(type))
        return CopyKind::object;
    return is_plain_enumeration(type, members) ? CopyKind::enumeration : CopyKind::unusual;
}

// Members of enumerations that have passed, with what the answer depends on.
struct KnownMember {
    PyObject* member = nullptr;
    unsigned type_version = 0;
    std::uint64_t own_version = 0;
    std::uint64_t members_version = 0;
};

std::array<KnownMember, 128> known_members;

bool is_found_by_value(PyObject* member, PyObject* own, PyObject* members)
{
    if (own == nullptr || !PyDict_CheckExact(own) || !has_text_keys_only(own) ||
        PyDict_GetItemWithError(own, "__deepcopy__"_s.ptr()) != nullptr ||
        PyDict_GetItemWithError(own, "__reduce_ex__"_s.ptr()) != nullptr)
        return false;
    PyObject* value = PyDict_GetItemWithError(own, "_value_"_s.ptr());
    if (value == nullptr || !is_plain_value(Py_TYPE(value)))
        return false;
    PyObject *key, *found;
    for (Py_ssize_t position = 0; PyDict_Next(members, &position, &key, &found) != 0;)
        if (!is_plain_value(Py_TYPE(key)))
            return false; // finding the value could call a comparison written in Python
    return PyDict_GetItemWithError(members, value) == member;
}

// Where the verdict on the type is, or the place that it takes.
CopyVerdict& verdict_place(PyTypeObject* type)
{
    std::size_t first = place_of(type);
    for (std::size_t i = 0; i < neighbours; ++i)
        if (CopyVerdict& verdict = verdicts[(first + i) % verdicts.size()]; verdict.type == type)
            return verdict;
    for (std::size_t i = 0; i < neighbours; ++i)
        if (CopyVerdict& verdict = verdicts[(first + i) % verdicts.size()]; verdict.type == nullptr)
            return verdict;
    static std::size_t turn = 0;
    return verdicts[(first + turn++ % neighbours) % verdicts.size()];
}

PyObject* dict_of(PyObject* instance) // borrowed or null; also where the __dict__ lies behind a variable part
{
    PyObject** slot = _PyObject_GetDictPtr(instance);
    return slot == nullptr ? nullptr : *slot;
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

CopyVerdict& copy_verdict(PyTypeObject* type)
{
    if (std::uint64_t reducers = layout::version_of_dict(reducer_table().ptr()); reducers != reducers_seen)
        [[unlikely]] {
        for (CopyVerdict& verdict : verdicts)
            verdict.type = nullptr;
        reducers_seen = reducers;
    }
    CopyVerdict& verdict = verdict_place(type);
    unsigned version = layout::version_of_type(type);
    if (verdict.type == type && verdict.version == version && version != 0 &&
        verdict.metatype_version == layout::version_of_type(Py_TYPE(type))) [[likely]]
        return verdict;
    verdict.kind = find_out(type, verdict.members);
    // Looking names up has given both a version, unless the interpreter has run out of them.
    verdict.version = layout::version_of_type(type);
    verdict.metatype_version = layout::version_of_type(Py_TYPE(type));
    verdict.type = type;
    if (verdict.version == 0 && (verdict.kind == CopyKind::object || verdict.kind == CopyKind::enumeration))
        verdict.kind = CopyKind::unusual;
    return verdict;
}

bool is_own_copy(PyObject* member, const CopyVerdict& verdict)
{
    PyObject* own = dict_of(member);
    if (own == nullptr || !enumerations_are_untouched())
        return false;
    KnownMember& known = known_members[place_of(member) % known_members.size()];
    std::uint64_t own_version = layout::version_of_dict(own);
    std::uint64_t members_version = layout::version_of_dict(verdict.members);
    if (known.member == member && known.type_version == verdict.version && known.own_version == own_version &&
        known.members_version == members_version)
        return true;
    if (!is_found_by_value(member, own, verdict.members))
        return false;
    known = {member, verdict.version, own_version, members_version};
    return true;
}

PyObject* value_of_member(PyObject* member) { return PyDict_GetItemWithError(dict_of(member), "_value_"_s.ptr()); }

bool has_plain_names(PyObject* dict, CopyVerdict& verdict)
{
    if (verdict.keys.cover(dict)) [[likely]]
        return true;
    PyObject *key, *value;
    for (Py_ssize_t position = 0; PyDict_Next(dict, &position, &key, &value) != 0;) {
        if (!PyUnicode_CheckExact(key) || PyUnicode_READY(key) < 0)
            return false;
        if (PyUnicode_GET_LENGTH(key) >= 2 && PyUnicode_READ_CHAR(key, 0) == '_' && PyUnicode_READ_CHAR(key, 1) == '_')
            return false;
    }
    if (layout::shared_values(dict) != nullptr)
        verdict.keys.remember(dict);
    return true;
}

} // namespace py
