// Marks what the shared library exports; everything else is hidden.
#pragma once

#if defined(SORVALEN_BUILDING_LIBRARY)
#define SORVALEN_API __attribute__((visibility("default")))
#else
#define SORVALEN_API
#endif
