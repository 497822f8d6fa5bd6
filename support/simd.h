// The sixteen-byte SSE2 paths of the text hot paths. x86-64 always has SSE2;
// elsewhere, or with QUON_NO_SIMD (which the tests build as well, so that
// the portable paths are run too), only the plain C++ paths are compiled.
#pragma once

#if defined(__SSE2__) && !defined(QUON_NO_SIMD)
#define QUON_SSE2 1
#include <emmintrin.h>
#endif
