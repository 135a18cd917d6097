// Fuzz target: arbitrary bytes as a log, read by the stream functions of
// LogParser and by the backward tail of the whole file.
//
// The first byte chooses the level (-1 to 4), the next two the size limit;
// the rest is the log. Checked on every input:
//   - escapeLine's text holds no '/' or control byte and unescapes to the
//     line;
//   - dotParseStream keeps exactly the lines whose leading dots are within
//     the level, in order;
//   - truncateAndEscapeStream writes every escaped line when the log fits
//     the limit, and throws nothing on a good stream;
//   - tail_and_filter_file gives, with a block larger than the log, exactly
//     the non-empty lines within the level (CR and LF both end a line), and
//     with a small block no more lines than that plus its "line too long"
//     lines and the pieces of those lines.
#include <tarnwick/exception.h>
#include <tarnwick/logparser.h>
#include <tarnwick/path_encoder.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

void check(bool condition) {
    if (!condition)
        std::abort();
}

std::vector<std::string> getlines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

size_t dots(const std::string& line) {
    size_t n = 0;
    while (n < line.size() && line[n] == '.')
        ++n;
    return n;
}

int tailDepth(const std::string& line) {
    size_t const n = dots(line);
    return n >= 1 && n <= 3 && n < line.size() && line[n] == ' ' ? static_cast<int>(n) : 0;
}

// The tail's lines, found forwards.
std::string tailReference(const std::string& log, int level) {
    std::string out;
    size_t start = 0;
    for (size_t i = 0; i <= log.size(); ++i) {
        if (i == log.size() || log[i] == '\n' || log[i] == '\r') {
            std::string const line = log.substr(start, i - start);
            if (!line.empty() && tailDepth(line) <= level)
                out += line + "\n";
            start = i + 1;
        }
    }
    return out;
}

std::string tailOf(const std::string& log, int64_t block, int level) {
    int const in = ::memfd_create("log", 0);
    int const out = ::memfd_create("out", 0);
    check(in >= 0 && out >= 0);
    check(::write(in, log.data(), log.size()) == static_cast<ssize_t>(log.size()));
    std::string const name = "/proc/self/fd/" + std::to_string(in);
    std::wstring const wide(name.begin(), name.end());
    check(Tarnwick::tail_and_filter_file(wide.c_str(), out, block, level) == 0);
    off_t const size = ::lseek(out, 0, SEEK_CUR);
    std::string text(static_cast<size_t>(size), '\0');
    check(::pread(out, &text[0], text.size(), 0) == size);
    ::close(in);
    ::close(out);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool const silenced = (TarnwickFuzz::silenceLog(), true);
    (void)silenced;
    if (size < 3)
        return 0;
    int const level = data[0] % 6 - 1;
    size_t const max_size = static_cast<size_t>(data[1]) << 8 | data[2];
    std::string const log(reinterpret_cast<const char*>(data) + 3, size - 3);
    std::vector<std::string> const lines = getlines(log);

    for (const std::string& line : lines) {
        std::string const escaped = Tarnwick::LogParser::escapeLine(line);
        for (char const c : escaped)
            check(c != '/' && static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
        std::vector<char> plain(escaped.size() + 1);
        ssize_t const n =
            Tarnwick::storeUnescape(escaped.data(), escaped.size(), plain.data(), plain.size());
        check(n >= 0 && std::string(plain.data(), static_cast<size_t>(n)) == line);
    }

    std::istringstream in(log);
    std::ostringstream filtered;
    Tarnwick::LogParser::dotParseStream(in, filtered, level);
    std::string expected;
    for (const std::string& line : lines) {
        if (level >= 0 && dots(line) <= static_cast<size_t>(level))
            expected += line + "\n";
    }
    check(filtered.str() == expected);

    std::istringstream whole(log);
    std::ostringstream truncated;
    try {
        Tarnwick::LogParser::truncateAndEscapeStream(whole, truncated, max_size);
    } catch (const Tarnwick::Exception&) {
        std::abort();
    }
    if (log.size() <= max_size) {
        std::string all;
        for (const std::string& line : lines)
            all += Tarnwick::LogParser::escapeLine(line) + "\n";
        check(truncated.str() == all);
    }

    std::string const reference = tailReference(log, level);
    check(tailOf(log, static_cast<int64_t>(log.size()) + 1, level) == reference);
    std::string const small = tailOf(log, 7, level);
    // Each block without a line end gives one "line too long", and the piece
    // of that line in the block before may show as one more line.
    check(getlines(small).size() <= getlines(reference).size() + 2 * (log.size() / 7 + 1));
    return 0;
}
