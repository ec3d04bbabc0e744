// Passing over the elements of a list that certainly are not the wanted one, without running any Python code: those
// whose attribute is plainly stored and plainly holds something else.
#include "../comparing.h"
#include "../fast_hooks.h"
#include "../iteration.h"
#include "name_memory.h"

namespace py::fast {

namespace {

// Reads one attribute of one object after another. Where it lies is learnt apart from reading it, and between two
// walks: a walk only compares addresses and bytes.
class PlainReader {
public:
    explicit PlainReader(Name name) : name_(name) {}

    // The plainly stored value, borrowed; null when it takes the interpreter's look-up, or a lesson, to find it.
    PyObject* value(PyObject* element) const { return slot_.value(element); }

    // Whether value() finds the attribute of this element from now on.
    bool learn(PyObject* element)
    {
        NameMemory* memory = name_.memory().own();
        if (memory == nullptr)
            return false;
        slot_ = memory->attribute.slot(element, name_.ptr());
        return slot_.type != nullptr;
    }

    const PlainSlot& slot() const { return slot_; }

private:
    Name name_;
    PlainSlot slot_;
};

// The text that is looked for; a plain one.
class WantedText {
public:
    explicit WantedText(Handle text) : text_(text.ptr())
    {
        if (!PyUnicode_IS_COMPACT_ASCII(text_) || PyUnicode_GET_LENGTH(text_) < end_size)
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
        return PyUnicode_IS_READY(value) && !is_same_text(value, text_);
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
    Py_ssize_t length_ = -1; // of a text whose end is known
    std::uint64_t end_ = 0;
};

// The plain value that the wanted attribute has in an element. Reads through one attribute more where there is a hop.
class WantedReader {
public:
    explicit WantedReader(const Wanted& wanted)
        : hops_(wanted.hop.has_value()), hop_(wanted.hop.value_or(wanted.attribute)), last_(wanted.attribute)
    {
    }

    PyObject* value(PyObject* element) const
    {
        PyObject* owner = hops_ ? hop_.value(element) : element;
        return owner == nullptr ? nullptr : last_.value(owner);
    }

    // Calls pass() with what reads the value of an element, in the shortest way that serves.
    template <class Pass> Py_ssize_t read_by(Pass pass) const
    {
        if (!hop_.slot().is_shared_alone() || !last_.slot().is_shared_alone())
            return pass([reader = *this](PyObject* element) { return reader.value(element); });
        SharedSlot last = last_.slot().shared();
        if (!hops_)
            return pass([last](PyObject* element) { return last.value(element); });
        return pass([last, hop = hop_.slot().shared()](PyObject* element) {
            PyObject* owner = hop.value(element);
            return owner == nullptr ? nullptr : last.value(owner);
        });
    }

    // As PlainReader::learn(), for the reader at which value() failed.
    bool learn(PyObject* element)
    {
        if (!hops_)
            return last_.learn(element);
        PyObject* owner = hop_.value(element);
        return owner == nullptr ? hop_.learn(element) : last_.learn(owner);
    }

private:
    bool hops_;
    PlainReader hop_, last_;
};

// The first position from `start` on of an element whose plain value is not known, or does not pass. Nothing is learnt
// here, and nothing run: the list stays as it is meanwhile.
template <class Read, class Passes>
Py_ssize_t pass_over(PyObject* list, Py_ssize_t start, const Read value_of, const Passes passes, bool& is_known)
{
    PyObject** elements = reinterpret_cast<PyListObject*>(list)->ob_item;
    const Py_ssize_t size = PyList_GET_SIZE(list);
    Py_ssize_t i = start;
    for (; i < size; ++i) {
        PyObject* value = value_of(elements[i]);
        if (value == nullptr) [[unlikely]] {
            is_known = false;
            break;
        }
        if (!passes(value)) [[unlikely]]
            break;
    }
    return i;
}

// Walks on as long as `passes(value)` holds for the element's plain value.
template <class Passes> Py_ssize_t walk(PyObject* list, Py_ssize_t start, WantedReader reader, Passes passes)
{
    for (Py_ssize_t i = start;;) {
        bool is_known = true;
        i = reader.read_by([&, i](auto value_of) { return pass_over(list, i, value_of, passes, is_known); });
        if (is_known || i >= PyList_GET_SIZE(list))
            return i;
        Object element(borrow(PyList_GET_ITEM(list, i)));
        if (!reader.learn(element.ptr()))
            return i;
    }
}

} // namespace

Py_ssize_t first_candidate(PyObject* list, Py_ssize_t start, const Wanted& wanted)
{
    if (!wanted.text)
        return walk(list, start, WantedReader(wanted), [](PyObject* value) { return value == Py_False; });
    if (!are_plain_texts(wanted.text.ptr(), wanted.text.ptr()))
        return start; // its own comparison decides about each element
    return walk(list, start, WantedReader(wanted),
                [text = WantedText(wanted.text)](PyObject* value) { return text.certainly_differs(value); });
}

Py_ssize_t first_like(PyObject* list, const Name& name, PyObject* element)
{
    PlainReader reader(name);
    if (!reader.learn(element))
        return 0;
    return first_candidate(list, 0, having(name, borrow(reader.value(element))));
}

} // namespace py::fast
