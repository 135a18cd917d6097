// Configuration files: sections of key=value lines, read, queried, edited and
// written back in their order, with the comments that stood above the keys.
// The format and its rules are told in docs/configfile.md. Stored text is
// narrow (UTF-8); the query and edit operations of ConfigFile take and give
// wide text and convert at the boundary.
#pragma once

#include <tarnwick/export.h>

#include <ace/SString.h>

#include <cstddef>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Tarnwick {

class Registry;

// One key=value line of a section, with the comment lines above it.
class TARNWICK_EXPORT ConfigFileOption {
public:
    ConfigFileOption(const std::string& section, const std::string& key, const std::string& value,
                     const std::string& comment);
    // Copies the four texts; the copy belongs to no section.
    ConfigFileOption(const ConfigFileOption& other);
    ConfigFileOption& operator=(const ConfigFileOption& other);
    ~ConfigFileOption();

    const std::string& getSection() const;
    const std::string& getKey() const;
    const std::string& getValue() const;
    // Each comment line preceded by a line end ("\n#a\n#b"); empty if none.
    const std::string& getComment() const;
    void setValue(const std::string& value);

    // Writes the comment and a line end when there is a comment, then
    // "key=value" and a line end.
    void update(std::ostream& stream) const;

private:
    friend class ConfigFileSection;

    std::string section;
    std::string key;
    std::string value;
    std::string comment;
    // How many sections hold this option.
    std::size_t owners;
};

// One section: its options by key and the order in which they are written.
// A section owns the options added to it. A copy shares them with its source;
// the last section holding an option deletes it.
class TARNWICK_EXPORT ConfigFileSection {
public:
    explicit ConfigFileSection(const std::string& name);
    ConfigFileSection(const ConfigFileSection& other);
    ConfigFileSection& operator=(const ConfigFileSection& other);
    ~ConfigFileSection();

    const std::string& getName() const;
    // The comment above the section's first header. It is never written.
    const std::string& getComment() const;
    void setComment(const std::string& comment);

    // The option of `key`, or null when the section has none. The lookup
    // leaves nothing behind.
    ConfigFileOption* getOption(const std::string& key);
    // Takes ownership of `option` (made with new) and files it under its key.
    // An option already filed under that key is released and no longer
    // reachable; the key is appended to the order of writing in every case,
    // so a key added twice is written twice, both times with the later
    // option. A null option is ignored.
    void addOption(ConfigFileOption* option);

    // Writes "[name]" and a line end, then every option in order.
    void update(std::ostream& stream) const;

private:
    friend class ConfigFile;

    std::map<std::string, ConfigFileOption*> options;
    std::vector<std::string> order;
    std::string name;
    std::string comment;
    // How many ConfigFile objects hold this section.
    std::size_t owners;
};

// One configuration file in memory. A lookup of a section that isn't there
// counts as an empty entry of that name, invisible to every operation but
// remove, which accepts it once; the object remembers a bounded number of
// such names (see docs/configfile.md), so failed lookups cost no memory
// beyond that bound. The object owns its sections; a copy shares them with
// its source, and the last holder deletes them. No lock: an object belongs to
// one thread at a time. Wide arguments must not be null (a null one gives the
// result of an absent name, or -1 with EINVAL).
class TARNWICK_EXPORT ConfigFile {
public:
    // Stores the file name (converted to UTF-8); reads nothing.
    explicit ConfigFile(const wchar_t* filename);
    // Stores the registry's configuration file path as the name; reads nothing.
    explicit ConfigFile(const Registry& registry);
    // Reads `stream` at once; the file name stays empty. Throws the reader's
    // Exception (option before any section).
    explicit ConfigFile(std::istream& stream);
    ConfigFile(const ConfigFile& other);
    ConfigFile& operator=(const ConfigFile& other);
    ~ConfigFile();

    // Reads the named file on top of what the object holds. 0, also for a
    // missing or unreadable file (nothing is read); -1 when the name is empty
    // or the file has an option before any section (what the object held
    // stays). Failures are logged, never thrown.
    int open();
    // Rewrites the named file from the object, atomically: the new content
    // goes to a temporary file in the same directory, which is written,
    // synced and renamed over the file (the target of a symbolic link), with
    // the old file's mode and owner; a new file is made with mode 0600. 0;
    // -1 (logged, errno set) when the name is empty, the file isn't a
    // regular file or can't be written, or any step fails; the file is then
    // left as it was.
    int update();

    // The value, or the empty string when the section or key is absent or
    // the value is no valid UTF-8 (logged once per key as a warning).
    ACE_WString get(const wchar_t* section, const wchar_t* key);
    // Creates the section (appended to the order of writing) and option as
    // needed, or replaces the value of an existing option, which keeps its
    // place and comment. 0; -1 with errno ENOMEM when memory runs out,
    // EILSEQ when an argument can't be converted to UTF-8, EINVAL (logged)
    // when the text would change the file's structure: a line end (CR or LF)
    // anywhere, '=' in the key, ']' in the section name, or a key beginning
    // with '#', ';' or '['.
    int set(const wchar_t* section, const wchar_t* key, const wchar_t* value);
    // Deletes the section. Its name stays in the order of writing, so a later
    // set of the same name makes it appear twice in a rewrite. 0; -1 with
    // errno EINVAL when no entry of that name exists.
    int remove(const wchar_t* section);
    bool hasSection(const wchar_t* section);
    // False for an absent section.
    bool hasOption(const wchar_t* section, const wchar_t* key);

    // Prints every section name and a line end to standard output, in
    // sorted (byte-wise) order. 0.
    int list_sections() const;
    // Appends every section name in sorted order, without clearing `names`. 0.
    int list_sections(std::vector<std::string>& names) const;

    // Puts `root` in front of the relative paths among "var", "keydir",
    // "log", "temp", "snapshots", "rtdir", "pid", "progressdir" and
    // "resourcebundles" of section "paths" (joined with Path::Join). Values
    // that are empty or begin with '/' stay. Throws Exception (14) when a
    // value can't be stored.
    void setStoragePath(const std::string& root);

    // Writes the sections in file order. Throws Exception (14) when the
    // stream isn't good on entry.
    friend std::ostream& operator<<(std::ostream& stream, const ConfigFile& file);

private:
    void parse(std::istream& stream);
    void format(std::ostream& stream) const;
    void updatePathInParam(const std::string& key, const std::string& root);

    // Narrow forms of the lookups and of set, with the same entries left behind.
    ConfigFileOption* findOption(const std::string& section, const std::string& key);
    int setNarrow(const std::string& section, const std::string& key, const std::string& value);
    void holdAll();
    void releaseAll();
    // Notes a section name that a lookup didn't find, for remove.
    void noteMissed(const std::string& section);

    std::map<std::string, ConfigFileSection*> sections;
    std::vector<std::string> order;
    std::string filename;
    // Section names of failed lookups, which remove accepts once; bounded.
    std::set<std::string> missed;
    std::size_t missedBytes = 0;
    // Options whose value was found not to be UTF-8 and said so in the log.
    std::set<std::pair<std::string, std::string>> reported;
};

TARNWICK_EXPORT std::ostream& operator<<(std::ostream& stream, const ConfigFile& file);

}  // namespace Tarnwick
