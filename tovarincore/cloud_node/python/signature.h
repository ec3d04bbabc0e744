// The parameters and the result of a method, written as in Python, without the brackets:
//     self, node_state: NodeState, ready: bool = False -> OPResult
// An annotation of a parameter has no comma in it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace py {

inline constexpr std::size_t most_parameters = 9; // launch_node has as many

enum class Default : std::uint8_t { required, none, false_, true_ };
using Defaults = std::array<Default, most_parameters>;

struct Parameter {
    std::string_view name;
    std::string_view annotation;    // empty: not annotated
    std::string_view default_value; // empty: required
};

// The throw keeps any other text from being compiled.
consteval Default default_of(const Parameter& parameter)
{
    std::string_view text = parameter.default_value;
    if (text.empty())
        return Default::required;
    if (text == "None")
        return Default::none;
    if (text == "False")
        return Default::false_;
    return text == "True" ? Default::true_ : throw "a default is None, False or True";
}

class Signature {
public:
    explicit constexpr Signature(std::string_view text) : parameters_(text)
    {
        if (std::size_t arrow = text.find(" -> "); arrow != text.npos) {
            parameters_ = text.substr(0, arrow);
            result_ = text.substr(arrow + 4);
        }
    }

    constexpr std::string_view result() const { return result_; } // annotation, empty: none declared
    constexpr bool is_taken() const { return parameters_.empty(); }

    // The next parameter.
    constexpr Parameter take()
    {
        std::string_view value = until(parameters_, ", ");
        std::string_view annotation = until(value, "=");
        if (value.starts_with(' ')) { // as in Python, an annotation stands apart from the default
            annotation.remove_suffix(1);
            value.remove_prefix(1);
        }
        std::string_view name = until(annotation, ": ");
        return {name, annotation, value};
    }

private:
    // The part before the separator, which is taken away with it; all where there is none.
    static constexpr std::string_view until(std::string_view& rest, std::string_view separator)
    {
        std::size_t end = rest.find(separator);
        std::string_view part = rest.substr(0, end);
        rest.remove_prefix(end == rest.npos ? rest.size() : end + separator.size());
        return part;
    }

    std::string_view parameters_;
    std::string_view result_;
};

} // namespace py
