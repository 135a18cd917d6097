// Rotation of the log file into which ACE_Log_Msg writes.
#pragma once

#include <tarnwick/export.h>

#include <cstddef>

namespace Tarnwick {

// Rotates the log file of ACE_Log_Msg by size, keeping numbered older
// copies: the newest is "<path>.1", the oldest "<path>.<count>".
class TARNWICK_EXPORT LogFile_Rotate {
public:
    // `path` names the file that the ACE_Log_Msg stream (a std::ofstream)
    // has open. When the stream has written more than `max_size` bytes, the
    // generations move up by one, the oldest is dropped, the file becomes
    // "<path>.1" and the stream starts a new, empty file; with `count`
    // below 2 the file is simply started anew. No thread logs during the
    // change. Logs "Logfiles have been rotated." unless `count` was below 2
    // and a rotation took place.
    //
    // A stream that has failed (a full disk) or whose file was removed is
    // reopened, and one that can't be rotated (an unwritable directory) goes
    // on appending to its file; each trouble is said once, until a later
    // call finds the log healthy again.
    //
    // 0; -1 when there is no stream or it isn't a file stream (nothing on
    // disk changes then), or for a null `path` (errno EINVAL).
    static int Rotate(const char* path, size_t max_size, size_t count);
    // The same with a wide path, converted to UTF-8; -1 with errno EILSEQ
    // when it can't be.
    static int Rotate(const wchar_t* path, size_t max_size, size_t count);

private:
    LogFile_Rotate();
};

}  // namespace Tarnwick
