// The object layer whole, for the rooms that are written with it.
#pragma once

#include "builders.h"
#include "class_builder.h"
#include "deep_copy.h"
#include "errors.h"
#include "globals.h"
#include "imports.h"
#include "iteration.h"
#include "lock.h"
#include "method.h"
#include "object.h"
