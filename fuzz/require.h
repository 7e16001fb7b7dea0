// What the fuzz targets share.
#pragma once

#include <cstdlib>

// Ends the program, as a find, unless something holds.
inline void require(bool bHolds) {
    if (!bHolds)
        abort();
}
