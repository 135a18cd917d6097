// The typed configuration: a map of narrow keys to values, filled from the
// process-wide Configuration or by hand, that refreshes the components which
// registered with it.
#pragma once

#include <tarnwick/export.h>
#include <tarnwick/twsubconfiguration.h>

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/owner_less.hpp>
#include <boost/weak_ptr.hpp>

#include <set>
#include <string>

namespace Tarnwick {

class Configuration;

// Values by key and the components (TWSubConfiguration) to reload with them.
// Components are held by weak pointer, so this object doesn't keep them
// alive; a component that has gone is passed over. There is no lock: the
// thread that loads and reloads owns the object.
//
// Failures throw Exception from "TWConfiguration": 1 (severity 5) for a
// value that doesn't convert to UTF-8, 12 (severity 5) for a required
// setting that is absent, 400 (severity 7) for misuse of the registrations.
class TARNWICK_EXPORT TWConfiguration {
public:
    TWConfiguration();
    ~TWConfiguration();
    TWConfiguration(const TWConfiguration&) = delete;
    TWConfiguration& operator=(const TWConfiguration&) = delete;

    // Assigns, replacing any earlier entry of `key`.
    void setValue(const std::string& key, const TWConfArgument& value);
    // Enters `value` as present and required.
    void setValue(const std::string& key, const std::string& value);

    // Enters every declared setting of `config`, in the order of its
    // settings map, as present and required, with its value in UTF-8 (the
    // empty text when it has none). Throws 1 "Could not convert value of key
    // 'KEY' to UTF8." at the first value that doesn't convert; the keys
    // before it stay entered.
    void loadFromTarnwickConfiguration(Configuration* config);
    // Enters one setting, present, optional unless `required`. An absent
    // setting throws 12 "Required configuration value 'KEY' not supplied."
    // when required, and is entered with the empty text otherwise. A value
    // that doesn't convert throws 1 as above.
    void loadFromTarnwickConfiguration(Configuration* config, const std::string& key,
                                       bool required);

    // Registers `sub` (a second registration changes nothing) and reloads it
    // when `reload` is true, which throws what its reload throws. A null
    // `sub` throws 400 "NULL passed to registerSubConfiguration for argument
    // 'subconfiguration'".
    void registerSubConfiguration(boost::shared_ptr<TWSubConfiguration> sub, bool reload);
    // Reloads one registered component with the current values. One that
    // was never registered, or has gone, throws 400 "TWSubConfiguration
    // reload requested for a non-registered TWSubConfiguration".
    void reloadSubConfiguration(boost::weak_ptr<TWSubConfiguration> sub);
    // Reloads every registered component that still exists, in the order of
    // the registrations (by their shared control block, not by time); the
    // first exception ends the loop and the later ones are not reloaded.
    void reloadTWSubConfigurations();

    // The values entered so far.
    const TWConfArguments& values() const { return m_values; }

private:
    typedef std::set<boost::weak_ptr<TWSubConfiguration>,
                     boost::owner_less<boost::weak_ptr<TWSubConfiguration>>>
        SubConfigurations;

    TWConfArguments m_values;
    SubConfigurations m_subConfigurations;
};

}  // namespace Tarnwick
