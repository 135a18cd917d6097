#include "zero_copy.h"

#include <tarnwick/handler.h>
#include <tarnwick/message_block.h>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>

using Tarnwick::Handler;
using Tarnwick::Message_Block;

namespace TarnwickTest {

namespace {

std::atomic<int> mode(ZeroCopyCalls::COUNT);
std::atomic<int> sendfile_count(0);
std::atomic<int> socket_splice_count(0);
std::atomic<int> file_splice_count(0);
std::atomic<int> refusal_count(0);

Handler::Sendfile_Call old_sendfile = nullptr;
Message_Block::Splice_Call old_socket_splice = nullptr;
Message_Block::Splice_Call old_file_splice = nullptr;

bool isFile(int fd) {
    struct stat info;
    return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

bool refuse(bool touches_file) {
    int const now = mode;
    if (now == ZeroCopyCalls::REFUSE_ALL || (now == ZeroCopyCalls::REFUSE_FILES && touches_file)) {
        ++refusal_count;
        errno = EINVAL;
        return true;
    }
    return false;
}

ssize_t countingSendfile(int out, int in, off_t* offset, size_t count) {
    if (refuse(isFile(in)))
        return -1;
    ssize_t const result = ::sendfile(out, in, offset, count);
    if (result > 0)
        ++sendfile_count;
    return result;
}

ssize_t countingSocketSplice(int in, loff_t* in_offset, int out, loff_t* out_offset, size_t length,
                             unsigned int flags) {
    if (refuse(isFile(in) || isFile(out)))
        return -1;
    ssize_t const result = ::splice(in, in_offset, out, out_offset, length, flags);
    if (result > 0)
        ++socket_splice_count;
    return result;
}

ssize_t countingFileSplice(int in, loff_t* in_offset, int out, loff_t* out_offset, size_t length,
                           unsigned int flags) {
    if (refuse(isFile(in) || isFile(out)))
        return -1;
    ssize_t const result = ::splice(in, in_offset, out, out_offset, length, flags);
    if (result > 0)
        ++file_splice_count;
    return result;
}

}  // namespace

ZeroCopyCalls::ZeroCopyCalls(Mode how) {
    mode = how;
    sendfile_count = socket_splice_count = file_splice_count = refusal_count = 0;
    old_sendfile = Handler::File_To_Socket;
    old_socket_splice = Handler::Socket_To_Pipe;
    old_file_splice = Message_Block::Pipe_To_File;
    Handler::File_To_Socket = &countingSendfile;
    Handler::Socket_To_Pipe = &countingSocketSplice;
    Message_Block::Pipe_To_File = &countingFileSplice;
}

ZeroCopyCalls::~ZeroCopyCalls() {
    Handler::File_To_Socket = old_sendfile;
    Handler::Socket_To_Pipe = old_socket_splice;
    Message_Block::Pipe_To_File = old_file_splice;
}

int ZeroCopyCalls::sendfiles() const {
    return sendfile_count;
}

int ZeroCopyCalls::socketSplices() const {
    return socket_splice_count;
}

int ZeroCopyCalls::fileSplices() const {
    return file_splice_count;
}

int ZeroCopyCalls::refusals() const {
    return refusal_count;
}

}  // namespace TarnwickTest
