// The XML settings store and the five device settings kept in it.
#include "support/device_settings.h"
#include "support/settings_store.h"

#include "home_sandbox.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <tinyxml.h>

namespace {

constexpr char kFile[] = "ZORconfig.xml";

class Settings : public ::testing::Test {
protected:
    void SetUp() override { buildSettingsKeyPath(keyPath, sizeof keyPath); }

    std::string configPath() const { return zor_test::sandboxHome() + "/.KVO/" + kFile; }
    std::string configText() const { return zor_test::readFile(configPath()); }
    void writeConfig(const std::string &text) const
    {
        mkdir((zor_test::sandboxHome() + "/.KVO").c_str(), 0777);
        std::ofstream(configPath()) << text;
    }
    static std::string keyXml(const std::string &values)
    {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<software date=\"20240305_210744\">"
               "<KVO_Drivebox date=\"20240305_210744\">" +
               values + "</KVO_Drivebox></software>\n";
    }

    char keyPath[256] = {};
};

TEST_F(Settings, KeyPathNamesTheDriverBox) { EXPECT_STREQ(keyPath, "software\\KVO_Drivebox"); }

TEST_F(Settings, FirstSaveCreatesTheFileWithDatedKeysAndFiveValues)
{
    DeviceSettings s;
    s.position = 30000;
    s.backlash = 12;
    s.beep = true;
    s.maxStep = 60000;
    s.reverse = false;
    saveDeviceSettings(keyPath, s);

    struct stat st {};
    ASSERT_EQ(stat((zor_test::sandboxHome() + "/.KVO").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);

    const std::string text = configText();
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>", 0), 0u) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(<software date="\d{8}_\d{6}">)"))) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(<KVO_Drivebox date="\d{8}_\d{6}">)"))) << text;
    const std::regex values(R"(<Position type="4">30750000</Position>\s*<Backlash type="4">0c000000</Backlash>\s*)"
                            R"(<Beep type="4">01000000</Beep>\s*<MaxStep type="4">60ea0000</MaxStep>\s*)"
                            R"(<Reverse type="4">00000000</Reverse>)");
    EXPECT_TRUE(std::regex_search(text, values)) << text;
}

TEST_F(Settings, SavedValuesLoadBackAndReplaceInPlace)
{
    DeviceSettings first;
    first.position = 1234;
    saveDeviceSettings(keyPath, first);
    DeviceSettings second;
    second.position = 4321;
    second.backlash = 200;
    second.beep = true;
    second.maxStep = 500000;
    second.reverse = true;
    saveDeviceSettings(keyPath, second);

    DeviceSettings loaded;
    ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, loaded));
    EXPECT_EQ(loaded.position, 4321);
    EXPECT_EQ(loaded.backlash, 200);
    EXPECT_TRUE(loaded.beep);
    EXPECT_EQ(loaded.maxStep, 500000);
    EXPECT_TRUE(loaded.reverse);

    const std::string text = configText();
    EXPECT_EQ(text.find("<Position"), text.rfind("<Position")) << "one element per value\n" << text;
}

TEST_F(Settings, MissingFileLeavesTheCallersValues)
{
    DeviceSettings s;
    s.position = 77;
    EXPECT_FALSE(loadDeviceSettings(keyPath, 60000, s));
    EXPECT_EQ(s.position, 77);
}

TEST_F(Settings, MissingAndSentinelValuesTakeDefaults)
{
    writeConfig(keyXml("<Position type=\"4\">ffffffff</Position><MaxStep type=\"4\">ffffffff</MaxStep>"
                       "<Beep type=\"4\">02000000</Beep><Reverse type=\"4\">01000000</Reverse>"));
    DeviceSettings s;
    ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, s));
    EXPECT_EQ(s.position, kUnsetPosition);
    EXPECT_EQ(s.backlash, 0);
    EXPECT_FALSE(s.beep) << "only 1 means on";
    EXPECT_EQ(s.maxStep, 60000);
    EXPECT_TRUE(s.reverse);

    writeConfig(keyXml("<MaxStep type=\"4\">feffffff</MaxStep>"));
    ASSERT_TRUE(loadDeviceSettings(keyPath, 600000, s));
    EXPECT_EQ(s.maxStep, 600000);
}

TEST_F(Settings, DamagedValueBeforeTheWrittenOneIsRemoved)
{
    writeConfig(keyXml("<Position>01000000</Position><Backlash type=\"4\">05000000</Backlash>"));
    xmlHandle key;
    ASSERT_TRUE(XMLOpenKey(kFile, keyPath, &key));
    int32_t value = 9;
    XMLSetValueEx(key, "Backlash", nullptr, 4, reinterpret_cast<unsigned char *>(&value), 4);
    XMLCloseKey(&key);

    const std::string text = configText();
    EXPECT_EQ(text.find("<Position"), std::string::npos) << text;
    // The walk stopped at the damaged element, so the value is appended anew.
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(<Backlash type="4">05000000</Backlash>\s*)"
                                                   R"(<Backlash type="4">09000000</Backlash>)")))
        << text;
}

TEST_F(Settings, ValueNamesAndKeysAreCleaned)
{
    EXPECT_EQ(replaceChar(' '), '_');
    for (char c : std::string("!\"#$%&'()*+,:;<=>?@[]^`{|}~"))
        EXPECT_EQ(replaceChar(c), '_') << c;
    for (char c : std::string("azAZ09-._/\\\t\x7f"))
        EXPECT_EQ(replaceChar(c), c) << int(c);
    char text[] = "a b[c]";
    clearSpace(text);
    EXPECT_STREQ(text, "a_b_c_");

    xmlHandle key;
    ASSERT_TRUE(XMLCreateKey(kFile, "software\\my box", &key, "demo"));
    int attr = 7;
    unsigned char bytes[] = {0xab, 0x01};
    XMLSetValueEx(key, "my value", &attr, 3, bytes, 2);
    XMLCloseKey(&key);

    const std::string text2 = configText();
    EXPECT_TRUE(std::regex_search(text2, std::regex(R"(<my_box date="\d{8}_\d{6}" attr="demo">)"))) << text2;
    EXPECT_NE(text2.find("<my_value type=\"3\" attr=\"7\">ab01</my_value>"), std::string::npos) << text2;

    ASSERT_TRUE(XMLOpenKey(kFile, "/software//my box/", &key));
    int type = 0, size = 2, readAttr = 0;
    unsigned char back[2] = {};
    ASSERT_TRUE(XMLQueryValueEx(key, "my value", &readAttr, &type, back, &size));
    EXPECT_EQ(type, 3);
    EXPECT_EQ(readAttr, 7);
    EXPECT_EQ(size, 2);
    EXPECT_EQ(back[0], 0xab);
    EXPECT_EQ(back[1], 0x01);
    XMLCloseKey(&key);
}

TEST_F(Settings, OversizedStoredValueStaysInsideTheCallersBuffer)
{
    writeConfig(keyXml("<Position type=\"4\">" + std::string(512, 'f') + "</Position>"));
    xmlHandle key;
    ASSERT_TRUE(XMLOpenKey(kFile, keyPath, &key));
    unsigned char buffer[8];
    std::memset(buffer, 0x11, sizeof buffer);
    int type = 0, size = 4;
    ASSERT_TRUE(XMLQueryValueEx(key, "Position", nullptr, &type, buffer, &size));
    EXPECT_EQ(size, 256) << "the stored size is reported";
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(buffer[i], 0xff);
    for (int i = 4; i < 8; ++i)
        EXPECT_EQ(buffer[i], 0x11) << "byte " << i << " was beyond the caller's size";
    XMLCloseKey(&key);
}

TEST_F(Settings, MalformedFileIsReplacedOnSave)
{
    writeConfig("<software><KVO_Drivebox>not closed");
    DeviceSettings loaded;
    EXPECT_FALSE(loadDeviceSettings(keyPath, 60000, loaded));

    DeviceSettings s;
    s.position = 555;
    saveDeviceSettings(keyPath, s);
    ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, loaded));
    EXPECT_EQ(loaded.position, 555);
}

TEST_F(Settings, MissingKeyLevelOrEmptyKeyPathFailsToOpen)
{
    writeConfig("<?xml version=\"1.0\" ?><software/>");
    xmlHandle key;
    EXPECT_FALSE(XMLOpenKey(kFile, keyPath, &key));
    EXPECT_FALSE(XMLOpenKey(kFile, "\\//", &key));
    EXPECT_EQ(key.doc, nullptr);
}

TEST(SettingsKeyPath, LevelsSplitAtEitherSlashAndSkipEmptyPieces)
{
    EXPECT_EQ(getFolderName("software\\KVO_Drivebox", nullptr), 2);
    char levels[3][kLevelNameBytes];
    ASSERT_EQ(getFolderName("\\\\a//b\\c/", levels), 3);
    EXPECT_STREQ(levels[0], "a");
    EXPECT_STREQ(levels[1], "b");
    EXPECT_STREQ(levels[2], "c");

    const std::string longName(300, 'n');
    char one[1][kLevelNameBytes];
    ASSERT_EQ(getFolderName(longName.c_str(), one), 1);
    EXPECT_EQ(std::strlen(one[0]), size_t(kLevelNameBytes - 1));
}

} // namespace
