// A deep copy with a real memo, step by step as copy.deepcopy does it, hooks and all. What is unusual goes to Python's
// own function, with the same memo.
#pragma once

#include "../object.h"

namespace py::fast {

class GeneralCopy {
public:
    // `memo` is an exact dictionary.
    GeneralCopy(Handle memo, CallSite site) : memo_(memo), site_(site) {}

    // deepcopy(value, memo)
    Object copy(Handle value);

private:
    Object copy_unknown(Handle value);
    Object copy_list(Handle original);
    Object copy_tuple(Handle original);
    Object copy_dict(Handle original);
    Object copy_object(Handle original);
    Object remembered(Handle original) const;
    void remember(Handle original, Handle made) const;
    void keep_alive(Handle original) const;

    Object memo_;
    CallSite site_;
    int depth_ = 0; // what throws ends the whole copy
};

} // namespace py::fast
