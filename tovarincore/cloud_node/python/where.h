// The C++ statement that called a verb: default arguments carry it into tracebacks.
#pragma once

namespace py {

struct Where {
    const char* file;
    int line;
    const char* function;

    static constexpr Where here(const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                                const char* function = __builtin_FUNCTION())
    {
        return {file, line, function};
    }
};

} // namespace py
