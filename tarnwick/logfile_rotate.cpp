#include <tarnwick/log.h>
#include <tarnwick/logfile_rotate.h>
#include <tarnwick/utf8.h>

#include <ace/Log_Msg.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

namespace Tarnwick {

namespace {

// Mode of a log file whose old mode is unknown: readable by its group only.
const mode_t DEFAULT_LOG_MODE = 0640;

// Troubles that have been said and not yet cleared by a healthy call;
// read and written under the ACE_Log_Msg lock only.
bool saidStreamFailed = false;
bool saidFileRemoved = false;
bool saidNotRotated = false;

// Copies `source` into the new file `target` with `mode`; true on success.
// Nothing is logged: the log stream is closed while this runs.
[[nodiscard]] bool copyFile(const std::string& source, const std::string& target, mode_t mode) {
    int const in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    int const out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (out < 0) {
        int const error = errno;
        ::close(in);
        errno = error;
        return false;
    }
    char buffer[65536];
    bool good = true;
    for (;;) {
        ssize_t const got = ::read(in, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            good = got == 0;
            break;
        }
        for (ssize_t done = 0; good && done < got;) {
            ssize_t const put = ::write(out, buffer + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                good = false;
            else
                done += put;
        }
        if (!good)
            break;
    }
    int error = good ? 0 : errno;
    if (::close(out) != 0 && good) {
        good = false;
        error = errno;
    }
    ::close(in);
    if (!good) {
        ::unlink(target.c_str());
        errno = error;
    }
    return good;
}

// Opens the stream on `path` again; a file that doesn't exist is made with
// `mode` first, so that a new log is no more readable than the old one.
void reopen(std::ofstream& stream, const std::string& path, mode_t mode,
            std::ios_base::openmode how) {
    if (stream.is_open())
        stream.close();
    stream.clear();
    int const made = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode);
    if (made >= 0)
        ::close(made);
    stream.open(path.c_str(), how);
}

}  // namespace

LogFile_Rotate::LogFile_Rotate() = default;

int LogFile_Rotate::Rotate(const char* path, size_t max_size, size_t count) {
    ACE_Log_Msg* const log = ACE_Log_Msg::instance();
    std::ofstream* const stream = dynamic_cast<std::ofstream*>(log->msg_ostream());
    if (stream == nullptr)
        return -1;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::string const file(path);

    enum { NONE, STREAM_FAILED, FILE_REMOVED, NOT_ROTATED } trouble = NONE;
    int troubleError = 0;
    bool dropped = false;

    // Other threads write to the stream under this lock: it is held for the
    // size test and the whole change.
    log->acquire();
    struct stat status;
    bool const exists = ::stat(file.c_str(), &status) == 0;
    int const statError = exists ? 0 : errno;
    mode_t const mode = exists ? (status.st_mode & 07777) : DEFAULT_LOG_MODE;
    if (!stream->is_open() || !stream->good()) {
        trouble = STREAM_FAILED;
        reopen(*stream, file, mode, std::ios_base::out | std::ios_base::app);
    } else if (statError == ENOENT) {
        trouble = FILE_REMOVED;
        reopen(*stream, file, mode, std::ios_base::out | std::ios_base::app);
    } else {
        std::streamoff const position = stream->tellp();
        if (position >= 0 && static_cast<unsigned long long>(position) > max_size) {
            stream->close();
            if (count < 2) {
                ::unlink(file.c_str());
                reopen(*stream, file, mode, std::ios_base::out);
                dropped = true;
            } else {
                for (size_t n = count; n >= 2; --n) {
                    std::string const target = file + "." + std::to_string(n);
                    std::string const source = file + "." + std::to_string(n - 1);
                    ::unlink(target.c_str());
                    // A missing generation is no error.
                    (void)::rename(source.c_str(), target.c_str());
                }
                std::string const first = file + ".1";
                ::unlink(first.c_str());
                if (copyFile(file, first, mode)) {
                    if (::unlink(file.c_str()) != 0)
                        troubleError = errno;
                } else if (::rename(file.c_str(), first.c_str()) != 0) {
                    troubleError = errno;
                }
                if (::access(file.c_str(), F_OK) == 0) {
                    // The file is still there: keep every line of it.
                    trouble = NOT_ROTATED;
                    reopen(*stream, file, mode, std::ios_base::out | std::ios_base::app);
                } else {
                    reopen(*stream, file, mode, std::ios_base::out);
                }
            }
        }
    }
    bool sayStreamFailed = false;
    bool sayFileRemoved = false;
    bool sayNotRotated = false;
    if (trouble == NONE) {
        saidStreamFailed = saidFileRemoved = saidNotRotated = false;
    } else if (trouble == STREAM_FAILED) {
        sayStreamFailed = !saidStreamFailed;
        saidStreamFailed = true;
    } else if (trouble == FILE_REMOVED) {
        sayFileRemoved = !saidFileRemoved;
        saidFileRemoved = true;
    } else {
        sayNotRotated = !saidNotRotated;
        saidNotRotated = true;
    }
    log->release();

    if (sayStreamFailed)
        TW_LOG("%D ERROR (%t): Log file %C could not be written; it has been opened again\n",
               file.c_str());
    if (sayFileRemoved)
        TW_LOG("%D WARN  (%t): Log file %C was removed; a new one has been started\n",
               file.c_str());
    if (sayNotRotated) {
        errno = troubleError;
        TW_LOG_ERRNO("%D ERROR (%t): Can not rotate log file %C; it goes on growing", file.c_str());
    }
    if (dropped)
        return 0;
    TW_LOG("%D DEBUG (%t): Logfiles have been rotated.\n");
    return 0;
}

int LogFile_Rotate::Rotate(const wchar_t* path, size_t max_size, size_t count) {
    if (path == nullptr)
        return Rotate(static_cast<const char*>(nullptr), max_size, count);
    std::string narrow;
    if (!wcstoutf8(path, narrow))
        return -1;
    return Rotate(narrow.c_str(), max_size, count);
}

}  // namespace Tarnwick
