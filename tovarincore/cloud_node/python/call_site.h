// The C++ statement that called a verb: default arguments carry it into tracebacks.
#pragma once

#include <cstdint>

namespace py {

// Two whole words, so that it travels in registers through every verb: a processor waits when it loads a word of which
// half was stored just before.
struct CallSite {
    const char* file;
    std::int64_t line;

    static constexpr CallSite here(const char* file = __builtin_FILE(), std::int64_t line = __builtin_LINE())
    {
        return {file, line};
    }
};

// With the function around the statement, for what handles errors on that function's behalf.
struct CallSiteInFunction : CallSite {
    const char* function;

    static constexpr CallSiteInFunction here(const char* file = __builtin_FILE(), std::int64_t line = __builtin_LINE(),
                                             const char* function = __builtin_FUNCTION())
    {
        return {{file, line}, function};
    }
};

} // namespace py
