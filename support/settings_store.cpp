#include "support/settings_store.h"

#include "ZOR_focuser.h"

#include <tinyxml.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kConfigDirBytes = 256;

const char *homeDirectory()
{
    if (const char *home = std::getenv("HOME"))
        return home;
    const passwd *pw = getpwuid(getuid());
    return pw ? pw->pw_dir : nullptr;
}

std::string creationDate()
{
    std::time_t now = std::time(nullptr);
    std::tm t{};
    localtime_r(&now, &t);
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02d%02d_%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec);
    return text;
}

std::string cleanedName(const char *name)
{
    std::string cleaned(name);
    for (char &c : cleaned)
        c = replaceChar(c);
    return cleaned;
}

std::vector<std::string> keyLevels(const char *key)
{
    const std::string cleaned = cleanedName(key);
    const int count = getFolderName(cleaned.c_str(), nullptr);
    if (count <= 0)
        return {};
    std::unique_ptr<char[][kLevelNameBytes]> levels(new char[count][kLevelNameBytes]);
    getFolderName(cleaned.c_str(), levels.get());
    return std::vector<std::string>(levels.get(), levels.get() + count);
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

std::string toHex(const unsigned char *data, int size)
{
    std::string text(static_cast<size_t>(size) * 2, '0');
    for (int i = 0; i < size; ++i)
        std::snprintf(&text[2 * i], 3, "%02x", data[i]);
    return text;
}

// A value element is usable when it is an element with a "type" and text.
bool isWellFormedValue(const TiXmlNode *node)
{
    const TiXmlElement *element = node->ToElement();
    return element && element->Attribute("type") && element->GetText();
}

// Loads dir + file; on failure reports through the debug hook with `outcome`
// ("Exiting." or "Create new.") and returns null.
std::unique_ptr<TiXmlDocument> loadDocument(const char *file, const char *outcome)
{
    char dir[kConfigDirBytes];
    if (!initConfigSaveDir(dir))
        return nullptr;
    const std::string path = std::string(dir) + file;
    auto doc = std::make_unique<TiXmlDocument>(path.c_str());
    if (!doc->LoadFile()) {
        const std::string fmt = std::string("Could not load test file %s. Error='%s'. ") + outcome + "\n";
        ZORDbgPrint(__func__, fmt.c_str(), path.c_str(), doc->ErrorDesc());
        return nullptr;
    }
    return doc;
}

std::unique_ptr<TiXmlDocument> newDocument(const char *file)
{
    char dir[kConfigDirBytes];
    if (!initConfigSaveDir(dir))
        return nullptr;
    auto doc = std::make_unique<TiXmlDocument>((std::string(dir) + file).c_str());
    doc->LinkEndChild(new TiXmlDeclaration("1.0", "UTF-8", ""));
    return doc;
}

} // namespace

bool initConfigSaveDir(char *dir)
{
    const char *home = homeDirectory();
    if (!home) {
        ZORDbgPrint(__func__, "get home path err\n");
        return false;
    }
    std::snprintf(dir, kConfigDirBytes, "%s/.KVO/", home);
    struct stat st {};
    if (stat(dir, &st) == 0)
        return true;
    if (mkdir(dir, 0700) != 0) {
        ZORDbgPrint(__func__, "mkdir err\n");
        return false;
    }
    if (chmod(dir, std::strtol("0777", nullptr, 8)) != 0)
        ZORDbgPrint(__func__, "chmod error: %s\n", std::strerror(errno));
    return true;
}

int getFolderName(const char *path, char (*levels)[kLevelNameBytes])
{
    int count = 0;
    const char *p = path;
    while (*p) {
        const size_t length = std::strcspn(p, "\\/");
        if (length > 0) {
            if (levels) {
                const size_t kept = length < kLevelNameBytes - 1 ? length : kLevelNameBytes - 1;
                std::memcpy(levels[count], p, kept);
                levels[count][kept] = '\0';
            }
            ++count;
        }
        p += length;
        if (*p)
            ++p;
    }
    return count;
}

char replaceChar(char c)
{
    const unsigned char u = static_cast<unsigned char>(c);
    const bool replaced = (u >= 32 && u <= 44) || (u >= 58 && u <= 64) || u == 91 || u == 93 || u == 94 ||
                          u == 96 || (u >= 123 && u <= 126);
    return replaced ? '_' : c;
}

void clearSpace(char *text)
{
    for (; *text; ++text)
        *text = replaceChar(*text);
}

bool XMLOpenKey(const char *file, const char *key, xmlHandle *h)
{
    std::unique_ptr<TiXmlDocument> doc = loadDocument(file, "Exiting.");
    if (!doc)
        return false;
    const std::vector<std::string> levels = keyLevels(key);
    if (levels.empty())
        return false;
    TiXmlNode *node = doc.get();
    for (const std::string &level : levels) {
        node = node->FirstChildElement(level.c_str());
        if (!node) {
            ZORDbgPrint(__func__, "find child err\n");
            return false;
        }
    }
    h->element = node->ToElement();
    h->doc = doc.release();
    return true;
}

bool XMLCreateKey(const char *file, const char *key, xmlHandle *h, const char *attr)
{
    std::unique_ptr<TiXmlDocument> doc = loadDocument(file, "Create new.");
    if (!doc)
        doc = newDocument(file);
    if (!doc)
        return false;
    const std::vector<std::string> levels = keyLevels(key);
    if (levels.empty())
        return false;
    TiXmlNode *node = doc.get();
    for (size_t i = 0; i < levels.size(); ++i) {
        TiXmlElement *child = node->FirstChildElement(levels[i].c_str());
        if (!child) {
            child = new TiXmlElement(levels[i].c_str());
            child->SetAttribute("date", creationDate().c_str());
            if (attr && i + 1 == levels.size())
                child->SetAttribute("attr", attr);
            node->LinkEndChild(child);
        }
        node = child;
    }
    h->element = node->ToElement();
    h->doc = doc.release();
    return true;
}

void XMLSetValueEx(xmlHandle h, const char *name, const int *attr, int type, unsigned char *data, int size)
{
    if (!h.doc || !h.element || size < 1)
        return;
    const std::string hex = toHex(data, size);
    const std::string cleaned = cleanedName(name);
    TiXmlNode *damaged = nullptr;
    for (TiXmlNode *child = h.element->FirstChild(); child; child = child->NextSibling()) {
        if (!isWellFormedValue(child)) {
            damaged = child;
            break;
        }
        TiXmlElement *value = child->ToElement();
        if (cleaned == value->Value()) {
            value->Clear();
            value->LinkEndChild(new TiXmlText(hex.c_str()));
            value->SetAttribute("type", type);
            if (attr)
                value->SetAttribute("attr", *attr);
            return;
        }
    }
    if (damaged) {
        ZORDbgPrint(__func__, "content error, remove item\n");
        h.element->RemoveChild(damaged);
    }
    auto *value = new TiXmlElement(cleaned.c_str());
    value->SetAttribute("type", type);
    if (attr)
        value->SetAttribute("attr", *attr);
    value->LinkEndChild(new TiXmlText(hex.c_str()));
    h.element->LinkEndChild(value);
}

bool XMLQueryValueEx(xmlHandle h, const char *name, int *attr, int *type, unsigned char *data, int *size)
{
    if (!h.doc || !h.element)
        return false;
    const std::string cleaned = cleanedName(name);
    const TiXmlElement *value = h.element->FirstChildElement(cleaned.c_str());
    if (!value || !isWellFormedValue(value))
        return false;
    if (attr)
        value->Attribute("attr", attr);
    *type = std::atoi(value->Attribute("type"));
    const char *text = value->GetText();
    const int stored = static_cast<int>(std::strlen(text) / 2);
    // The caller's buffer holds *size bytes; a longer stored value is cut.
    const int room = *size;
    *size = stored;
    if (data) {
        for (int i = 0; i < stored && i < room; ++i)
            data[i] = static_cast<unsigned char>(hexDigit(text[2 * i]) << 4 | hexDigit(text[2 * i + 1]));
    }
    return true;
}

void XMLCloseKey(xmlHandle *h)
{
    if (!h->doc)
        return;
    if (!h->doc->SaveFile())
        ZORDbgPrint(__func__, "Reg Save failed\n");
    delete h->doc;
    h->doc = nullptr;
    h->element = nullptr;
}
