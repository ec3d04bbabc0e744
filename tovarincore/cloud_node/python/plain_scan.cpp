#include "plain_scan.h"

#include "attribute_cache.h"
#include "builders.h"

namespace py {

namespace {

// Reads one attribute of one object after another. Where it lies is learnt apart from reading it, and between two
// walks: a walk only compares addresses and bytes.
class PlainReader {
public:
    explicit PlainReader(Name name) : name_(name) {}

    // The plainly stored value, borrowed; null when it takes the interpreter's look-up, or a lesson, to find it.
    PyObject* value(PyObject* element) const { return slot_.value(element); }

    // Whether value() finds the attribute of this element from now on.
    bool learn(Handle element)
    {
        NameCaches* caches = name_.own_caches();
        if (caches == nullptr)
            return false;
        slot_ = caches->attribute.slot(element.ptr(), name_.ptr());
        return value(element.ptr()) != nullptr;
    }

private:
    Name name_;
    PlainSlot slot_;
};

// Walks from `start` on as long as `passes(value)` holds for the element's plain value.
template <class Passes> Py_ssize_t walk(Handle list, Py_ssize_t start, Name name, Passes passes, Where where)
{
    if (!layout::known || !PyList_CheckExact(list.ptr()))
        return start;
    PlainReader reader(name);
    Py_ssize_t i = start;
    for (;;) {
        PyObject* value = nullptr;
        for (; i < PyList_GET_SIZE(list.ptr()); ++i) {
            value = reader.value(PyList_GET_ITEM(list.ptr(), i));
            if (value == nullptr || !passes(value))
                break;
        }
        if (i >= PyList_GET_SIZE(list.ptr()) || value != nullptr ||
            !reader.learn(Object(borrow(PyList_GET_ITEM(list.ptr(), i)))))
            break;
    }
    checkpoint(where);
    return i;
}

// The text that is looked for.
class WantedText {
public:
    explicit WantedText(Handle text) : text_(text.ptr()), plain_(are_plain_texts(text_, text_))
    {
        if (!plain_ || !PyUnicode_IS_COMPACT_ASCII(text_) || PyUnicode_GET_LENGTH(text_) < end_size)
            return;
        length_ = PyUnicode_GET_LENGTH(text_);
        end_ = end_of(text_);
    }

    // Without a call of anybody's comparison. Identifiers mostly differ in their last characters, which are looked at
    // first; what these do not settle takes the whole comparison.
    bool certainly_differs(PyObject* value) const
    {
        if (value == nullptr || !PyUnicode_CheckExact(value)) [[unlikely]]
            return false;
        if (PyUnicode_IS_COMPACT_ASCII(value) && PyUnicode_GET_LENGTH(value) == length_ && end_of(value) != end_)
            return true;
        return plain_ && PyUnicode_IS_READY(value) && !is_same_text(value, text_);
    }

private:
    static constexpr Py_ssize_t end_size = sizeof(std::uint64_t);

    static std::uint64_t end_of(PyObject* text)
    {
        std::uint64_t end;
        std::memcpy(&end, reinterpret_cast<char*>(text) + sizeof(PyASCIIObject) + PyUnicode_GET_LENGTH(text) - end_size,
                    sizeof end);
        return end;
    }

    PyObject* text_;
    bool plain_;
    Py_ssize_t length_ = -1; // of a text whose end is known
    std::uint64_t end_ = 0;
};

} // namespace

Py_ssize_t first_candidate(Handle list, Name name, Handle text, Where where)
{
    WantedText wanted(text);
    return walk(list, 0, name, [&](PyObject* value) { return wanted.certainly_differs(value); }, where);
}

Py_ssize_t first_candidate_like(Handle list, Name name, Handle element, Where where)
{
    PlainReader reader(name);
    if (!layout::known || !reader.learn(element))
        return 0;
    Object text(borrow(reader.value(element.ptr())));
    return first_candidate(list, name, text, where);
}

Py_ssize_t first_not_false(Handle list, Name name, Where where)
{
    return walk(list, 0, name, [](PyObject* value) { return value == Py_False; }, where);
}

Candidates::Candidates(Handle iterable, Name hop, Name name, Handle text, Handle others, Where where)
    : elements_(each(iterable, where)), hop_(hop), name_(name), text_(text), others_(others), where_(where)
{
    if (PyList_CheckExact(iterable.ptr()))
        list_ = Object(iterable);
}

Py_ssize_t Candidates::next_candidate() const
{
    PyObject* list = list_.ptr();
    PlainReader hop(hop_), reader(name_);
    WantedText wanted(text_);
    Py_ssize_t i = index_;
    for (;;) {
        PyObject *between = nullptr, *value = nullptr;
        for (; layout::known && i < PyList_GET_SIZE(list); ++i) {
            between = hop.value(PyList_GET_ITEM(list, i));
            value = between == nullptr ? nullptr : reader.value(between);
            if (value == nullptr || !wanted.certainly_differs(value))
                break;
        }
        if (!layout::known || i >= PyList_GET_SIZE(list) || value != nullptr)
            break;
        bool learnt = between == nullptr ? hop.learn(Object(borrow(PyList_GET_ITEM(list, i))))
                                         : reader.learn(Object(borrow(between)));
        if (!learnt)
            break;
    }
    checkpoint(where_);
    return i;
}

Object Candidates::slice(Py_ssize_t end) const
{
    NoCollection undisturbed; // a finaliser could shorten the list while its slice is being made
    return steal(PyList_GetSlice(list_.ptr(), index_, end), where_);
}

void Candidates::put_aside(Py_ssize_t end, Object& variable)
{
    if (end > index_) {
        Object passed = slice(end);
        Py_ssize_t count = PyList_GET_SIZE(others_.ptr());
        check(PyList_SetSlice(others_.ptr(), count, count, passed.ptr()), where_);
        if (Py_ssize_t size = PyList_GET_SIZE(passed.ptr()); size > 0)
            variable = Object(borrow(PyList_GET_ITEM(passed.ptr(), size - 1)));
    }
    index_ = end;
}

bool Candidates::next(Object& variable)
{
    if (!list_)
        return elements_.next(variable);
    put_aside(next_candidate(), variable);
    if (index_ >= PyList_GET_SIZE(list_.ptr()))
        return false;
    variable = Object(borrow(PyList_GET_ITEM(list_.ptr(), index_++)));
    return true;
}

} // namespace py
