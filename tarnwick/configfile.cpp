#include <tarnwick/configfile.h>
#include <tarnwick/exception.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/registry.h>
#include <tarnwick/replacement_file.h>
#include <tarnwick/utf8.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <sstream>

namespace Tarnwick {

namespace {

const char* const SOURCE = "ConfigFile";
const char* const BLANKS = " \t";

// The text between `begin` and `end` of `line` without the spaces and tabs at
// both ends; text of nothing but spaces and tabs stays as it is.
std::string trimmed(const std::string& line, std::size_t begin, std::size_t end) {
    std::size_t const first = line.find_first_not_of(BLANKS, begin);
    if (first == std::string::npos || first >= end)
        return line.substr(begin, end - begin);
    std::size_t const last = line.find_last_not_of(BLANKS, end - 1);
    return line.substr(first, last - first + 1);
}

// Wide form of `text` up to its first NUL; empty when that is no valid UTF-8.
ACE_WString toWide(const std::string& text) {
    std::unique_ptr<wchar_t, void (*)(wchar_t*)> converted(utf8towcs_malloced(text.c_str()),
                                                           wcsfree);
    ACE_WString wide;
    if (converted) {
        // The wide text has no more characters than the UTF-8 text has bytes;
        // the bound keeps g++ from seeing an overflowing length in set().
        std::size_t const length = std::min(std::wcslen(converted.get()), text.size());
        if (length < text.max_size())
            wide.set(converted.get(), length, true);
    }
    return wide;
}

// The names of failed section lookups that a file remembers for remove: at
// most this many, of at most this many bytes together. When a name would
// pass either bound, the names remembered so far are forgotten first.
const std::size_t MISSED_NAMES = 256;
const std::size_t MISSED_BYTES = 64 * 1024;

// `text` fit for one log line: bytes that are no UTF-8 and control
// characters are written as \xNN.
std::string printable(const std::string& text) {
    std::string out;
    std::size_t i = 0;
    while (i < text.size()) {
        unsigned char const c = static_cast<unsigned char>(text[i]);
        std::size_t length = 1;
        if (c >= 0x80) {
            length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
            if (length == 0 || i + length > text.size() || !isValidUTF8(text.data() + i, length))
                length = 0;
        }
        if (length == 0 || (length == 1 && (c < 0x20 || c == 0x7F))) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

// True when `section`, `key` and `value`, written as a header and an option
// line, read back as that one section and option: no line ends anywhere, no
// ']' in the section name, no '=' in the key, and no key that the reader
// takes for a comment or a header.
bool keepsStructure(const std::string& section, const std::string& key, const std::string& value) {
    static const char LINE_ENDS[] = "\r\n";
    if (section.find_first_of(LINE_ENDS) != std::string::npos ||
        key.find_first_of(LINE_ENDS) != std::string::npos ||
        value.find_first_of(LINE_ENDS) != std::string::npos)
        return false;
    if (section.find(']') != std::string::npos || key.find('=') != std::string::npos)
        return false;
    return key.empty() || (key[0] != '#' && key[0] != ';' && key[0] != '[');
}

// Replaces the file `name` by one holding `content`, through a temporary file
// in the same directory: either the whole new content is in place, or the
// old file is untouched. A symbolic link stays and its target is replaced.
// False with errno set.
bool replaceFile(const std::string& name, const std::string& content) {
    std::string target = name;
    struct stat existing;
    bool exists = false;
    if (::lstat(name.c_str(), &existing) == 0) {
        if (S_ISLNK(existing.st_mode)) {
            char* const resolved = ::realpath(name.c_str(), nullptr);
            if (resolved == nullptr)
                return false;
            target = resolved;
            std::free(resolved);
            if (::stat(target.c_str(), &existing) != 0)
                return false;
        }
        exists = true;
    } else if (errno != ENOENT) {
        return false;
    }
    if (exists) {
        // Devices, pipes and the like are not replaced by a plain file.
        if (!S_ISREG(existing.st_mode)) {
            errno = S_ISDIR(existing.st_mode) ? EISDIR : EINVAL;
            return false;
        }
        // Only a file that could be written in place may be replaced.
        if (::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0)
            return false;
    }
    std::string::size_type const slash = target.rfind('/');
    std::string const directory = slash == std::string::npos ? std::string(".")
                                  : slash == 0               ? std::string("/")
                                                             : target.substr(0, slash);
    std::string const base = slash == std::string::npos ? target : target.substr(slash + 1);
    Replacement_File temporary;
    if (!temporary.create(directory, base))
        return false;
    if (exists && !temporary.takeOver(existing))
        return false;
    return temporary.write(content) && temporary.commit(target);
}

}  // namespace

// ---------------------------------------------------------------------------
// ConfigFileOption

ConfigFileOption::ConfigFileOption(const std::string& section, const std::string& key,
                                   const std::string& value, const std::string& comment)
    : section(section), key(key), value(value), comment(comment), owners(0) {}

ConfigFileOption::ConfigFileOption(const ConfigFileOption& other)
    : section(other.section),
      key(other.key),
      value(other.value),
      comment(other.comment),
      owners(0) {}

ConfigFileOption& ConfigFileOption::operator=(const ConfigFileOption& other) {
    section = other.section;
    key = other.key;
    value = other.value;
    comment = other.comment;
    return *this;
}

ConfigFileOption::~ConfigFileOption() = default;

const std::string& ConfigFileOption::getSection() const {
    return section;
}
const std::string& ConfigFileOption::getKey() const {
    return key;
}
const std::string& ConfigFileOption::getValue() const {
    return value;
}
const std::string& ConfigFileOption::getComment() const {
    return comment;
}

void ConfigFileOption::setValue(const std::string& value) {
    this->value = value;
}

void ConfigFileOption::update(std::ostream& stream) const {
    if (!comment.empty())
        stream << comment << '\n';
    stream << key << '=' << value << '\n';
}

// ---------------------------------------------------------------------------
// ConfigFileSection

ConfigFileSection::ConfigFileSection(const std::string& name) : name(name), owners(0) {}

ConfigFileSection::ConfigFileSection(const ConfigFileSection& other)
    : options(other.options),
      order(other.order),
      name(other.name),
      comment(other.comment),
      owners(0) {
    for (auto& entry : options)
        if (entry.second != nullptr)
            ++entry.second->owners;
}

ConfigFileSection& ConfigFileSection::operator=(const ConfigFileSection& other) {
    if (this == &other)
        return *this;
    ConfigFileSection copy(other);
    options.swap(copy.options);
    order.swap(copy.order);
    name.swap(copy.name);
    comment.swap(copy.comment);
    return *this;
}

ConfigFileSection::~ConfigFileSection() {
    for (auto& entry : options)
        if (entry.second != nullptr && --entry.second->owners == 0)
            delete entry.second;
}

const std::string& ConfigFileSection::getName() const {
    return name;
}
const std::string& ConfigFileSection::getComment() const {
    return comment;
}
void ConfigFileSection::setComment(const std::string& comment) {
    this->comment = comment;
}

ConfigFileOption* ConfigFileSection::getOption(const std::string& key) {
    auto const found = options.find(key);
    return found != options.end() ? found->second : nullptr;
}

void ConfigFileSection::addOption(ConfigFileOption* option) {
    if (option == nullptr)
        return;
    order.push_back(option->key);
    ConfigFileOption*& slot = options[option->key];
    if (slot == option)
        return;
    ConfigFileOption* const previous = slot;
    slot = option;
    ++option->owners;
    if (previous != nullptr && --previous->owners == 0)
        delete previous;
}

void ConfigFileSection::update(std::ostream& stream) const {
    stream << '[' << name << ']' << '\n';
    for (const std::string& key : order) {
        auto const found = options.find(key);
        if (found != options.end() && found->second != nullptr)
            found->second->update(stream);
    }
}

// ---------------------------------------------------------------------------
// ConfigFile

ConfigFile::ConfigFile(const wchar_t* filename) {
    if (filename != nullptr && !wcstoutf8(filename, this->filename))
        this->filename.clear();
}

ConfigFile::ConfigFile(const Registry& registry) {
    if (!wcstoutf8(registry.configfile(), filename))
        filename.clear();
}

ConfigFile::ConfigFile(std::istream& stream) {
    try {
        parse(stream);
    } catch (...) {
        releaseAll();
        throw;
    }
}

ConfigFile::ConfigFile(const ConfigFile& other)
    : sections(other.sections),
      order(other.order),
      filename(other.filename),
      missed(other.missed),
      missedBytes(other.missedBytes),
      reported(other.reported) {
    holdAll();
}

ConfigFile& ConfigFile::operator=(const ConfigFile& other) {
    if (this == &other)
        return *this;
    ConfigFile copy(other);
    sections.swap(copy.sections);
    order.swap(copy.order);
    filename.swap(copy.filename);
    missed.swap(copy.missed);
    std::swap(missedBytes, copy.missedBytes);
    reported.swap(copy.reported);
    return *this;
}

ConfigFile::~ConfigFile() {
    releaseAll();
}

void ConfigFile::holdAll() {
    for (auto& entry : sections)
        if (entry.second != nullptr)
            ++entry.second->owners;
}

void ConfigFile::releaseAll() {
    for (auto& entry : sections)
        if (entry.second != nullptr && --entry.second->owners == 0)
            delete entry.second;
    sections.clear();
}

void ConfigFile::parse(std::istream& stream) {
    std::string pending;
    ConfigFileSection* current = nullptr;
    if (!stream.good())
        return;
    std::string line;
    for (;;) {
        std::getline(stream, line);
        // A read error (a directory, say) ends the reading as the end would.
        if (stream.bad())
            return;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty()) {
            // Blank: the pending comment stays pending.
        } else if (line[0] == '#' || line[0] == ';') {
            pending += '\n';
            pending += line;
        } else if (line[0] == '[') {
            std::size_t const close = line.find(']', 1);
            if (close != std::string::npos) {
                std::string const name = line.substr(1, close - 1);
                ConfigFileSection*& slot = sections[name];
                if (slot == nullptr) {
                    std::unique_ptr<ConfigFileSection> made(new ConfigFileSection(name));
                    made->comment = pending;
                    order.push_back(name);
                    made->owners = 1;
                    slot = made.release();
                    if (missed.erase(name) != 0)
                        missedBytes -= name.size();
                }
                current = slot;
                pending.clear();
            }
        } else {
            std::size_t const equals = line.find('=');
            if (equals != std::string::npos) {
                std::string const key = trimmed(line, 0, equals);
                std::string const value = trimmed(line, equals + 1, line.size());
                if (current == nullptr)
                    throw Exception(ERR_CONFIGFILE_READ, SEVERITY_SEVERE, SOURCE,
                                    "No section defined when option encountered.");
                std::unique_ptr<ConfigFileOption> option(
                    new ConfigFileOption(current->name, key, value, pending));
                current->addOption(option.get());
                option.release();
                pending.clear();
            }
        }
        if (!stream.good())
            return;
    }
}

void ConfigFile::format(std::ostream& stream) const {
    if (!stream.good())
        throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_FATAL, SOURCE,
                        "Failed to write to output stream.");
    for (const std::string& name : order) {
        auto const found = sections.find(name);
        if (found != sections.end() && found->second != nullptr)
            found->second->update(stream);
    }
}

int ConfigFile::open() {
    try {
        if (filename.empty())
            throw Exception(ERR_CONFIGFILE_READ, SEVERITY_FATAL, SOURCE,
                            "Trying to read configuration from a file, but no filename specified.");
        std::ifstream stream(filename.c_str(), std::ios::in);
        parse(stream);
        stream.close();
    } catch (...) {
        return -1;
    }
    return 0;
}

int ConfigFile::update() {
    int error = 0;
    try {
        if (filename.empty())
            throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_FATAL, SOURCE,
                            "Trying to write configuration to a file, but no filename specified.");
        std::ostringstream text;
        format(text);
        if (!replaceFile(filename, text.str())) {
            error = errno;
            TW_LOG_ERRNO("%D ERROR (%t): Can not rewrite configuration file %C",
                         printable(filename).c_str());
            throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_FATAL, SOURCE,
                            "Failed to write to output stream.");
        }
    } catch (...) {
        if (error != 0)
            errno = error;
        return -1;
    }
    return 0;
}

void ConfigFile::noteMissed(const std::string& section) {
    try {
        if (missed.count(section) != 0)
            return;
        if (section.size() > MISSED_BYTES)
            return;
        if (missed.size() >= MISSED_NAMES || missedBytes + section.size() > MISSED_BYTES) {
            missed.clear();
            missedBytes = 0;
        }
        missed.insert(section);
        missedBytes += section.size();
    } catch (const std::bad_alloc&) {
        // Only remove's answer for this name is lost.
    }
}

ConfigFileOption* ConfigFile::findOption(const std::string& section, const std::string& key) {
    auto const found = sections.find(section);
    if (found == sections.end() || found->second == nullptr) {
        noteMissed(section);
        return nullptr;
    }
    return found->second->getOption(key);
}

ACE_WString ConfigFile::get(const wchar_t* section, const wchar_t* key) {
    std::string narrowSection;
    std::string narrowKey;
    if (!wcstoutf8(section, narrowSection) || !wcstoutf8(key, narrowKey))
        return ACE_WString();
    ConfigFileOption* const option = findOption(narrowSection, narrowKey);
    if (option == nullptr)
        return ACE_WString();
    const std::string& value = option->getValue();
    ACE_WString wide = toWide(value);
    if (wide.length() == 0 && !value.empty() && value[0] != '\0' &&
        reported.insert(std::make_pair(narrowSection, narrowKey)).second) {
        TW_LOG(
            "%D WARN  (%t): The value of %C in section [%C] of %C is not UTF-8 text and is "
            "read as empty\n",
            printable(narrowKey).c_str(), printable(narrowSection).c_str(),
            filename.empty() ? "a configuration stream" : printable(filename).c_str());
    }
    return wide;
}

int ConfigFile::setNarrow(const std::string& section, const std::string& key,
                          const std::string& value) {
    if (!keepsStructure(section, key, value)) {
        TW_LOG(
            "%D ERROR (%t): Can not store %C in section [%C]: the text would change the "
            "structure of the file\n",
            printable(key).c_str(), printable(section).c_str());
        errno = EINVAL;
        return -1;
    }
    try {
        ConfigFileSection*& slot = sections[section];
        if (slot == nullptr) {
            ConfigFileSection* const made = new (std::nothrow) ConfigFileSection(section);
            if (made == nullptr) {
                errno = ENOMEM;
                return -1;
            }
            made->owners = 1;
            slot = made;
            order.push_back(section);
            if (missed.erase(section) != 0)
                missedBytes -= section.size();
        }
        ConfigFileOption* const option = slot->getOption(key);
        if (option != nullptr) {
            option->setValue(value);
            return 0;
        }
        ConfigFileOption* const made = new (std::nothrow) ConfigFileOption(section, key, value, "");
        if (made == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        std::unique_ptr<ConfigFileOption> guard(made);
        slot->addOption(made);
        guard.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int ConfigFile::set(const wchar_t* section, const wchar_t* key, const wchar_t* value) {
    std::string narrowSection;
    std::string narrowKey;
    std::string narrowValue;
    if (!wcstoutf8(section, narrowSection) || !wcstoutf8(key, narrowKey) ||
        !wcstoutf8(value, narrowValue))
        return -1;
    return setNarrow(narrowSection, narrowKey, narrowValue);
}

int ConfigFile::remove(const wchar_t* section) {
    std::string name;
    if (!wcstoutf8(section, name))
        return -1;
    auto const found = sections.find(name);
    if (found == sections.end()) {
        // The entry that a failed lookup counts as: taken out once.
        if (missed.erase(name) != 0) {
            missedBytes -= name.size();
            return 0;
        }
        errno = EINVAL;
        return -1;
    }
    ConfigFileSection* const removed = found->second;
    sections.erase(found);
    if (removed != nullptr && --removed->owners == 0)
        delete removed;
    return 0;
}

bool ConfigFile::hasSection(const wchar_t* section) {
    std::string name;
    if (!wcstoutf8(section, name))
        return false;
    auto const found = sections.find(name);
    if (found == sections.end() || found->second == nullptr) {
        noteMissed(name);
        return false;
    }
    return true;
}

bool ConfigFile::hasOption(const wchar_t* section, const wchar_t* key) {
    std::string narrowSection;
    std::string narrowKey;
    if (!wcstoutf8(section, narrowSection) || !wcstoutf8(key, narrowKey))
        return false;
    return findOption(narrowSection, narrowKey) != nullptr;
}

int ConfigFile::list_sections() const {
    for (const auto& entry : sections)
        if (entry.second != nullptr)
            std::cout << entry.first << '\n';
    std::cout.flush();
    return 0;
}

int ConfigFile::list_sections(std::vector<std::string>& names) const {
    for (const auto& entry : sections)
        if (entry.second != nullptr)
            names.push_back(entry.first);
    return 0;
}

void ConfigFile::setStoragePath(const std::string& root) {
    static const char* const KEYS[] = {"var",  "keydir",      "log",
                                       "temp", "snapshots",   "rtdir",
                                       "pid",  "progressdir", "resourcebundles"};
    for (const char* key : KEYS)
        updatePathInParam(key, root);
}

void ConfigFile::updatePathInParam(const std::string& key, const std::string& root) {
    ConfigFileOption* const option = findOption("paths", key);
    if (option == nullptr)
        return;
    const std::string& value = option->getValue();
    if (value.empty() || value[0] == '/')
        return;
    std::string path(root);
    Path::Join(path, value.c_str());
    if (setNarrow("paths", key, path) == -1)
        throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_SEVERE, SOURCE,
                        "Failed to update parameter in configfile");
}

std::ostream& operator<<(std::ostream& stream, const ConfigFile& file) {
    file.format(stream);
    return stream;
}

}  // namespace Tarnwick
