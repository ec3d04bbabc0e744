// One shared key table, remembered: whether an instance uses it is then one comparison.
#pragma once

#include "layout.h"

namespace py::fast {

class SharedKeyTable {
public:
    bool is_table_of(const layout::SharedValues& shared) const { return shared.table() == table_; }

    // The values share the table, and have none of its names but those that were there when it was remembered.
    bool cover(const layout::SharedValues& shared) const { return is_table_of(shared) && shared.count() <= count_; }

    // The values share the table, which has as many names as when it was remembered.
    bool are_those_of(const layout::SharedValues& shared) const
    {
        return is_table_of(shared) && shared.count() == count_;
    }

    const void* table() const { return table_; }
    Py_ssize_t count() const { return count_; } // of its names when it was remembered

    void forget() { table_ = nullptr; }

    // Where it cannot be kept, it is only not remembered.
    void remember(const layout::SharedValues& shared)
    {
        if (!kept_.keep(shared))
            return;
        count_ = shared.count();
        table_ = shared.table();
    }

private:
    layout::KeptTable kept_;
    const void* table_ = nullptr;
    Py_ssize_t count_ = 0;
};

} // namespace py::fast
