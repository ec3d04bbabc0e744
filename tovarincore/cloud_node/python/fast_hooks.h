// Where the object layer asks its fast half, in fast/, whether there is a shorter way. This header is all that it knows
// of it. Without the fast half (`make build FAST=off`), general/ answers mostly that nothing is known, and the general
// ways serve alone: what a program sees is the same on both.
//
// A borrowed answer holds until the next call, comparison or collection: the caller owns it before that. No hook runs
// Python code, but for those that say so.
#pragma once

#include "interpreter.h"

#include <cstdint>

namespace py {

class Handle;
class Object;
class Name;
struct CallSite;
struct Wanted;

namespace fast {

enum class Answer : std::uint8_t { unknown, no, yes };

// Whether the interpreter winds down.
bool is_finalising();

// One level of the recursion limit, in the running thread. enter_call() answers false with RecursionError set.
PyThreadState* running_thread();
bool enter_call(PyThreadState* running, const char* where);
void leave_call(PyThreadState* running);

// Whether the interpreter would do something before its next instruction: handle a signal, let another thread run.
bool something_is_due();

// Lets it do so, by running an instruction of Python, where it is still due.
void do_what_is_left(const CallSite& site);

class MemoryOfName; // what was found under one name of the source; each name has one

// object.name: the value, borrowed; null when unknown. The first is for instances that store it plainly, and is asked
// before each look-up; the second knows more, and learns.
PyObject* stored_attribute(const MemoryOfName& memory, PyObject* object);
PyObject* found_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object);

// object.name in a build without the fast half, always answered: a new reference, or null with an error set.
PyObject* general_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object);

// object.name, where that is a property of the object's class: empty when unknown. Runs the property's code.
Object computed_attribute(const Name& name, const Handle& object, const CallSite& site);

// object.name = value: `no` says that it failed, with an error set. Drops the old value.
Answer set_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object, PyObject* value);

// object.name, to be called at once with the object as its first argument; borrowed, null when unknown. As above, the
// first is asked before each look-up, and the second learns.
PyObject* known_method(const MemoryOfName& memory, PyObject* object);
PyObject* found_method(const MemoryOfName& memory, PyObject* name, PyObject* object);

// The same for what is called without the object; to be asked before found_method().
PyObject* known_static_method(const MemoryOfName& memory, PyObject* object);

// name: what note_global() was told last, while neither dictionary has changed; borrowed, null when unknown. It is told
// of what was found in dictionaries that are searched without running code.
bool is_searched_quietly(PyObject* module_names, PyObject* builtin_names);
PyObject* known_global(const MemoryOfName& memory, PyObject* module_names, PyObject* builtin_names);
void note_global(const MemoryOfName& memory, PyObject* module_names, PyObject* builtin_names, PyObject* found);

// isinstance(object, type), len(object), str(object), where `function` is what now stands under the name of the
// built-in. -1 and null: unknown, unless an error is set. The last two call methods of the object.
Answer is_instance(PyObject* function, PyObject* object, PyObject* type);
Py_ssize_t len(PyObject* function, PyObject* object);
PyObject* str(PyObject* function, PyObject* object);

// class(...): whether calling the class is only to make an object and to call its __init__, and doing so. `values` has
// a free slot in front. Runs the class's code.
PyObject* initialiser(PyObject* callable);
Object construct(Handle type, Handle initialiser, PyObject** values, std::size_t positional, PyObject* names,
                 const CallSite& site);

// The first position from `start` on of an element of an exact list that may be the wanted one.
Py_ssize_t first_candidate(PyObject* list, Py_ssize_t start, const Wanted& wanted);

// The same for elements with the value that `element` has under the name.
Py_ssize_t first_like(PyObject* list, const Name& name, PyObject* element);

// A lock of the interpreter's own class, without a call of its methods: `no` says that it is not free. False: not given
// back.
Answer take_lock(PyObject* lock);
bool give_lock_back(PyObject* lock);

// The collection that is held off while plain data is copied, before code that would lose an interrupt during it.
void collect_what_is_due();

// deepcopy(value), where `function` is what now stands under the name: empty when unknown. May run code of the value.
Object deep_copy(const Handle& function, const Handle& value, const CallSite& site);

// Once, when the module starts, and once its name `deepcopy` is bound: what has been replaced by then is not taken for
// the interpreter's own.
void open(PyObject* builtin_names);
void deepcopy_is_bound(PyObject* function);

} // namespace fast
} // namespace py

#if TOVARIN_FAST
#include "fast/hooks.h"
#else
#include "general/hooks.h"
#endif
