#include <tarnwick/configfile.h>
#include <tarnwick/exception.h>
#include <tarnwick/path.h>
#include <tarnwick/registry.h>
#include <tarnwick/tarnwick.h>

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>

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
    return options[key];
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
        __read(stream);
    } catch (...) {
        __releaseAll();
        throw;
    }
}

ConfigFile::ConfigFile(const ConfigFile& other)
    : sections(other.sections), order(other.order), filename(other.filename) {
    __holdAll();
}

ConfigFile& ConfigFile::operator=(const ConfigFile& other) {
    if (this == &other)
        return *this;
    ConfigFile copy(other);
    sections.swap(copy.sections);
    order.swap(copy.order);
    filename.swap(copy.filename);
    return *this;
}

ConfigFile::~ConfigFile() {
    __releaseAll();
}

void ConfigFile::__holdAll() {
    for (auto& entry : sections)
        if (entry.second != nullptr)
            ++entry.second->owners;
}

void ConfigFile::__releaseAll() {
    for (auto& entry : sections)
        if (entry.second != nullptr && --entry.second->owners == 0)
            delete entry.second;
    sections.clear();
}

void ConfigFile::__read(std::istream& stream) {
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

void ConfigFile::__write(std::ostream& stream) const {
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
        __read(stream);
        stream.close();
    } catch (...) {
        return -1;
    }
    return 0;
}

int ConfigFile::update() {
    try {
        if (filename.empty())
            throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_FATAL, SOURCE,
                            "Trying to write configuration to a file, but no filename specified.");
        std::ofstream stream(filename.c_str(), std::ios::out | std::ios::trunc);
        __write(stream);
        stream.close();
    } catch (...) {
        return -1;
    }
    return 0;
}

ConfigFileOption* ConfigFile::__option(const std::string& section, const std::string& key) {
    ConfigFileSection* const found = sections[section];
    if (found == nullptr)
        return nullptr;
    return found->getOption(key);
}

ACE_WString ConfigFile::get(const wchar_t* section, const wchar_t* key) {
    std::string narrowSection;
    std::string narrowKey;
    if (!wcstoutf8(section, narrowSection) || !wcstoutf8(key, narrowKey))
        return ACE_WString();
    ConfigFileOption* const option = __option(narrowSection, narrowKey);
    if (option == nullptr)
        return ACE_WString();
    return toWide(option->getValue());
}

int ConfigFile::__set(const std::string& section, const std::string& key,
                      const std::string& value) {
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
    return __set(narrowSection, narrowKey, narrowValue);
}

int ConfigFile::remove(const wchar_t* section) {
    std::string name;
    if (!wcstoutf8(section, name))
        return -1;
    auto const found = sections.find(name);
    if (found == sections.end()) {
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
    return sections[name] != nullptr;
}

bool ConfigFile::hasOption(const wchar_t* section, const wchar_t* key) {
    std::string narrowSection;
    std::string narrowKey;
    if (!wcstoutf8(section, narrowSection) || !wcstoutf8(key, narrowKey))
        return false;
    return __option(narrowSection, narrowKey) != nullptr;
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
        __updatePathInParam(key, root);
}

void ConfigFile::__updatePathInParam(const std::string& key, const std::string& root) {
    ConfigFileOption* const option = __option("paths", key);
    if (option == nullptr)
        return;
    const std::string& value = option->getValue();
    if (value.empty() || value[0] == '/')
        return;
    std::string path(root);
    Path::Join(path, value.c_str());
    if (__set("paths", key, path) == -1)
        throw Exception(ERR_CONFIGFILE_WRITE, SEVERITY_SEVERE, SOURCE,
                        "Failed to update parameter in configfile");
}

std::ostream& operator<<(std::ostream& stream, const ConfigFile& file) {
    file.__write(stream);
    return stream;
}

}  // namespace Tarnwick
