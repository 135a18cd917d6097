// Removal of stale files from the application's temporary directory.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

class TARNWICK_EXPORT CleanUp {
public:
    // Deletes the regular files directly in the temporary directory
    // (Path::TempPath) that have not been modified for `days` days and not
    // read for one day; sub-directories are not entered. Each deletion is
    // logged at debug priority and the count at information priority.
    // `days` below 1 disables the cleaning (logged) and gives 0. 0, or -1
    // when the directory is missing or can't be read (logged).
    static int Clean(int days);

private:
    CleanUp();
};

}  // namespace Tarnwick
