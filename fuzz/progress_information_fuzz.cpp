// Fuzz target: arbitrary bytes read as a progress document, from a string
// and from a file.
//
// Checked on every input:
//   - a failure is an Exception of number 8 from "ProgressInformation" or of
//     number 1 from "Namespace:Engine", nothing else;
//   - the percentage is within 0 to 100;
//   - the file gives what the string gives: the same values and the same
//     failure, except that a document that doesn't parse names the file.
#include <tarnwick/exception.h>
#include <tarnwick/progressinformation.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

namespace {

void check(bool condition) {
    if (!condition)
        std::abort();
}

struct Outcome {
    bool failed = false;
    int number = 0;
    std::string description;
    uint64_t current = 0;
    uint64_t total = 0;
};

void checkFailure(const Tarnwick::Exception& e) {
    if (e.getErrNo() == Tarnwick::ERR_PROGRESS_INFORMATION)
        check(e.getSource() == "ProgressInformation");
    else
        check(e.getErrNo() == Tarnwick::ERR_CONVERSION && e.getSource() == "Namespace:Engine");
}

Outcome fromString(const std::string& text) {
    Outcome out;
    Tarnwick::ProgressInformation progress;
    try {
        progress.readFromXMLString(text);
    } catch (const Tarnwick::Exception& e) {
        checkFailure(e);
        out.failed = true;
        out.number = e.getErrNo();
        out.description = e.getDescription();
    }
    int const percent = progress.getProgress();
    check(percent >= 0 && percent <= 100);
    out.current = progress.getCurrent();
    out.total = progress.getTotal();
    return out;
}

// One scratch file for the whole run, removed at exit.
std::string scratchFile() {
    static std::string path;
    if (path.empty()) {
        char name[] = "/tmp/tarnwick-progress-fuzz-XXXXXX";
        int const fd = ::mkstemp(name);
        check(fd >= 0);
        ::close(fd);
        path = name;
        std::atexit([] { ::unlink(path.c_str()); });
    }
    return path;
}

Outcome fromFile(const std::string& text) {
    std::string const path = scratchFile();
    int const fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    check(fd >= 0);
    size_t done = 0;
    while (done < text.size()) {
        ssize_t const written = ::write(fd, text.data() + done, text.size() - done);
        check(written > 0);
        done += static_cast<size_t>(written);
    }
    ::close(fd);

    Outcome out;
    Tarnwick::ProgressInformation progress;
    try {
        check(progress.readFromXMLFile(path.c_str()));
    } catch (const Tarnwick::Exception& e) {
        checkFailure(e);
        out.failed = true;
        out.number = e.getErrNo();
        out.description = e.getDescription();
    }
    int const percent = progress.getProgress();
    check(percent >= 0 && percent <= 100);
    out.current = progress.getCurrent();
    out.total = progress.getTotal();
    if (out.failed && out.description == "Requested file is not valid xml: " + path)
        out.description = "String does not contain a valid XML Progress format";
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool const silenced = (TarnwickFuzz::silenceLog(), true);
    (void)silenced;

    std::string const text(reinterpret_cast<const char*>(data), size);
    Outcome const memory = fromString(text);
    Outcome const file = fromFile(text);
    check(memory.failed == file.failed);
    check(memory.number == file.number);
    check(memory.description == file.description);
    check(memory.current == file.current);
    check(memory.total == file.total);
    return 0;
}
