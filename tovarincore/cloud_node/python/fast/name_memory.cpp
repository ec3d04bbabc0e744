#include "name_memory.h"

#include "../fast_hooks.h"
#include "quiet_lookup.h"

#include <new>

namespace py::fast {

NameMemory* MemoryOfName::own() const
{
    if (!runtime::is_as_compiled)
        return nullptr;
    if (memory_ != &nothing_known && memory_ != &nothing_kept)
        return memory_;
    auto* made = new (std::nothrow) NameMemory{}; // kept for the life of the process, as the name is
    if (made != nullptr)
        memory_ = made;
    return made;
}

namespace {

void consider(const MemoryOfName& memory, PyObject* name, PyObject* object)
{
    if (NameMemory* own = memory.to_fill()) {
        if (PyType_Check(object))
            own->class_attribute.consider(object, name);
        else
            own->attribute.consider(object, name);
    }
}

} // namespace

PyObject* found_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object)
{
    const NameMemory& known = memory.known();
    PyObject* value =
        PyType_Check(object) ? known.class_attribute.known_value(object) : known.attribute.known_value(object);
    if (value != nullptr)
        return value;
    consider(memory, name, object);
    return nullptr;
}

Answer set_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object, PyObject* value)
{
    const AttributeCache& known = memory.known().attribute;
    if (known.sets_known_value(object))
        return known.set_known_value(object, name, value) ? Answer::yes : Answer::no;
    consider(memory, name, object);
    return Answer::unknown;
}

PyObject* found_method(const MemoryOfName& memory, PyObject* name, PyObject* object)
{
    PyObject* function = PyType_Check(object) ? memory.known().class_attribute.known_method(object) : nullptr;
    if (function == nullptr)
        consider(memory, name, object);
    return function;
}

PyObject* known_static_method(const MemoryOfName& memory, PyObject* object)
{
    return PyType_Check(object) ? memory.known().class_attribute.known_static_method(object) : nullptr;
}

bool is_searched_quietly(PyObject* module_names, PyObject* builtin_names)
{
    return runtime::is_as_compiled && has_text_keys_only(module_names) && has_text_keys_only(builtin_names);
}

void note_global(const MemoryOfName& memory, PyObject* module_names, PyObject* builtin_names, PyObject* found)
{
    if (NameMemory* own = memory.to_fill())
        own->global = {layout::version_of_dict(module_names), layout::version_of_dict(builtin_names), found};
}

} // namespace py::fast
