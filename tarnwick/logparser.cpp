#include <tarnwick/exception.h>
#include <tarnwick/log.h>
#include <tarnwick/logparser.h>
#include <tarnwick/path.h>
#include <tarnwick/path_encoder.h>
#include <tarnwick/utf8.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace Tarnwick {

namespace {

const char EXCEEDS_MARKER[] = "\n\nOutput truncated here because it exceeds the size limit\n\n";
const char EXCEEDING_MARKER[] =
    "\n\nOutput truncated here because it was exceeding the size limit\n\n";
const char LINE_TOO_LONG[] = "Error: line too long";
const size_t TAIL_BLOCK = 32768;
const size_t SHRINK_BLOCK = 4096;

// Depth by every leading dot, compared with `level` without counting further
// than needed.
inline bool withinLevelAllDots(const char* line, size_t length, int level) {
    if (level < 0)
        return false;
    size_t const limit = static_cast<size_t>(level);
    size_t dots = 0;
    while (dots < length && line[dots] == '.') {
        if (++dots > limit)
            return false;
    }
    return true;
}

// Depth 1 to 3 when that many dots and a blank begin the line, else 0.
inline int tailDepth(const char* line, size_t length) {
    size_t dots = 0;
    while (dots < length && dots < 4 && line[dots] == '.')
        ++dots;
    if (dots >= 1 && dots <= 3 && dots < length && line[dots] == ' ')
        return static_cast<int>(dots);
    return 0;
}

[[noreturn]] void fail(eventseveritylevel_t severity, const std::string& text) {
    throw Exception(ERR_LOG_PARSER, severity, std::string("LogParser"), text);
}

// Writes to a descriptor through a buffer. A failed write leaves errno set
// and drops the text in hand; later text is still tried.
class DescriptorWriter {
public:
    explicit DescriptorWriter(int fd) : m_fd(fd), m_used(0) {}
    ~DescriptorWriter() { flush(); }
    DescriptorWriter(const DescriptorWriter&) = delete;
    DescriptorWriter& operator=(const DescriptorWriter&) = delete;

    void put(const char* data, size_t size) {
        if (size >= sizeof m_buffer) {
            flush();
            writeAll(data, size);
            return;
        }
        if (m_used + size > sizeof m_buffer)
            flush();
        std::memcpy(m_buffer + m_used, data, size);
        m_used += size;
    }
    void flush() {
        if (m_used > 0)
            writeAll(m_buffer, m_used);
        m_used = 0;
    }

private:
    void writeAll(const char* data, size_t size) {
        while (size > 0) {
            ssize_t const put = ::write(m_fd, data, size);
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                return;
            data += put;
            size -= static_cast<size_t>(put);
        }
    }

    int m_fd;
    size_t m_used;
    char m_buffer[65536];
};

// Reads up to `size` bytes at `offset`; the count, or -1 with errno.
[[nodiscard]] ssize_t readAt(int fd, char* buffer, size_t size, off_t offset) {
    size_t done = 0;
    while (done < size) {
        ssize_t const got =
            ::pread(fd, buffer + done, size - done, offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

// The lines gathered by a backward scan, in file order.
typedef std::deque<std::string> Gathered;

// Takes the lines that a backward scan meets.
class Gatherer {
public:
    // `max_lines` below 0 means no limit.
    Gatherer(Gathered& lines, int level, long long max_lines)
        : m_lines(lines), m_level(level), m_left(max_lines), m_limited(max_lines >= 0) {}
    Gatherer(const Gatherer&) = delete;
    Gatherer& operator=(const Gatherer&) = delete;

    // False once the scan has to end: enough lines, or no memory.
    [[nodiscard]] bool take(const char* line, size_t length) {
        if (length == 0)
            return true;
        if (m_limited && m_left <= 0)
            return false;
        if (tailDepth(line, length) > m_level)
            return true;
        return push(line, length);
    }
    [[nodiscard]] bool push(const char* line, size_t length) {
        try {
            m_lines.emplace_front(line, length);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            TW_LOG("%D ERROR (%t): Could not duplicate string: %m\n");
            return false;
        }
        return !(m_limited && --m_left <= 0);
    }

private:
    Gathered& m_lines;
    int m_level;
    long long m_left;
    bool m_limited;
};

// Reads `fd` backwards in blocks of `block` bytes (the buffer holds one more
// for a terminator) and gathers the lines within the level, the last ones
// first. -1 after logging a failed seek; 0 otherwise, also when a read
// failed (the scan ends there).
[[nodiscard]] int scanBackward(int fd, char* buffer, size_t block, Gatherer& gatherer) {
    off_t const end = ::lseek(fd, 0, SEEK_END);
    if (end < 0) {
        TW_LOG("%D ERROR (%t): Can not position in file: %m\n");
        return -1;
    }
    off_t p = end;
    off_t carry = 0;
    off_t const blockSize = static_cast<off_t>(block);
    for (;;) {
        off_t const amount = p + carry;
        off_t offset;
        size_t want;
        if (amount >= blockSize) {
            offset = amount - blockSize;
            want = block;
        } else {
            offset = 0;
            want = static_cast<size_t>(amount);
        }
        p = offset;
        ssize_t const got = readAt(fd, buffer, want, offset);
        if (got < 0)
            return 0;
        size_t const size = static_cast<size_t>(got);
        buffer[size] = '\0';
        size_t lineEnd = size;
        for (size_t q = size; q-- > 0;) {
            if (buffer[q] == '\n' || buffer[q] == '\r') {
                if (!gatherer.take(buffer + q + 1, lineEnd - q - 1))
                    return 0;
                lineEnd = q;
            }
        }
        if (p == 0) {
            (void)gatherer.take(buffer, lineEnd);
            return 0;
        }
        if (size == 0)
            return 0;  // the file shrank under the scan
        if (lineEnd < size) {
            // The block began inside a line: read it again with the block
            // before.
            carry = static_cast<off_t>(lineEnd);
        } else {
            if (!gatherer.push(LINE_TOO_LONG, sizeof LINE_TOO_LONG - 1))
                return 0;
            carry = 0;
        }
    }
}

// Opens the regular file `path` for reading; -1 when it is null, no regular
// file, or can't be opened.
[[nodiscard]] int openRegular(const wchar_t* path) {
    if (path == nullptr || !Path::IsFile(path)) {
        if (path == nullptr)
            errno = EINVAL;
        return -1;
    }
    std::string narrow;
    if (!wcstoutf8(path, narrow))
        return -1;
    return ::open(narrow.c_str(), O_RDONLY | O_CLOEXEC);
}

// With a null `buffer` one of `block` + 1 bytes is allocated, but no larger
// than the file needs.
[[nodiscard]] int tailScan(const wchar_t* path, int out_handle, char* buffer, size_t block,
                           int level, long long max_lines) {
    int const fd = openRegular(path);
    if (fd < 0)
        return -1;
    std::unique_ptr<char[]> allocated;
    if (buffer == nullptr) {
        struct stat status;
        if (::fstat(fd, &status) == 0 && static_cast<unsigned long long>(status.st_size) < block)
            block = status.st_size > 0 ? static_cast<size_t>(status.st_size) : 1;
        allocated.reset(new (std::nothrow) char[block + 1]);
        if (!allocated) {
            ::close(fd);
            errno = ENOMEM;
            return -1;
        }
        buffer = allocated.get();
    }
    Gathered lines;
    Gatherer gatherer(lines, level, max_lines);
    int const result = scanBackward(fd, buffer, block, gatherer);
    int const error = errno;
    ::close(fd);
    if (result != 0) {
        errno = error;
        return -1;
    }
    DescriptorWriter writer(out_handle);
    while (!lines.empty()) {
        std::string const& line = lines.front();
        writer.put(line.data(), line.size());
        writer.put("\n", 1);
        lines.pop_front();
    }
    return 0;
}

// Closes a descriptor at the end of a scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    // The result of close(2); 0 when nothing was open.
    int close() {
        int const result = m_fd >= 0 ? ::close(m_fd) : 0;
        m_fd = -1;
        return result;
    }

private:
    int m_fd;
};

[[nodiscard]] bool writeAllTo(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t const put = ::write(fd, data, size);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0) {
            if (put == 0)
                errno = EIO;
            return false;
        }
        data += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

}  // namespace

namespace LogParser {

std::string escapeLine(const std::string& line) {
    ssize_t const n = storeEscape(line.data(), line.size(), nullptr, 0);
    if (n <= 0)
        return std::string();
    std::vector<char> buffer(static_cast<size_t>(n) + 1);
    storeEscape(line.data(), line.size(), buffer.data(), buffer.size());
    return std::string(buffer.data(), static_cast<size_t>(n));
}

void dotParseStream(std::istream& in, std::ostream& out, int level) {
    std::string line;
    while (std::getline(in, line)) {
        if (withinLevelAllDots(line.data(), line.size(), level)) {
            out.write(line.data(), static_cast<std::streamsize>(line.size()));
            out.put('\n');
        }
    }
}

void truncateAndEscapeStream(std::istream& in, std::ostream& out, size_t max_size) {
    if (!in.good() || !out.good())
        fail(SEVERITY_FATAL, "input or output stream not ready");
    in.seekg(0, std::ios_base::end);
    std::streamoff const size = in.tellg();
    if (size < 0)
        fail(SEVERITY_FATAL, "input or output stream not ready");
    if (size == 0)
        return;
    std::streamoff const markerLength = sizeof EXCEEDS_MARKER - 1;
    std::streamoff headEnd = size;
    std::streamoff tailStart = size;
    if (static_cast<unsigned long long>(size) > max_size) {
        // A limit below the marker's length leaves room for the marker only.
        std::streamoff const room = static_cast<std::streamoff>(max_size) - markerLength;
        headEnd = room > 0 ? room / 2 : 0;
        tailStart = size - headEnd;
    }
    in.seekg(0, std::ios_base::beg);
    size_t written = 0;
    std::string line;
    while (written < max_size) {
        std::streamoff const p = in.tellg();
        if (p < headEnd || p >= tailStart) {
            if (!std::getline(in, line))
                break;
            std::string const escaped = escapeLine(line);
            out.write(escaped.data(), static_cast<std::streamsize>(escaped.size()));
            out.put('\n');
            written += line.size() + 1;
        } else {
            out.write(EXCEEDS_MARKER, markerLength);
            written += static_cast<size_t>(markerLength);
            in.seekg(tailStart, std::ios_base::beg);
            std::getline(in, line);
        }
        if (in.fail())
            break;
    }
}

void parseLogFile(const std::string& input_path, const std::string& temp_path, std::ostream& out,
                  size_t max_size, int level) {
    std::ifstream input(input_path.c_str(), std::ios_base::in | std::ios_base::binary);
    std::ofstream temporary(temp_path.c_str(),
                            std::ios_base::out | std::ios_base::trunc | std::ios_base::binary);
    if (!input.is_open()) {
        input.close();
        temporary.close();
        fail(SEVERITY_CRITICAL, "Failed to open input file: " + input_path);
    }
    if (!temporary.is_open()) {
        input.close();
        fail(SEVERITY_CRITICAL, "Failed to open temporary file for writing: " + temp_path);
    }
    dotParseStream(input, temporary, level);
    input.close();
    temporary.close();

    std::ifstream filtered(temp_path.c_str(), std::ios_base::in | std::ios_base::binary);
    if (!filtered.is_open())
        fail(SEVERITY_CRITICAL, "Failed to open temporary file for reading: " + temp_path);
    if (!out.good())
        fail(SEVERITY_FATAL, "Failed to open output stream");
    truncateAndEscapeStream(filtered, out, max_size);
    filtered.close();
}

}  // namespace LogParser

int filter_file(const char* input_path, const char* output_path, int level) {
    if (input_path == nullptr || output_path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Descriptor in(::open(input_path, O_RDONLY | O_CLOEXEC));
    Descriptor out(::open(output_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (in.get() < 0 || out.get() < 0)
        return 0;
    std::unique_ptr<DescriptorWriter> writer(new (std::nothrow) DescriptorWriter(out.get()));
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[1 << 20]);
    if (!writer || !buffer) {
        errno = ENOMEM;
        return 0;
    }
    // The part of a line that the previous block ended in.
    std::string partial;
    for (;;) {
        ssize_t got = ::read(in.get(), buffer.get(), 1 << 20);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        const char* at = buffer.get();
        const char* const end = at + got;
        while (at < end) {
            const char* const newline =
                static_cast<const char*>(std::memchr(at, '\n', static_cast<size_t>(end - at)));
            if (newline == nullptr) {
                partial.append(at, static_cast<size_t>(end - at));
                break;
            }
            const char* line = at;
            size_t length = static_cast<size_t>(newline - at);
            if (!partial.empty()) {
                partial.append(at, length);
                line = partial.data();
                length = partial.size();
            }
            if (withinLevelAllDots(line, length, level)) {
                writer->put(line, length);
                writer->put("\n", 1);
            }
            partial.clear();
            at = newline + 1;
        }
    }
    if (!partial.empty() && withinLevelAllDots(partial.data(), partial.size(), level)) {
        writer->put(partial.data(), partial.size());
        writer->put("\n", 1);
    }
    writer->flush();
    return 0;
}

int smart_truncate(const char* path, std::stringstream& out, size_t max_size) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::ifstream in(path, std::ios_base::in | std::ios_base::binary);
    if (!in.is_open())
        return 0;
    size_t const half = max_size >> 1;
    size_t written = 0;
    std::string line;
    std::getline(in, line);
    while (in.good() && line.size() + 1 + written < half) {
        out << line << '\n';
        written += line.size() + 1;
        std::getline(in, line);
    }
    if (!in.good()) {
        // The end came within the head: the last line, if one was read, is
        // all that is left.
        if (!in.fail())
            out << line << '\n';
        return 0;
    }
    std::streamoff const p = in.tellg();
    in.seekg(0, std::ios_base::end);
    std::streamoff const e = in.tellg();
    if (e - p >= static_cast<std::streamoff>(half)) {
        std::streamoff const markerLength = sizeof EXCEEDING_MARKER - 1;
        out.write(EXCEEDING_MARKER, markerLength);
        in.seekg(markerLength - static_cast<std::streamoff>(half) + e, std::ios_base::beg);
        std::getline(in, line);
        if (!std::getline(in, line))
            return 0;
    } else {
        in.seekg(p, std::ios_base::beg);
    }
    do {
        out << line << '\n';
    } while (std::getline(in, line));
    return 0;
}

int tail_and_filter(const wchar_t* path, ACE_HANDLE out_handle, int level, int max_lines) {
    // The block lives on the stack: a tail costs no heap but its lines.
    char buffer[TAIL_BLOCK + 1];
    return tailScan(path, out_handle, buffer, TAIL_BLOCK, level, max_lines < 0 ? 0 : max_lines);
}

int tail_and_filter_file(const wchar_t* path, ACE_HANDLE out_handle, int64_t block_size,
                         int level) {
    if (block_size < 1) {
        errno = EINVAL;
        return -1;
    }
    size_t const block = static_cast<uint64_t>(block_size) < SIZE_MAX
                             ? static_cast<size_t>(block_size)
                             : SIZE_MAX - 1;
    return tailScan(path, out_handle, nullptr, block, level, -1);
}

int shrinkFileTail(const wchar_t* path, size_t keep_bytes) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::string narrow;
    if (!wcstoutf8(path, narrow))
        return -1;
    struct stat status;
    bool const known = ::stat(narrow.c_str(), &status) == 0;
    if (known && static_cast<unsigned long long>(status.st_size) <= keep_bytes)
        return 0;
    Descriptor in(::open(narrow.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        TW_LOG("%D ERROR (%t): Can't open input file '%W': %m\n", path);
        return -1;
    }
    std::wstring const temporary = std::wstring(path) + L".temp_shrinking";
    std::string const narrowTemporary = narrow + ".temp_shrinking";
    mode_t const mode = known ? (status.st_mode & 0777) : 0600;
    Descriptor out(
        ::open(narrowTemporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_EXCL | O_CLOEXEC, mode));
    if (out.get() < 0) {
        TW_LOG("%D ERROR (%t): Can't open output file '%W': %m\n", temporary.c_str());
        return -1;
    }
    if (::lseek(in.get(), -static_cast<off_t>(keep_bytes), SEEK_END) < 0)
        return -1;
    char buffer[SHRINK_BLOCK];
    for (;;) {
        ssize_t const got = ::read(in.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            TW_LOG("%D ERROR (%t): An error occurred while reading from disk: %m\n");
            return -1;
        }
        if (got == 0)
            break;
        if (!writeAllTo(out.get(), buffer, static_cast<size_t>(got))) {
            TW_LOG("%D ERROR (%t): An error occurred while writing to disk.");
            return -1;
        }
    }
    in.close();
    if (out.close() != 0) {
        // The data may not have reached the disk: keep the file as it was.
        TW_LOG("%D ERROR (%t): An error occurred while writing to disk.");
        return -1;
    }
    if (::rename(narrowTemporary.c_str(), narrow.c_str()) != 0) {
        TW_LOG("%D ERROR (%t): Can not rename file: %m\n");
        return -1;
    }
    return 0;
}

}  // namespace Tarnwick
