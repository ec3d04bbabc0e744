// Whether the running interpreter is laid out as the one that the module was compiled for.
#pragma once

namespace py::fast {

void look_at_layout(); // once, when the module starts

} // namespace py::fast
