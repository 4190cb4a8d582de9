#pragma once
// The tests substitute functions in a module's import table with the same patcher as our host.
#include "winecompat/IatPatch.h"

namespace kefltest
{
using winecompat::CIatPatch;
} // namespace kefltest
