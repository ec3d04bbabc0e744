#include "errors.h"

#include "globals.h"

namespace py {

bool assertions_enabled = true;

void raise(Handle error, CallSite site)
{
    if (PyExceptionClass_Check(error.ptr())) {
        Object instance = error(site);
        if (!PyExceptionInstance_Check(instance.ptr()))
            raise_type_error("calling %R should have returned an instance of BaseException", error, site);
        PyErr_SetObject(borrow(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr()))).ptr(), instance.ptr());
    } else if (PyExceptionInstance_Check(error.ptr())) {
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
    } else {
        PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    }
    throw Raised{site};
}

void raise_type_error(const char* format, Handle argument, CallSite site)
{
    PyErr_Format(PyExc_TypeError, format, argument.ptr());
    throw Raised{site};
}

void raise_assertion_error(Handle message, CallSite site)
{
    if (!message)
        raise(kept_builtin("AssertionError"_s), site);
    raise(kept_builtin("AssertionError"_s)({message}, site), site);
}

namespace {

bool can_be_caught(PyObject* error_class)
{
    if (!PyTuple_Check(error_class))
        return PyExceptionClass_Check(error_class);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(error_class); ++i)
        if (!PyExceptionClass_Check(PyTuple_GET_ITEM(error_class, i)))
            return false;
    return true;
}

} // namespace

bool Raised::matches(Handle error_class, CallSiteInFunction here) const
{
    if (can_be_caught(error_class.ptr())) [[likely]]
        return PyErr_ExceptionMatches(error_class.ptr()) != 0;
    ExceptBlock unmatched(*this, here);
    PyErr_SetString(PyExc_TypeError, "catching classes that do not inherit from BaseException is not allowed");
    throw Raised{here};
}

void add_traceback_entry(const char* function, const CallSite& site)
{
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    auto line = static_cast<int>(site.line);
    PyCodeObject* code = PyCode_NewEmpty(site.file, function, line);
    PyFrameObject* frame =
        code == nullptr ? nullptr : PyFrame_New(PyThreadState_Get(), code, module_dictionary().ptr(), nullptr);
    PyErr_Restore(type, value, traceback); // also drops an error of the two calls above: the first one matters
    if (frame != nullptr) {
        set_frame_line(frame, line);
        PyTraceBack_Here(frame);
    }
    Py_XDECREF(reinterpret_cast<PyObject*>(frame));
    Py_XDECREF(reinterpret_cast<PyObject*>(code));
}

ExceptBlock::ExceptBlock(const Raised& raised, CallSiteInFunction here) : raised_(raised)
{
    if (!raised_.traced)
        add_traceback_entry(here.function, raised_.site);
    raised_.traced = true;
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    if (traceback != nullptr)
        PyException_SetTraceback(value, traceback);
    type_ = adopt(type);
    value_ = adopt(value);
    traceback_ = adopt(traceback);
    handled_here(&type, &value, &traceback);
    previous_type_ = Object(borrow(type));
    previous_value_ = Object(borrow(value));
    previous_traceback_ = Object(borrow(traceback));
    PyErr_SetExcInfo(Object(type_).release(), Object(value_).release(), Object(traceback_).release());
}

ExceptBlock::ExceptBlock(const Raised& raised, Handle error_class, CallSiteInFunction here)
    : ExceptBlock(raised.matches(error_class, here) ? raised : throw, here)
{
}

void ExceptBlock::restore_previous()
{
    restored_ = true;
    PyErr_SetExcInfo(previous_type_.release(), previous_value_.release(), previous_traceback_.release());
}

void ExceptBlock::raise_again()
{
    restore_previous();
    PyErr_Restore(type_.release(), value_.release(), traceback_.release());
    throw Raised(raised_);
}

ExceptBlock::~ExceptBlock() noexcept(false)
{
    if (!restored_ && !thread_is_ending())
        restore_previous();
}

} // namespace py
