// The C++ statement that called a verb: default arguments carry it into tracebacks.
#pragma once

namespace py {

// Small, so that it travels in registers through every verb.
struct Where {
    const char* file;
    int line;

    static constexpr Where here(const char* file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }
};

// With the function around the statement, for what handles errors on that function's behalf.
struct WhereInFunction : Where {
    const char* function;

    static constexpr WhereInFunction here(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                                          const char* function = __builtin_FUNCTION())
    {
        return {{file, line}, function};
    }
};

} // namespace py
