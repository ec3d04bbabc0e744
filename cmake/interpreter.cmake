# What is known of the interpreter to build for: there is no fast half where its structures are not.
# Runs alone, too: cmake -DPython_VERSION=3.14.0 -P cmake/interpreter.cmake
if(Python_VERSION VERSION_GREATER_EQUAL 3.14)
    message(NOTICE "build: CPython ${Python_VERSION} is untried; the module reads none of its structures and takes the general paths")
    set(TOVARIN_FAST OFF)
elseif(Python_SOABI MATCHES "^cpython-[0-9]+d")
    message(NOTICE "build: a debug build of CPython has structures of its own; the module takes the general paths")
    set(TOVARIN_FAST OFF)
endif()
