// Raising, handling and cleaning up, as the Python statements do it.
#pragma once

#include "object.h"

#include <new>
#include <stdexcept>

namespace py {

// raise error            (a class is called without arguments, an instance is raised as it is)
[[noreturn]] void raise(Handle error, CallSite site = CallSite::here());

// The interpreter's own errors, for verbs that stand for a bytecode instruction.
[[noreturn]] void raise_type_error(const char* format, Handle argument, CallSite site);

// False when the interpreter runs with -O: then no assertion is evaluated.
extern bool assertions_enabled;

[[noreturn]] void raise_assertion_error(Handle message, CallSite site); // empty message: a bare AssertionError

// assert condition(), message
template <class Condition> void assert_that(Condition condition, CallSite site = CallSite::here())
{
    if (assertions_enabled && !condition())
        raise_assertion_error(Handle(), site);
}

template <class Condition> void assert_that(Condition condition, Name message, CallSite site = CallSite::here())
{
    if (assertions_enabled && !condition())
        raise_assertion_error(message, site);
}

// The scope of an `except` block or of a `finally` clause that runs because of an error. Constructed inside
// `catch (const Raised&)`: takes the error out of the indicator, adds the failing statement to its traceback and makes
// it the handled one, which is what sys.exc_info(), `exc_info=True` and exception chaining look at. Ends with the
// scope.
class ExceptBlock {
public:
    // except:
    explicit ExceptBlock(const Raised& raised, CallSiteInFunction here = CallSiteInFunction::here());

    // except error_class:        an error that does not match travels on
    ExceptBlock(const Raised& raised, Handle error_class, CallSiteInFunction here = CallSiteInFunction::here());
    ~ExceptBlock() noexcept(false);
    ExceptBlock(const ExceptBlock&) = delete;
    ExceptBlock& operator=(const ExceptBlock&) = delete;

    Handle error() const { return value_; }

    // The plain `raise` at the end of the block: the same error travels on, with no second traceback entry for this
    // method.
    [[noreturn]] void raise_again();

private:
    void restore_previous() noexcept(false);

    Parked parked_; // first: taken over before any code runs, dropped last
    Raised raised_;
    Object type_, value_, traceback_;
    Object previous_type_, previous_value_, previous_traceback_;
    bool restored_ = false;
};

// Runs body(); what C++ itself throws there becomes the Python error that it stands for.
template <class Body> Object with_python_errors(Body body, CallSite site)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_SystemError, error.what());
    }
    throw Raised{site};
}

// try: return body() finally: clause()
// When both fail, the error of the clause travels on and carries the other as its context.
template <class Body, class Clause>
Object try_finally(Body body, Clause clause, CallSiteInFunction here = CallSiteInFunction::here())
{
    Object result;
    try {
        result = with_python_errors(body, here);
    } catch (const Raised& raised) {
        ExceptBlock block(raised, here);
        clause();
        block.raise_again();
    }
    clause();
    return result;
}

// Adds an entry for a native statement to the traceback of the error that is set.
void add_traceback_entry(const char* function, const CallSite& site);

// The edge between C++ and the interpreter: runs body() and turns what it throws into a set error and a null result.
// Deliberately without a catch-all: a daemon thread that ends inside the body unwinds through here and must not be
// stopped. Without a function's name the traceback gets no entry.
template <class Body> PyObject* at_the_edge(const char* function, Body body)
{
    try {
        return with_python_errors(body, CallSite::here()).release();
    } catch (const Raised& raised) {
        Parked parked;
        if (!raised.traced && function != nullptr)
            add_traceback_entry(function, raised.site);
    }
    return nullptr;
}

} // namespace py
