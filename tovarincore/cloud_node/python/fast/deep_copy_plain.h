// A deep copy of plain data that runs no Python code at all: lists, tuples, dictionaries, plain objects, members of
// enumerations and atomic values. At the first thing that is anything else it gives up, and nobody can have noticed
// that it was tried: the caller starts again in another way.
#pragma once

#include "../recursion.h"
#include "deep_copy_types.h"

namespace py::fast {

// The originals met so far and their copies, by address; owns both. Small graphs need no allocation; nothing is kept
// between copies.
class PointerMemo {
public:
    struct Entry {
        PyObject* original;
        PyObject* copy;
    };

    PointerMemo() = default;
    PointerMemo(const PointerMemo&) = delete;
    PointerMemo& operator=(const PointerMemo&) = delete;
    ~PointerMemo();

    // The entry of the original, or the free one that it would take. Valid until the next add().
    Entry* find(PyObject* original) const;

    // False with MemoryError set when the table cannot grow.
    bool add(Entry* free_entry, PyObject* original, PyObject* copy);

    // When copying is given up: unfinished copies may refer to one another in cycles, which nothing else would end.
    void empty_copies();

private:
    static constexpr unsigned inline_bits = 4;

    bool grow();

    Entry inline_[std::size_t{1} << inline_bits]{};
    Entry* table_ = inline_;
    unsigned bits_ = inline_bits;
    std::size_t used_ = 0;
};

// Nothing here throws or runs Python code: the types are searched quietly, values are compared by address, the
// collector is held off as long as this lives, and what is dropped has no finaliser. So borrowed values stay what they
// are, and no unfinished copy is seen by anybody. For use after ready_copy_names().
class PlainCopy {
public:
    PlainCopy() = default;
    PlainCopy(const PlainCopy&) = delete;
    PlainCopy& operator=(const PlainCopy&) = delete;

    // A new reference. Null with an error set: failed. Null without: something unusual was met.
    PyObject* copy_all(PyObject* original) noexcept;

private:
    PyObject* copy(PyObject* original) noexcept;
    PyObject* copy_container(PyObject* original);
    PyObject* copy_list(PyObject* original, PointerMemo::Entry* entry);
    PyObject* copy_tuple(PyObject* original);
    PyObject* copy_dict(PyObject* original, PointerMemo::Entry* entry);
    PyObject* copy_object(PyObject* original, PointerMemo::Entry* entry, CopyPlan& plan);

    // Null or false as copy() says it.
    bool copy_attributes(PyObject* original, PyObject* made, CopyPlan& plan);
    bool copy_shared_values(const layout::SharedValues& shared, PyObject* made);
    bool copy_values(PyObject* attributes);
    PyObject* copy_met_dict(PyObject* dict);

    NoCollection undisturbed_; // first, so that it ends last
    PointerMemo memo_;
    NativeCall level_;
    int depth_ = 0;
};

} // namespace py::fast
