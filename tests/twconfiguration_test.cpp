// Tests of the typed configuration: TWConfiguration's loads and
// registrations, TWSubConfiguration's keys, values and reloads, their
// exceptions (number, severity, source, text and the logged line), and
// reloads racing with reader threads.
#include <tarnwick/configuration.h>
#include <tarnwick/exception.h>
#include <tarnwick/twconfiguration.h>
#include <tarnwick/twsubconfiguration.h>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "exception_check.h"
#include "log_capture.h"

using namespace Tarnwick;
using TarnwickTest::expectException;
using TarnwickTest::LogCapture;

namespace {

// A store with the settings "alpha" (value "one"), "beta" (no value) and
// "gamma" (declared, never given).
class Store {
public:
    Store() {
        add(L"alpha");
        add(L"beta");
        add(L"gamma");
        config.setKeyVal(L"alpha", L"one");
        config.setKeyVal(L"beta", nullptr);
    }
    void add(const wchar_t* name) {
        EXPECT_EQ(
            config.register_setting(new Setting(name, 0, L"test", L"a setting", SETTING_ARGUMENT)),
            0);
    }
    Configuration config;
};

boost::shared_ptr<TWSubConfiguration> subWith(
    const std::vector<std::pair<std::string, bool>>& keys) {
    boost::shared_ptr<TWSubConfiguration> sub = boost::make_shared<TWSubConfiguration>();
    for (const auto& key : keys)
        sub->registerKey(key.first, key.second);
    return sub;
}

TWConfArguments argumentsOf(const std::map<std::string, std::string>& values) {
    TWConfArguments out;
    for (const auto& entry : values)
        out[entry.first] = TWConfArgument(true, entry.second, false);
    return out;
}

}  // namespace

TEST(TWConfArgumentTest, FormsOfMaking) {
    TWConfArgument const blank;
    EXPECT_FALSE(blank.m_present);
    EXPECT_EQ(blank.m_value, "");
    EXPECT_FALSE(blank.m_optional);

    TWConfiguration conf;
    conf.setValue("k", std::string("text"));
    const TWConfArgument& set = conf.values().at("k");
    EXPECT_TRUE(set.m_present);
    EXPECT_EQ(set.m_value, "text");
    EXPECT_FALSE(set.m_optional);

    conf.setValue("k", TWConfArgument(false, "other", true));
    const TWConfArgument& replaced = conf.values().at("k");
    EXPECT_FALSE(replaced.m_present);
    EXPECT_EQ(replaced.m_value, "other");
    EXPECT_TRUE(replaced.m_optional);
    EXPECT_EQ(conf.values().size(), 1u);
}

TEST(TWSubConfigurationTest, RegisteredKeyExistsOnlyAfterFirstReload) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}, {"b", true}});
    EXPECT_FALSE(sub->keyExists("a"));
    EXPECT_FALSE(sub->keyExists("b"));
    EXPECT_FALSE(sub->keyExists("unregistered"));

    TWConfiguration conf;
    conf.setValue("a", std::string("1"));
    conf.setValue("b", std::string("2"));
    conf.registerSubConfiguration(sub, true);
    EXPECT_TRUE(sub->keyExists("a"));
    EXPECT_TRUE(sub->keyExists("b"));
    EXPECT_EQ(sub->getArgString("a"), "1");
    EXPECT_EQ(sub->getArgString("b"), "2");
}

TEST(TWSubConfigurationTest, GetArgStringBeforeReloadIsEmptyAndUnregisteredThrows200) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    {
        LogCapture log;
        EXPECT_EQ(sub->getArgString("a"), "");
        EXPECT_TRUE(log.lines().empty());
    }
    expectException([&] { (void)sub->getArgString("missing"); }, ERR_PARAMETER_NOT_PRESENT,
                    SEVERITY_FATAL, "TWSubConfiguration",
                    "Parameter missing not present for getArg");
}

TEST(TWSubConfigurationTest, ValidateKeyExistsThrows16) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    expectException([&] { sub->validateKeyExists("a"); }, ERR_REQUIRED_PARAMETER, SEVERITY_FATAL,
                    "TWSubConfiguration", "Required parameter a not present.");
    expectException([&] { sub->validateKeyExists("zz"); }, ERR_REQUIRED_PARAMETER, SEVERITY_FATAL,
                    "TWSubConfiguration", "Required parameter zz not present.");
    sub->setArg("a", "");
    LogCapture log;
    sub->validateKeyExists("a");
    EXPECT_TRUE(log.lines().empty());
}

TEST(TWSubConfigurationTest, SetArgOnUnregisteredKeyThrows200) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    expectException([&] { sub->setArg("b", "x"); }, ERR_PARAMETER_NOT_PRESENT, SEVERITY_FATAL,
                    "TWSubConfiguration", "Parameter b not present for setArg");
    EXPECT_FALSE(sub->keyExists("b"));
    EXPECT_FALSE(sub->keyExists("a"));
}

TEST(TWSubConfigurationTest, SetArgMakesKeyExistAndTakesOptionalMarkAway) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"opt", true}});
    TWConfiguration conf;
    conf.registerSubConfiguration(sub, true);  // the optional key may be missing
    EXPECT_FALSE(sub->keyExists("opt"));

    sub->setArg("opt", "mine");
    EXPECT_TRUE(sub->keyExists("opt"));
    EXPECT_EQ(sub->getArgString("opt"), "mine");

    expectException([&] { conf.reloadTWSubConfigurations(); }, ERR_PARAMETER_NOT_PRESENT,
                    SEVERITY_FATAL, "TWSubConfiguration", "Parameter opt not present for reload");
    EXPECT_EQ(sub->getArgString("opt"), "mine");
}

TEST(TWSubConfigurationTest, ReloadWithoutRequiredKeyThrows200AndKeepsEarlierKeysChanged) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}, {"b", false}, {"c", false}});
    TWConfiguration conf;
    conf.setValue("a", std::string("a1"));
    conf.setValue("b", std::string("b1"));
    conf.setValue("c", std::string("c1"));
    conf.registerSubConfiguration(sub, true);

    // "b" is gone: "a" takes its new value, "c" keeps its old one.
    TWSubConfiguration& view = *sub;
    expectException(
        [&] {
            view.reload(argumentsOf({{"a", "a2"}, {"c", "c2"}}));
        },
        ERR_PARAMETER_NOT_PRESENT, SEVERITY_FATAL, "TWSubConfiguration",
        "Parameter b not present for reload");
    EXPECT_EQ(sub->getArgString("a"), "a2");
    EXPECT_EQ(sub->getArgString("b"), "b1");
    EXPECT_EQ(sub->getArgString("c"), "c1");
    // The lock went with the exception: a write and a read pass.
    sub->setArg("b", "b3");
    EXPECT_EQ(sub->getArgString("b"), "b3");
}

TEST(TWSubConfigurationTest, ReloadWithoutOptionalKeyKeepsOldValue) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"opt", true}, {"req", false}});
    sub->reload(argumentsOf({{"opt", "first"}, {"req", "r1"}}));
    EXPECT_EQ(sub->getArgString("opt"), "first");
    sub->reload(argumentsOf({{"req", "r2"}}));
    EXPECT_TRUE(sub->keyExists("opt"));
    EXPECT_EQ(sub->getArgString("opt"), "first");
    EXPECT_EQ(sub->getArgString("req"), "r2");
}

TEST(TWSubConfigurationTest, ReloadCountsEntriesWhateverTheirFlagsAndIgnoresUnregisteredKeys) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    TWConfArguments values;
    values["a"] = TWConfArgument(false, "", true);
    values["other"] = TWConfArgument(true, "x", false);
    sub->reload(values);
    EXPECT_TRUE(sub->keyExists("a"));
    EXPECT_EQ(sub->getArgString("a"), "");
    EXPECT_FALSE(sub->keyExists("other"));
    EXPECT_EQ(sub->getArguments(), (std::map<std::string, std::string>{{"a", ""}}));
}

TEST(TWSubConfigurationTest, SecondRegisterKeyForgetsValue) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    sub->setArg("a", "v");
    sub->registerKey("a", true);
    EXPECT_FALSE(sub->keyExists("a"));
    EXPECT_EQ(sub->getArgString("a"), "");
    sub->reload(TWConfArguments());  // optional now
    EXPECT_FALSE(sub->keyExists("a"));
}

TEST(TWSubConfigurationTest, ReferenceFromGetArgStringKeepsItsTextAcrossReloads) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    sub->reload(argumentsOf({{"a", "old"}}));
    const std::string& held = sub->getArgString("a");
    sub->reload(argumentsOf({{"a", "new and longer than any short string buffer"}}));
    EXPECT_EQ(held, "old");
    EXPECT_EQ(sub->getArgString("a"), "new and longer than any short string buffer");
    sub->reload(argumentsOf({{"a", "old"}}));
    EXPECT_EQ(&sub->getArgString("a"), &held);
}

TEST(TWConfigurationTest, RegisterNullThrows400) {
    TWConfiguration conf;
    expectException(
        [&] { conf.registerSubConfiguration(boost::shared_ptr<TWSubConfiguration>(), true); },
        ERR_SUBCONFIGURATION, SEVERITY_FATAL, "TWConfiguration",
        "NULL passed to registerSubConfiguration for argument 'subconfiguration'");
}

TEST(TWConfigurationTest, ReloadOfNeverRegisteredThrows400) {
    TWConfiguration conf;
    boost::shared_ptr<TWSubConfiguration> sub = subWith({});
    std::string const text =
        "TWSubConfiguration reload requested for a non-registered TWSubConfiguration";
    expectException([&] { conf.reloadSubConfiguration(sub); }, ERR_SUBCONFIGURATION, SEVERITY_FATAL,
                    "TWConfiguration", text);
    expectException([&] { conf.reloadSubConfiguration(boost::weak_ptr<TWSubConfiguration>()); },
                    ERR_SUBCONFIGURATION, SEVERITY_FATAL, "TWConfiguration", text);
    // Another registered object doesn't make this one registered.
    conf.registerSubConfiguration(subWith({}), false);
    expectException([&] { conf.reloadSubConfiguration(sub); }, ERR_SUBCONFIGURATION, SEVERITY_FATAL,
                    "TWConfiguration", text);
}

TEST(TWConfigurationTest, RegistrationWithoutReloadLeavesValuesAlone) {
    TWConfiguration conf;
    conf.setValue("a", std::string("1"));
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}});
    conf.registerSubConfiguration(sub, false);
    EXPECT_FALSE(sub->keyExists("a"));
    conf.reloadSubConfiguration(sub);
    EXPECT_EQ(sub->getArgString("a"), "1");
    // A second registration changes nothing and reloads only on request.
    conf.setValue("a", std::string("2"));
    conf.registerSubConfiguration(sub, false);
    EXPECT_EQ(sub->getArgString("a"), "1");
    conf.registerSubConfiguration(sub, true);
    EXPECT_EQ(sub->getArgString("a"), "2");
}

TEST(TWConfigurationTest, RegisterWithReloadThrowsWhatReloadThrowsAndStaysRegistered) {
    TWConfiguration conf;
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"needed", false}});
    expectException([&] { conf.registerSubConfiguration(sub, true); }, ERR_PARAMETER_NOT_PRESENT,
                    SEVERITY_FATAL, "TWSubConfiguration",
                    "Parameter needed not present for reload");
    conf.setValue("needed", std::string("here"));
    conf.reloadSubConfiguration(sub);
    EXPECT_EQ(sub->getArgString("needed"), "here");
}

TEST(TWConfigurationTest, WeakRegistrationDoesNotKeepComponentsAlive) {
    TWConfiguration conf;
    conf.setValue("a", std::string("1"));
    boost::shared_ptr<TWSubConfiguration> kept = subWith({{"a", false}});
    boost::weak_ptr<TWSubConfiguration> gone;
    {
        boost::shared_ptr<TWSubConfiguration> brief = subWith({{"a", false}});
        conf.registerSubConfiguration(brief, true);
        gone = brief;
    }
    EXPECT_TRUE(gone.expired());
    conf.registerSubConfiguration(kept, false);
    conf.setValue("a", std::string("2"));
    conf.reloadTWSubConfigurations();  // the gone one is passed over
    EXPECT_EQ(kept->getArgString("a"), "2");
    expectException([&] { conf.reloadSubConfiguration(gone); }, ERR_SUBCONFIGURATION,
                    SEVERITY_FATAL, "TWConfiguration",
                    "TWSubConfiguration reload requested for a non-registered "
                    "TWSubConfiguration");
}

// A component that counts its reloads and throws on the one it is told to.
class Counting : public TWSubConfiguration {
public:
    explicit Counting(bool fail) : m_fail(fail) {}
    void reload(const TWConfArguments& values) override {
        ++reloads;
        if (m_fail)
            throw Exception(ERR_PARAMETER_NOT_PRESENT, SEVERITY_FATAL, "TWSubConfiguration",
                            "Parameter x not present for reload");
        TWSubConfiguration::reload(values);
    }
    int reloads = 0;

private:
    bool m_fail;
};

TEST(TWConfigurationTest, ReloadAllStopsAtFirstExceptionInSetOrder) {
    TWConfiguration conf;
    std::vector<boost::shared_ptr<Counting>> subs;
    for (int i = 0; i < 5; ++i)
        subs.push_back(boost::make_shared<Counting>(i == 2));
    for (const auto& sub : subs)
        conf.registerSubConfiguration(sub, false);
    // The set is ordered by control block; find the failing one's place.
    std::vector<boost::shared_ptr<Counting>> ordered = subs;
    std::sort(ordered.begin(), ordered.end(),
              [](const boost::shared_ptr<Counting>& a, const boost::shared_ptr<Counting>& b) {
                  return a.owner_before(b);
              });
    expectException([&] { conf.reloadTWSubConfigurations(); }, ERR_PARAMETER_NOT_PRESENT,
                    SEVERITY_FATAL, "TWSubConfiguration", "Parameter x not present for reload");
    bool reachedFailing = false;
    for (const auto& sub : ordered) {
        EXPECT_EQ(sub->reloads, reachedFailing ? 0 : 1);
        if (sub == subs[2])
            reachedFailing = true;
    }
}

TEST(TWConfigurationTest, LoadOneRequiredMissingKeyThrows12) {
    Store store;
    TWConfiguration conf;
    expectException([&] { conf.loadFromTarnwickConfiguration(&store.config, "gamma", true); },
                    ERR_REQUIRED_CONFIGURATION, SEVERITY_SEVERE, "TWConfiguration",
                    "Required configuration value 'gamma' not supplied.");
    expectException([&] { conf.loadFromTarnwickConfiguration(&store.config, "nothing", true); },
                    ERR_REQUIRED_CONFIGURATION, SEVERITY_SEVERE, "TWConfiguration",
                    "Required configuration value 'nothing' not supplied.");
    EXPECT_TRUE(conf.values().empty());
}

TEST(TWConfigurationTest, LoadOneOptionalMissingKeyEntersEmptyOptionalValue) {
    Store store;
    TWConfiguration conf;
    LogCapture log;
    conf.loadFromTarnwickConfiguration(&store.config, "gamma", false);
    const TWConfArgument& entry = conf.values().at("gamma");
    EXPECT_TRUE(entry.m_present);
    EXPECT_EQ(entry.m_value, "");
    EXPECT_TRUE(entry.m_optional);
    EXPECT_TRUE(log.lines().empty());
}

TEST(TWConfigurationTest, LoadOnePresentKey) {
    Store store;
    store.config.setKeyVal(L"alpha", L"gr\u00fc\u00dfe");
    TWConfiguration conf;
    conf.loadFromTarnwickConfiguration(&store.config, "alpha", true);
    conf.loadFromTarnwickConfiguration(&store.config, "beta", true);  // present, no value
    EXPECT_EQ(conf.values().at("alpha").m_value,
              "gr\xc3\xbc\xc3\x9f"
              "e");
    EXPECT_FALSE(conf.values().at("alpha").m_optional);
    EXPECT_TRUE(conf.values().at("beta").m_present);
    EXPECT_EQ(conf.values().at("beta").m_value, "");
    conf.loadFromTarnwickConfiguration(&store.config, "alpha", false);
    EXPECT_TRUE(conf.values().at("alpha").m_optional);
}

TEST(TWConfigurationTest, LoadAllEntersEverySettingInUTF8) {
    Store store;
    store.config.setKeyVal(L"alpha", L"\u20ac 5");
    TWConfiguration conf;
    conf.setValue("earlier", std::string("stays"));
    conf.loadFromTarnwickConfiguration(&store.config);
    ASSERT_EQ(conf.values().size(), 4u);
    EXPECT_EQ(conf.values().at("alpha").m_value, "\xe2\x82\xac 5");
    for (const char* key : {"alpha", "beta", "gamma"}) {
        EXPECT_TRUE(conf.values().at(key).m_present) << key;
        EXPECT_FALSE(conf.values().at(key).m_optional) << key;
    }
    EXPECT_EQ(conf.values().at("beta").m_value, "");
    EXPECT_EQ(conf.values().at("gamma").m_value, "");
    EXPECT_EQ(conf.values().at("earlier").m_value, "stays");
}

TEST(TWConfigurationTest, ValueNotConvertibleToUTF8Throws1WithKey) {
    Store store;
    // A lone surrogate has no UTF-8 form. "alpha" comes before it, "gamma"
    // behind it in the settings map.
    store.add(L"bad");
    store.config.setKeyVal(L"bad", L"x\xd800y");
    TWConfiguration conf;
    expectException([&] { conf.loadFromTarnwickConfiguration(&store.config); }, ERR_CONVERSION,
                    SEVERITY_SEVERE, "TWConfiguration",
                    "Could not convert value of key 'bad' to UTF8.");
    EXPECT_EQ(conf.values().count("alpha"), 1u);
    EXPECT_EQ(conf.values().count("bad"), 0u);
    EXPECT_EQ(conf.values().count("beta"), 0u);
    EXPECT_EQ(conf.values().count("gamma"), 0u);

    TWConfiguration one;
    expectException([&] { one.loadFromTarnwickConfiguration(&store.config, "bad", false); },
                    ERR_CONVERSION, SEVERITY_SEVERE, "TWConfiguration",
                    "Could not convert value of key 'bad' to UTF8.");
    EXPECT_TRUE(one.values().empty());
}

TEST(TWConfigurationTest, NullConfigurationThrows400) {
    TWConfiguration conf;
    expectException([&] { conf.loadFromTarnwickConfiguration(nullptr); }, ERR_SUBCONFIGURATION,
                    SEVERITY_FATAL, "TWConfiguration",
                    "NULL passed to loadFromTarnwickConfiguration for argument 'config'");
    expectException([&] { conf.loadFromTarnwickConfiguration(nullptr, "k", false); },
                    ERR_SUBCONFIGURATION, SEVERITY_FATAL, "TWConfiguration",
                    "NULL passed to loadFromTarnwickConfiguration for argument 'config'");
}

// Eight threads read while the owner reloads between two sets of values
// again and again. Every read of the whole set (getArguments) is the old set
// or the new one, never a mix; every single value (getArgString, read
// through its reference without the lock) is a whole text of one of them.
TEST(TWSubConfigurationReloadRaceTest, ReadersSeeWholeOldOrWholeNewSet) {
    const std::vector<std::string> keys = {"k0", "k1", "k2", "k3", "k4", "k5", "k6", "k7"};
    auto setOf = [&](const std::string& tag) {
        std::map<std::string, std::string> out;
        for (const std::string& key : keys)
            out[key] = tag + "-" + key + std::string(40, tag[0]);  // beyond short strings
        return out;
    };
    std::map<std::string, std::string> const older = setOf("old");
    std::map<std::string, std::string> const newer = setOf("new");

    boost::shared_ptr<TWSubConfiguration> sub = boost::make_shared<TWSubConfiguration>();
    for (const std::string& key : keys)
        sub->registerKey(key, false);
    TWConfiguration conf;
    for (const auto& entry : older)
        conf.setValue(entry.first, entry.second);
    conf.registerSubConfiguration(sub, true);

    std::atomic<bool> stop(false);
    std::atomic<int> mixed(0), torn(0), reads(0), sawOld(0), sawNew(0);
    std::vector<std::thread> readers;
    for (int r = 0; r < 8; ++r) {
        readers.emplace_back([&, r] {
            while (!stop.load()) {
                std::map<std::string, std::string> const seen = sub->getArguments();
                if (seen == older)
                    ++sawOld;
                else if (seen == newer)
                    ++sawNew;
                else
                    ++mixed;
                const std::string& one = sub->getArgString(keys[r]);
                std::string const copy = one;
                if (copy != older.at(keys[r]) && copy != newer.at(keys[r]))
                    ++torn;
                ++reads;
            }
        });
    }
    // The readers are under way before the first reload.
    while (reads.load() < 8)
        std::this_thread::yield();
    for (int round = 0; round < 400; ++round) {
        for (const auto& entry : (round % 2 == 0 ? newer : older))
            conf.setValue(entry.first, entry.second);
        conf.reloadTWSubConfigurations();
        if (round % 50 == 0)
            std::this_thread::yield();
    }
    // Let the readers read the final state too.
    int const before = reads.load();
    while (reads.load() < before + 64)
        std::this_thread::yield();
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(mixed.load(), 0);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(sawOld.load() + sawNew.load(), 0);
    EXPECT_EQ(sub->getArguments(), older);  // 400 rounds end on the old set
}

// The one exception: a reload that throws on a missing required key leaves
// the keys before it new and the keys behind it old, and readers see that
// state. Readers racing with it see only the old set or that mixed one.
TEST(TWSubConfigurationReloadRaceTest, FailedReloadLeavesTheDocumentedMix) {
    boost::shared_ptr<TWSubConfiguration> sub = subWith({{"a", false}, {"b", false}, {"c", false}});
    std::map<std::string, std::string> const older = {{"a", "a1"}, {"b", "b1"}, {"c", "c1"}};
    std::map<std::string, std::string> const partial = {{"a", "a2"}, {"b", "b1"}, {"c", "c1"}};
    sub->reload(argumentsOf(older));

    std::atomic<bool> stop(false);
    std::atomic<int> other(0);
    std::vector<std::thread> readers;
    for (int r = 0; r < 8; ++r) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                std::map<std::string, std::string> const seen = sub->getArguments();
                if (seen != older && seen != partial)
                    ++other;
            }
        });
    }
    {
        LogCapture log;  // the exception's line
        EXPECT_THROW(sub->reload(argumentsOf({{"a", "a2"}, {"c", "c2"}})), Exception);
    }
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(other.load(), 0);
    EXPECT_EQ(sub->getArguments(), partial);
}
