// The object layer as a separate Python module, so that its verbs are tested without the node managers.
#include "object_layer.h"

#include <vector>

namespace object_layer {

namespace {

Object equals(Handle a, Handle b) { return Object(boolean(a.equals(b))); }
Object greater(Handle a, Handle b) { return Object(boolean(a.greater(b))); }
Object truthy(Handle a) { return Object(boolean(a.truthy())); }
Object contains(Handle a, Handle b) { return Object(boolean(a.contains(b))); }
Object length(Handle a) { return number(len(a)); }
Object text(Handle a) { return str(a); }
Object formatted_value(Handle a) { return formatted("value: "_s, a); }
Object joined(Handle a, Handle b, Handle c) { return concat({a, b, c}); }
Object is_a(Handle a, Handle b) { return Object(boolean(is_instance(a, b))); }
Object get_name(Handle a) { return a.get("name"_s); }
Object name_equals(Handle a, Handle b) { return Object(boolean(a.get("name"_s).equals(b))); }
Object names_are_equal(Handle a, Handle b) { return Object(boolean(a.get("name"_s).equals(b.get("name"_s)))); }
Object names_contain(Handle a, Handle b)
{
    return Object(boolean(a.get("name"_s).contains(b) && a.get("name"_s).contains(b)));
}
Object item_of_name(Handle a, Handle key) { return a.get("name"_s).item(key).item(key); }
Object item_of_item_at(Handle a) { return a.get("name"_s).item(0).item(0); }
Object first_of_first(Handle a) { return a.get("name"_s).first().first(); }
Object item(Handle a, Handle key) { return a.item(key); }
Object item_at(Handle a, Handle index) { return a.item(PyLong_AsSsize_t(index.ptr())); }
Object set_item_at(Handle a, Handle index, Handle value)
{
    a.set_item(PyLong_AsSsize_t(index.ptr()), value);
    return none();
}
Object call_mixed(Handle f, Handle a, Handle b) { return f({a, "second"_k = b, "third"_k = a}); }
Object call_method(Handle o, Handle a, Handle b) { return o.method("method"_s)({a, "second"_k = b}); }
Object call_method_of_answers(Handle o, Handle f) { return o.method("method"_s)({f(), "second"_k = f()}); }
Object call_attribute_of_answers(Handle o, Handle f) { return o.get("method"_s)({f(), "second"_k = f()}); }
Object call_global_of_answers(Handle f) { return global("a_global_of_the_test"_s)({f(), "second"_k = f()}); }
Object in_braces(Handle f) { return list({f(), f(), f()}); }

Object call_keywords(Handle f, Handle a, Handle b)
{
    Object results = list({});
    append(results, f({"first"_k = a}));
    append(results, f({"first"_k = a, "second"_k = b}));
    append(results, f({"first"_k = a, "third"_k = b}));
    append(results, f({a, "first"_k = b}));
    return results;
}

Object dict_of(Handle f) { return dict({{"a"_s, f()}, {"b"_s, f()}}); }
Object import_one(Handle) { return import_from("json"_s, "dumps"_s); }
Object import_missing(Handle) { return import_from("json"_s, "no_such_name"_s); }
Object import_nowhere(Handle) { return import_from("no_such_module_here"_s, "name"_s); }
Object read_global(Handle) { return global("a_global_of_the_test"_s); }
Object call_len_by_name(Handle a) { return number(len(a)); }

Object unpack_pair(Handle pair)
{
    auto [a, b] = unpack<2>(pair);
    return tuple({a, b});
}

Object collect(Handle iterable)
{
    Object elements = list({});
    for (Object element : each(iterable))
        append(elements, element);
    return elements;
}

Object find(Handle iterable, Handle wanted)
{
    return first_match(iterable, [&](Handle element) { return wanted({element}).truthy(); });
}

Object with_finally(Handle body, Handle clause)
{
    return try_finally([&] { return body(); }, [&] { clause(); });
}

Object with_lock(Handle owner, Handle body)
{
    return holding(owner.get("lock"_s), [&] { return body(); });
}

// try: return body() except error_class as ex: return handler(ex)
Object handle(Handle body, Handle error_class, Handle handler)
{
    try {
        return body();
    } catch (const Raised& raised) {
        ExceptBlock block(raised, error_class);
        return handler({block.error()});
    }
}

Object handle_and_raise_again(Handle body, Handle handler)
{
    try {
        return body();
    } catch (const Raised& raised) {
        ExceptBlock block(raised);
        handler({block.error()});
        block.raise_again();
    }
}

Object raise_it(Handle error) { raise(error); }

Object assert_it(Handle condition)
{
    assert_that([&] { return condition.truthy(); }, "the condition does not hold"_s);
    return none();
}

Object out_of_memory(Handle) { throw std::bad_alloc(); }
Object standard_error(Handle) { throw std::runtime_error("a C++ error"); }

// The changes of `value`'s reference count, relative to the start, after each step of an Object's life.
Object lifetimes(Handle value)
{
    Object changes = list({});
    Py_ssize_t start = Py_REFCNT(value.ptr());
    auto note = [&] { append(changes, number(static_cast<long>(Py_REFCNT(value.ptr()) - start))); };
    {
        Object one(value);
        note(); // +1: borrowed into an owner
        Object two = one;
        note(); // +2: copied
        Object three = std::move(two);
        note(); // +2: moved
        three = one;
        note(); // +2: assigned over itself
        Object& same = three;
        three = std::move(same);
        note(); // +2: moved onto itself
        one = none();
        note(); // +1: replaced
        std::vector<Object> many(3, three);
        note(); // +4: in a container
        many.erase(many.begin());
        note(); // +3
        PyObject* raw = three.release();
        note(); // +3: handed out, still owned by the raw pointer
        Object back = adopt(raw);
    }
    note(); // 0
    return changes;
}

} // namespace

PyMethodDef verbs[] = {
    entry<equals>("equals"),
    entry<greater>("greater"),
    entry<truthy>("truthy"),
    entry<contains>("contains"),
    entry<length>("length"),
    entry<text>("text"),
    entry<formatted_value>("formatted"),
    entry<joined>("joined"),
    entry<is_a>("is_a"),
    entry<get_name>("get_name"),
    entry<name_equals>("name_equals"),
    entry<names_are_equal>("names_are_equal"),
    entry<names_contain>("names_contain"),
    entry<item_of_name>("item_of_name"),
    entry<item_of_item_at>("item_of_item_at"),
    entry<first_of_first>("first_of_first"),
    entry<item>("item"),
    entry<item_at>("item_at"),
    entry<set_item_at>("set_item_at"),
    entry<call_mixed>("call_mixed"),
    entry<call_method>("call_method"),
    entry<call_method_of_answers>("call_method_of_answers"),
    entry<call_attribute_of_answers>("call_attribute_of_answers"),
    entry<call_global_of_answers>("call_global_of_answers"),
    entry<call_keywords>("call_keywords"),
    entry<in_braces>("in_braces"),
    entry<dict_of>("dict_of"),
    entry<import_one>("import_one"),
    entry<import_missing>("import_missing"),
    entry<import_nowhere>("import_nowhere"),
    entry<read_global>("read_global"),
    entry<call_len_by_name>("call_len_by_name"),
    entry<unpack_pair>("unpack_pair"),
    entry<collect>("collect"),
    entry<find>("find"),
    entry<with_finally>("with_finally"),
    entry<with_lock>("with_lock"),
    entry<handle>("handle"),
    entry<handle_and_raise_again>("handle_and_raise_again"),
    entry<raise_it>("raise_it"),
    entry<assert_it>("assert_it"),
    entry<out_of_memory>("out_of_memory"),
    entry<standard_error>("standard_error"),
    entry<lifetimes>("lifetimes"),
    {nullptr, nullptr, 0, nullptr},
};

} // namespace object_layer
