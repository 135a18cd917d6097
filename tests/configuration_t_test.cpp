// Tests of Configuration::getValue: every instance, absent keys, keys without
// value, and stored passwords.
#include <tarnwick/configuration.h>
#include <tarnwick/configuration_t.h>
#include <tarnwick/tarnwick.h>

#include <gtest/gtest.h>
#include <log_capture.h>

#include <string>
#include <vector>

using Tarnwick::Configuration;
using Tarnwick::Setting;
using TarnwickTest::LogCapture;

namespace {

class GetValueTest : public ::testing::Test {
protected:
    void SetUp() override {
        const wchar_t* const keys[] = {L"enabled", L"count", L"agentid", L"name",    L"flag",
                                       L"secret",  L"plain", L"timeout", L"garbage", L"negative"};
        for (const wchar_t* key : keys)
            ASSERT_EQ(0, configuration.register_setting(new Setting(key, 0, L"misc", L"A setting.",
                                                                    Tarnwick::SETTING_ARGUMENT)));
        configuration.setKeyVal(L"enabled", L"0");
        configuration.setKeyVal(L"count", L"-17");
        configuration.setKeyVal(L"agentid", L"4000000000");
        configuration.setKeyVal(L"name", L"first second");
        configuration.setKeyVal(L"flag", nullptr);
        configuration.setKeyVal(L"plain", L"not-encoded");
        configuration.setKeyVal(L"timeout", L"30");
        configuration.setKeyVal(L"garbage", L"abc");
        char stored[256];
        ASSERT_GT(Tarnwick::EncodePassword("s3cret", stored, sizeof stored), 0);
        std::wstring const wide(stored, stored + std::char_traits<char>::length(stored));
        configuration.setKeyVal(L"secret", wide.c_str());
    }

    Configuration configuration;
};

TEST_F(GetValueTest, WideKeyBool) {
    bool enabled = true;
    EXPECT_EQ(0, configuration.getValue(L"enabled", enabled));
    EXPECT_FALSE(enabled);
    configuration.setKeyVal(L"enabled", L"1");
    EXPECT_EQ(0, configuration.getValue(L"enabled", enabled));
    EXPECT_TRUE(enabled);
}

TEST_F(GetValueTest, WideKeyInt) {
    int count = 0;
    EXPECT_EQ(0, configuration.getValue(L"count", count));
    EXPECT_EQ(-17, count);
}

TEST_F(GetValueTest, WideKeyUnsigned) {
    unsigned int agentid = 0;
    EXPECT_EQ(0, configuration.getValue(L"agentid", agentid));
    EXPECT_EQ(4000000000u, agentid);
}

TEST_F(GetValueTest, NarrowKeyString) {
    std::string name = "before";
    EXPECT_EQ(0, configuration.getValue("name", name));
    EXPECT_EQ("first", name);
}

TEST_F(GetValueTest, NarrowKeyInt) {
    int timeout = 0;
    EXPECT_EQ(0, configuration.getValue("timeout", timeout));
    EXPECT_EQ(30, timeout);
}

TEST_F(GetValueTest, EncodedValueIsDecoded) {
    std::string secret;
    EXPECT_EQ(0, configuration.getValue("secret", secret, false, true));
    EXPECT_EQ("s3cret", secret);
    EXPECT_EQ(0, configuration.getValue("secret", secret));
    EXPECT_EQ(0u, secret.find("{twp}"));
}

TEST_F(GetValueTest, EncodedValueThatIsNoPasswordIsTakenAsStored) {
    std::string plain;
    EXPECT_EQ(0, configuration.getValue("plain", plain, false, true));
    EXPECT_EQ("not-encoded", plain);
}

TEST_F(GetValueTest, KeyWithoutValueLeavesTheTargetAlone) {
    bool flag = true;
    int number = 5;
    std::string text = "kept";
    EXPECT_EQ(0, configuration.getValue(L"flag", flag, true));
    EXPECT_EQ(0, configuration.getValue(L"flag", number, true));
    EXPECT_EQ(0, configuration.getValue("flag", text, true));
    EXPECT_TRUE(flag);
    EXPECT_EQ(5, number);
    EXPECT_EQ("kept", text);
}

TEST_F(GetValueTest, AbsentKeyIsLoggedOnlyWhenAskedTo) {
    LogCapture log;
    int number = 5;
    std::string text = "kept";
    unsigned int id = 9;
    EXPECT_EQ(-1, configuration.getValue(L"negative", number));
    EXPECT_EQ(-1, configuration.getValue(L"undeclared", number));
    EXPECT_EQ("", log.text());
    EXPECT_EQ(-1, configuration.getValue(L"undeclared", id, true));
    EXPECT_EQ(-1, configuration.getValue("undeclared", text, true));
    EXPECT_EQ(-1, configuration.getValue("negative", number, true));
    EXPECT_EQ(5, number);
    EXPECT_EQ("kept", text);
    EXPECT_EQ(9u, id);
    EXPECT_EQ(std::vector<std::string>({"%D WARN  (%t): Can not find 'undeclared' in configuration",
                                        "%D WARN  (%t): Can not find 'undeclared' in configuration",
                                        "%D WARN  (%t): Can not find 'negative' in configuration"}),
              log.lines());
}

TEST_F(GetValueTest, FailedConversionStillSucceeds) {
    int number = 5;
    EXPECT_EQ(0, configuration.getValue(L"garbage", number));
    EXPECT_EQ(0, number);
    bool enabled = true;
    EXPECT_EQ(0, configuration.getValue(L"garbage", enabled));
    EXPECT_FALSE(enabled);
}

}  // namespace
