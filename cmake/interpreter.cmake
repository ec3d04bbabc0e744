# What is known of the interpreter to build for. Runs alone, too: cmake -DPython_VERSION=3.14.0 -P cmake/interpreter.cmake
if(Python_VERSION VERSION_GREATER_EQUAL 3.14)
    message(NOTICE "build: CPython ${Python_VERSION} is untried; the module reads none of its structures and takes the general paths")
endif()
