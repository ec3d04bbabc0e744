// What a class statement does, from a table of rows.
#pragma once

#include "function.h"

#include <initializer_list>
#include <span>

namespace py {

struct Attribute {
    Name name;
    Handle value;
};

struct ClassTable {
    const char* name;
    const char* doc; // null: none
    std::span<const Method> methods;
};

// The class object that `super()` and `__class__` mean inside a class's own methods, kept when the class is built.
class ClassCell {
public:
    void keep(Handle built);
    Object get() const { return Object(borrow(class_)); } // held: a second import may replace it

private:
    PyObject* class_ = nullptr;
};

// class <name>(*bases): the attributes, then the rows in order; bound under its name in the module.
Object build_class(const ClassTable& table, Arguments bases, std::initializer_list<Attribute> attributes = {});

// super()    inside a method of the class that `cell` keeps
Object super_of(const ClassCell& cell, Handle self, CallSite site = CallSite::here());

} // namespace py
