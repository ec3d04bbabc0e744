// One row per Python method: name, parameters with annotation and default, result annotation, C++ function. The
// argument binding, the signature, the annotations and the TypeError texts all come from the row.
#pragma once

#include "errors.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace py {

inline constexpr std::size_t most_parameters = 9; // launch_node has as many

enum class Default : std::uint8_t { required, none, false_, true_ };

struct Parameter {
    const char* name = nullptr;
    const char* annotation = nullptr; // null: not annotated
    Default default_value = Default::required;
};

enum class Mark : std::uint8_t { plain, abstract, static_ };

struct Method {
    using Body = PyObject* (*)(const Method& method, PyObject* const* arguments);

    Name name;
    std::array<Parameter, most_parameters> parameters;
    std::size_t count;
    const char* result; // annotation, null: none declared
    const char* doc;    // null: none
    Body body;
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
template <auto Function, std::size_t Count>
    requires(Count == ArityOf<decltype(Function)>::value && Count <= most_parameters)
consteval Method method(Name name, const Parameter (&parameters)[Count], const char* result = nullptr,
                        const char* doc = nullptr)
{
    Method row{name, {}, Count, result, doc, &call_native<Function>};
    for (std::size_t i = 0; i < Count; ++i)
        row.parameters[i] = parameters[i];
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
