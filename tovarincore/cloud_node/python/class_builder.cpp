#include "class_builder.h"

#include "builders.h"
#include "globals.h"

#include <string_view>

namespace py {

namespace {

// The name under which a class statement stores a method: private names are mangled with the class's name.
Object stored_name(const Method& method, const char* class_name)
{
    std::string_view text = method.name.text();
    if (text.starts_with("__") && !text.ends_with("__"))
        return steal(PyUnicode_FromFormat("_%s%s", class_name, method.name.text()));
    return Object(method.name);
}

// The row's function, through the decorator as the module holds it.
Object decorated(const Method& method, const char* class_name, Handle module_name)
{
    Object function = make_function(method, class_name, module_name);
    switch (method.mark) {
    case Mark::abstract:
        return global("abstractmethod"_s)({function});
    case Mark::static_:
        return kept_builtin("staticmethod"_s)({function});
    case Mark::plain:
        break;
    }
    return function;
}

Object metaclass_of(Handle bases)
{
    if (PyTuple_GET_SIZE(bases.ptr()) == 0)
        return Object(borrow(reinterpret_cast<PyObject*>(&PyType_Type)));
    return Object(borrow(reinterpret_cast<PyObject*>(Py_TYPE(PyTuple_GET_ITEM(bases.ptr(), 0)))));
}

} // namespace

void ClassCell::keep(Handle built)
{
    PyObject* previous = std::exchange(class_, Object(built).release()); // a failed import may be tried again
    Py_XDECREF(previous);
}

Object build_class(const ClassTable& table, Arguments bases_given, std::initializer_list<Attribute> attributes)
{
    Object name = steal(PyUnicode_InternFromString(table.name));
    Object bases = tuple(bases_given);
    Object metaclass = metaclass_of(bases);
    Object space = metaclass.method("__prepare__"_s)({name, bases});
    Object module_name = global("__name__"_s);
    space.set_item("__module__"_s, module_name);
    space.set_item("__qualname__"_s, name);
    if (table.doc != nullptr)
        space.set_item("__doc__"_s, steal(PyUnicode_FromString(table.doc)));
    for (const Attribute& attribute : attributes)
        space.set_item(attribute.name, attribute.value);
    for (const Method& method : table.methods) {
        Object key = stored_name(method, table.name);
        space.set_item(key, decorated(method, table.name, module_name));
    }
    Object built = metaclass({name, bases, space});
    check(PyDict_SetItem(module_dictionary().ptr(), name.ptr(), built.ptr()));
    return built;
}

Object super_of(const ClassCell& cell, Handle self, CallSite site)
{
    return kept_builtin("super"_s)({cell.get(), self}, site);
}

} // namespace py
