// What is read of the interpreter's own structures, a file for each way in which they are laid out.
#pragma once

#include "../interpreter.h"

#if PY_VERSION_HEX < 0x030B0000
#include "layout_310.h"
#else
#include "layout_311.h"
#endif
