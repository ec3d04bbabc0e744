// One row per Python method: name, signature, C++ function. The argument binding, the annotations and the TypeError
// texts all come from the row. Its signature is one text, since each pointer in a constant table costs the import a
// relocation.
#pragma once

#include "errors.h"
#include "signature.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace py {

enum class Mark : std::uint8_t { plain, abstract, static_ };

struct Method {
    using Body = PyObject* (*)(const Method& method, PyObject* const* arguments);

    Name name;
    const char* signature;
    const char* doc; // null: none
    Body body;
    Defaults defaults; // of the signature
    std::uint8_t count;
    Mark mark = Mark::plain;
};

template <class Function> struct ArityOf;
template <class... Parameters> struct ArityOf<Object (*)(Parameters...)> {
    static constexpr std::size_t value = sizeof...(Parameters);
};

// Calls a C++ function of Handles with the arguments that the binding prepared.
template <auto Function> PyObject* call_native(const Method& method, PyObject* const* arguments)
{
    return at_the_edge(method.name.text(), [&] {
        return [&]<std::size_t... Index>(std::index_sequence<Index...>) {
            return Function(borrow(arguments[Index])...);
        }(std::make_index_sequence<ArityOf<decltype(Function)>::value>());
    });
}

// A row; one whose parameter count differs from its C++ function's does not compile.
template <auto Function> consteval Method method(Name name, const char* signature, const char* doc = nullptr)
{
    constexpr std::size_t count = ArityOf<decltype(Function)>::value;
    static_assert(count <= most_parameters);
    Method row{name, signature, doc, &call_native<Function>, {}, count};
    Signature rest{signature};
    for (std::size_t i = 0; i < count; ++i)
        row.defaults[i] = rest.is_taken() ? throw "the signature lacks a parameter" : default_of(rest.take());
    if (!rest.is_taken())
        throw "the signature has more parameters than the function";
    return row;
}

consteval Method abstract(Method row)
{
    row.mark = Mark::abstract;
    return row;
}

consteval Method static_method(Method row)
{
    row.mark = Mark::static_;
    return row;
}

} // namespace py
