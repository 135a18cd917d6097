// A component's own view of the configuration: the keys it declared, each
// required or optional, refreshed as a whole by every reload.
#pragma once

#include <tarnwick/export.h>

#include <ace/Thread_Mutex.h>

#include <map>
#include <set>
#include <string>

namespace Tarnwick {

// One value of the typed configuration: whether a value was supplied, its
// narrow text, and whether the key may be missing at a reload.
struct TARNWICK_EXPORT TWConfArgument {
    TWConfArgument() : m_present(false), m_optional(false) {}
    TWConfArgument(bool present, const std::string& value, bool optional)
        : m_present(present), m_value(value), m_optional(optional) {}

    bool m_present;
    std::string m_value;
    bool m_optional;
};

typedef std::map<std::string, TWConfArgument> TWConfArguments;

// The keys a component wants, with their values. The component registers
// each key (required or optional), hands the object to a TWConfiguration
// through a boost::shared_ptr, and from then on each reload copies the
// declared keys in.
//
// Any thread may read while another reloads: every accessor and the whole of
// reload hold one lock, so a reload is atomic for readers, except for a
// reload that fails on a missing required key (see reload). Subclasses may
// override reload and call this one.
//
// Failures throw Exception from "TWSubConfiguration": 16 (severity 7) for a
// required key without value, 200 (severity 7) for an unregistered key or a
// required key missing at a reload.
class TARNWICK_EXPORT TWSubConfiguration {
public:
    TWSubConfiguration();
    virtual ~TWSubConfiguration();
    TWSubConfiguration(const TWSubConfiguration&) = delete;
    TWSubConfiguration& operator=(const TWSubConfiguration&) = delete;

    // Declares `key` without a value, replacing any entry of that key: a
    // second registration forgets the value. An optional key may be missing
    // at a reload and keeps its earlier value then.
    void registerKey(const std::string& key, bool optional);
    // True when `key` is registered and has a value (also an empty one).
    bool keyExists(const std::string& key) const;
    // Throws 16 "Required parameter KEY not present." unless keyExists.
    void validateKeyExists(const std::string& key) const;
    // The value of a registered key; the empty text while it has none.
    // Throws 200 "Parameter KEY not present for getArg" for an unregistered
    // key. The reference stays valid, and its text unchanged, until the next
    // registerKey of that key: a reload that brings a new text doesn't
    // overwrite the text the reference shows, so it may be read without the
    // lock while other threads reload. Each distinct text a key had is kept
    // until then.
    const std::string& getArgString(const std::string& key) const;
    // Every key that has a value, with its text, read under one lock: a
    // consistent view of one reload.
    std::map<std::string, std::string> getArguments() const;
    // Gives a registered key this value and makes it required. Throws 200
    // "Parameter KEY not present for setArg" for an unregistered key.
    void setArg(const std::string& key, const std::string& value);

    // Copies the value of each registered key from `values`, in key order;
    // an entry counts as supplied whatever its flags. A missing optional key
    // keeps what it had. A missing required key throws 200 "Parameter KEY
    // not present for reload"; the keys before it then have their new
    // values and the keys after it their old ones. Keys that are not
    // registered are ignored.
    virtual void reload(const TWConfArguments& values);

private:
    // The stable copy of `value` for `key`, which getArgString hands out.
    const std::string& stableText(const std::string& key, const std::string& value) const;

    TWConfArguments m_arguments;
    mutable ACE_Thread_Mutex m_lock;
    // Per key, every text that getArgString has handed out a reference to;
    // nodes of a std::set never move, and are never written once made.
    mutable std::map<std::string, std::set<std::string>> m_texts;
};

}  // namespace Tarnwick
