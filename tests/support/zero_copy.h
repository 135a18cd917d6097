// Replaces the system calls that connections use to move spilled payload
// without copies (sendfile, splice) for the length of a scope.
#pragma once

namespace TarnwickTest {

// While it lives, the connections' sendfile and splice calls are counted
// and, by its mode, refused as a file system that can't do them refuses
// them (EINVAL):
//   COUNT         every call goes on to the system;
//   REFUSE_FILES  calls that read or write a regular file are refused (the
//                 spill file's file system refuses), socket to pipe goes on;
//   REFUSE_ALL    every call is refused.
// The old calls come back at the end. One instance at a time.
class ZeroCopyCalls {
public:
    enum Mode { COUNT, REFUSE_FILES, REFUSE_ALL };
    explicit ZeroCopyCalls(Mode mode);
    ~ZeroCopyCalls();
    ZeroCopyCalls(const ZeroCopyCalls&) = delete;
    ZeroCopyCalls& operator=(const ZeroCopyCalls&) = delete;

    // Calls that the system carried out and that moved bytes.
    int sendfiles() const;
    int socketSplices() const;
    int fileSplices() const;
    // Calls refused by the mode.
    int refusals() const;
};

}  // namespace TarnwickTest
