// The XML settings store and the five device settings kept in it.
#include "support/device_settings.h"
#include "support/settings_store.h"

#include "home_sandbox.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <regex>
#include <string>
#include <tuple>
#include <vector>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

namespace {

constexpr char kFile[] = "ZORconfig.xml";

class Settings : public ::testing::Test {
protected:
    void SetUp() override { buildSettingsKeyPath(keyPath, sizeof keyPath); }

    std::string configPath() const { return zor_test::sandboxHome() + "/.KVO/" + kFile; }
    std::string configText() const { return zor_test::readFile(configPath()); }
    void writeConfig(const std::string &text) const
    {
        mkdir((zor_test::sandboxHome() + "/.KVO").c_str(), 0700);
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

TEST_F(Settings, SavesReplaceTheFileWholeInAPrivateDirectory)
{
    saveDeviceSettings(keyPath, DeviceSettings{1234, 0, false, 60000, false});
    struct stat st {};
    ASSERT_EQ(stat((zor_test::sandboxHome() + "/.KVO").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    // A link planted in place of the file is replaced, not written through.
    const std::string victim = zor_test::makeTempDir("elsewhere") + "/victim";
    std::ofstream(victim) << "precious";
    ASSERT_EQ(std::remove(configPath().c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), configPath().c_str()), 0);
    const DeviceSettings second{30000, 12, true, 60000, false};
    saveDeviceSettings(keyPath, second);
    EXPECT_EQ(zor_test::readFile(victim), "precious");
    ASSERT_EQ(lstat(configPath().c_str(), &st), 0);
    ASSERT_TRUE(S_ISREG(st.st_mode));

    const ino_t before = st.st_ino;
    saveDeviceSettings(keyPath, second);
    ASSERT_EQ(stat(configPath().c_str(), &st), 0);
    EXPECT_NE(st.st_ino, before) << "a new file is renamed over the old one";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(zor_test::sandboxHome() + "/.KVO"), {}), 1)
        << "no temporary file stays behind";

    const std::string text = configText();
    const std::regex saved(R"(^<\?xml version="1.0" encoding="UTF-8" \?>\s*<software date="\d{8}_\d{6}">\s*)"
                           R"(<KVO_Drivebox date="\d{8}_\d{6}">\s*)"
                           R"(<Position type="4">30750000</Position>\s*<Backlash type="4">0c000000</Backlash>\s*)"
                           R"(<Beep type="4">01000000</Beep>\s*<MaxStep type="4">60ea0000</MaxStep>\s*)"
                           R"(<Reverse type="4">00000000</Reverse>\s*</KVO_Drivebox>\s*</software>\s*$)");
    EXPECT_TRUE(std::regex_search(text, saved)) << text;
}

std::string nested(int depth)
{
    std::string text = "<?xml version=\"1.0\" ?>";
    for (int i = 0; i < depth; ++i)
        text += "<software>";
    return text;
}

// Loads on a thread with the 512 KiB stack of a macOS secondary thread, where
// a recursive parse of a few thousand nested elements would overflow.
bool loadOnSmallStack(const char *keyPath, DeviceSettings &settings)
{
    std::pair<const char *, DeviceSettings *> call{keyPath, &settings};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512 * 1024);
    pthread_t thread;
    void *loaded = nullptr;
    EXPECT_EQ(pthread_create(&thread, &attr, [](void *arg) -> void * {
                  auto *c = static_cast<std::pair<const char *, DeviceSettings *> *>(arg);
                  return loadDeviceSettings(c->first, 60000, *c->second) ? arg : nullptr;
              }, &call), 0);
    pthread_join(thread, &loaded);
    pthread_attr_destroy(&attr);
    return loaded != nullptr;
}

struct LoadCase {
    const char *name;
    std::string text; // the file's text; written behind a link when `linked`
    bool linked;
    bool loads;
    DeviceSettings expected; // the caller's values stay when the file does not load
};

// Four-byte values as the store keeps them: the bytes in memory order, in hexadecimal.
std::string values(std::initializer_list<std::pair<const char *, int32_t>> stored)
{
    std::string xml;
    for (const auto &[name, value] : stored) {
        const auto v = static_cast<uint32_t>(value);
        char hex[9];
        std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x", v & 255, v >> 8 & 255, v >> 16 & 255, v >> 24);
        xml += std::string("<") + name + " type=\"4\">" + hex + "</" + name + ">";
    }
    return xml;
}

TEST_F(Settings, FileTextGivesTheLoadedValues)
{
    const DeviceSettings callers{77, 7, true, 7, true};
    const DeviceSettings defaults{kUnsetPosition, 0, false, 60000, false};
    const std::string stored = values({{"Position", 4321}, {"Backlash", 200}, {"Beep", 1}, {"MaxStep", 50000},
                                       {"Reverse", 1}});
    const LoadCase cases[] = {
        {"no file", "", false, false, callers},
        {"stored values", keyXml(stored), false, true, {4321, 200, true, 50000, true}},
        {"empty key", keyXml(""), false, true, defaults},
        {"-1 and -2 mean missing; only 1 means on",
         keyXml(values({{"Position", -1}, {"MaxStep", -2}, {"Beep", 2}, {"Reverse", 1}})), false, true,
         {kUnsetPosition, 0, false, 60000, true}},
        {"out of range", keyXml(values({{"Position", 60001}, {"Backlash", 1000}, {"MaxStep", 70000}})), false,
         true, defaults},
        {"negative", keyXml(values({{"Position", -5}, {"Backlash", -5}, {"MaxStep", -3}})), false, true, defaults},
        {"at the limits", keyXml(values({{"Position", 60000}, {"Backlash", 255}, {"MaxStep", 0}})), false, true,
         {60000, 255, false, 0, false}},
        // Read into four bytes, never beyond them.
        {"values of other sizes",
         keyXml("<Position type=\"4\">" + std::string(512, '1') + "</Position><Backlash type=\"4\">05</Backlash>"),
         false, true, defaults},
        {"missing key level", "<?xml version=\"1.0\" ?><software/>", false, false, callers},
        {"not closed", "<software><KVO_Drivebox>not closed", false, false, callers},
        {"a symbolic link", keyXml(stored), true, false, callers},
        {"over 64 KiB", keyXml(stored + "<!--" + std::string(65536, ' ') + "-->"), false, false, callers},
        {"200000 nested elements, 1.4 MB", nested(200000), false, false, callers},
        {"5000 nested elements, 50 KB", nested(5000), false, false, callers},
    };
    for (const LoadCase &c : cases) {
        SCOPED_TRACE(c.name);
        writeConfig(c.text);
        if (c.linked) {
            const std::string target = zor_test::makeTempDir("target") + "/" + kFile;
            ASSERT_EQ(std::rename(configPath().c_str(), target.c_str()), 0);
            ASSERT_EQ(symlink(target.c_str(), configPath().c_str()), 0);
        } else if (c.text.empty()) {
            std::remove(configPath().c_str());
        }
        DeviceSettings loaded = callers;
        EXPECT_EQ(loadOnSmallStack(keyPath, loaded), c.loads);
        EXPECT_EQ(loaded.position, c.expected.position);
        EXPECT_EQ(loaded.backlash, c.expected.backlash);
        EXPECT_EQ(loaded.beep, c.expected.beep);
        EXPECT_EQ(loaded.maxStep, c.expected.maxStep);
        EXPECT_EQ(loaded.reverse, c.expected.reverse);
    }

    // A file that did not load is replaced at the next save.
    DeviceSettings saved;
    saved.position = 555;
    saveDeviceSettings(keyPath, saved);
    DeviceSettings loaded;
    ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, loaded));
    EXPECT_EQ(loaded.position, 555);
}

TEST_F(Settings, AFocuserReadsItsOwnKeyElseTheSharedValues)
{
    const unsigned char serial[8] = {0x5a, 0x4f, 0x52, 0x50, 0, 0, 1, 0xab};
    const unsigned char zeros[8] = {}, ones[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(focuserKeyName(serial), "SN5a4f5250000001ab");
    EXPECT_EQ(focuserKeyName(zeros), "");
    EXPECT_EQ(focuserKeyName(ones), "");

    int asked = 0;
    const auto ownKey = [&asked](const char *name) {
        return [&asked, name] {
            ++asked;
            return std::string(name);
        };
    };
    DeviceSettings loaded;
    saveDeviceSettings(keyPath, DeviceSettings{100, 1, false, 60000, false});
    ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, loaded, ownKey("SNa")));
    EXPECT_EQ(asked, 0) << "no serial is needed while the file holds only shared values";

    saveDeviceSettings(keyPath, DeviceSettings{200, 2, true, 50000, true}, "SNa");
    saveDeviceSettings(keyPath, DeviceSettings{300, 3, false, 60000, false}, "SNb");
    saveDeviceSettings(keyPath, DeviceSettings{400, 4, false, 60000, false});
    const std::pair<const char *, DeviceSettings> cases[] = {{"SNa", {200, 2, true, 50000, true}},
                                                             {"SNb", {300, 3, false, 60000, false}},
                                                             {"SNc", {400, 4, false, 60000, false}},
                                                             {"", {400, 4, false, 60000, false}}};
    for (const auto &[name, expected] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(loadDeviceSettings(keyPath, 60000, loaded, ownKey(name)));
        EXPECT_EQ(std::make_tuple(loaded.position, loaded.backlash, loaded.beep, loaded.maxStep, loaded.reverse),
                  std::make_tuple(expected.position, expected.backlash, expected.beep, expected.maxStep,
                                  expected.reverse));
    }
    EXPECT_EQ(asked, 4);
}

TEST_F(Settings, DamagedValueBeforeTheWrittenOneIsRemoved)
{
    // A focuser's own key is no damaged value: it stays.
    writeConfig(keyXml("<SNa date=\"20240305_210744\"><Beep type=\"4\">01000000</Beep></SNa>"
                       "<Position>01000000</Position><Backlash type=\"4\">05000000</Backlash>"));
    xmlHandle key;
    ASSERT_TRUE(XMLOpenKey(kFile, keyPath, &key));
    int32_t value = 9;
    XMLSetValueEx(key, "Backlash", nullptr, 4, reinterpret_cast<unsigned char *>(&value), 4);
    XMLCloseKey(&key);

    const std::string text = configText();
    EXPECT_EQ(text.find("<Position"), std::string::npos) << text;
    EXPECT_NE(text.find("<Beep type=\"4\">01000000</Beep>"), std::string::npos) << text;
    // The walk stopped at the damaged element, so the value is appended anew.
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(<Backlash type="4">05000000</Backlash>\s*)"
                                                   R"(<Backlash type="4">09000000</Backlash>)")))
        << text;
}

TEST_F(Settings, ValueNamesAndKeysAreCleaned)
{
    for (char c : std::string(" !\"#$%&'()*+,:;<=>?@[]^`{|}~"))
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
    using Read = std::tuple<int, int, int, int, int>;
    EXPECT_EQ(Read(type, readAttr, size, back[0], back[1]), Read(3, 7, 2, 0xab, 0x01));
    XMLCloseKey(&key);

    EXPECT_FALSE(XMLOpenKey(kFile, "\\//", &key)) << "a key path without levels";
    EXPECT_EQ(key.doc, nullptr);
}

TEST(SettingsKeyPath, LevelsSplitAtEitherSlashAndSkipEmptyPieces)
{
    EXPECT_EQ(getFolderName("software\\KVO_Drivebox", nullptr), 2);
    char levels[3][kLevelNameBytes];
    ASSERT_EQ(getFolderName("\\\\a//b\\c/", levels), 3);
    EXPECT_EQ(std::vector<std::string>(levels, levels + 3), (std::vector<std::string>{"a", "b", "c"}));

    const std::string longName(300, 'n');
    char one[1][kLevelNameBytes];
    ASSERT_EQ(getFolderName(longName.c_str(), one), 1);
    EXPECT_EQ(std::strlen(one[0]), size_t(kLevelNameBytes - 1));
}

} // namespace
