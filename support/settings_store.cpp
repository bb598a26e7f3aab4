#include "support/settings_store.h"

#include "ZOR_focuser.h"
#include "support/home_directory.h"

#include <tinyxml.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kConfigDirBytes = 256;
constexpr size_t kMaxFileBytes = 64 * 1024;
// TinyXML parses nested elements recursively, about 150 bytes of stack a
// level. An element nests no deeper than the file has "<" characters, so
// bounding their number bounds the parser's stack to a few tens of KiB on
// whichever thread opens the device. The settings take about twenty.
constexpr std::ptrdiff_t kMaxTags = 512;

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

// A key's element carries its creation date and, unlike a value, no type.
bool isKey(const TiXmlElement *element) { return element->Attribute("date") && !element->Attribute("type"); }

// The key `level` directly below `node`, created (dated, with `attr` when
// given) when it is missing.
TiXmlElement *childKey(TiXmlNode *node, const std::string &level, const char *attr)
{
    TiXmlElement *child = node->FirstChildElement(level.c_str());
    if (child)
        return child;
    child = new TiXmlElement(level.c_str());
    child->SetAttribute("date", creationDate().c_str());
    if (attr)
        child->SetAttribute("attr", attr);
    node->LinkEndChild(child);
    return child;
}

// Reads the settings file into `text`; on failure returns why the file counts
// as malformed. A symbolic link (another user's plant) or anything but a
// regular file is refused, never followed, and so is a file over 64 KiB or
// with more tags than a settings file holds.
const char *readSettingsText(const std::string &path, std::string &text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return std::strerror(errno);
    struct stat st {};
    const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    text.resize(kMaxFileBytes + 1); // one byte more tells an over-large file
    size_t length = 0;
    ssize_t n = 0;
    while (regular && length < text.size() && (n = read(fd, &text[length], text.size() - length)) > 0)
        length += static_cast<size_t>(n);
    close(fd);
    text.resize(length);
    if (!regular)
        return "not a regular file";
    if (n < 0)
        return "read error";
    if (length > kMaxFileBytes)
        return "file too large";
    if (std::count(text.begin(), text.end(), '<') > kMaxTags)
        return "too many elements";
    return nullptr;
}

std::string settingsPath(const char *file)
{
    char dir[kConfigDirBytes];
    return initConfigSaveDir(dir) ? std::string(dir) + file : std::string();
}

// Loads dir + file; on failure reports through the debug hook with `outcome`
// ("Exiting." or "Create new.") and returns null.
std::unique_ptr<TiXmlDocument> loadDocument(const char *file, const char *outcome)
{
    const std::string path = settingsPath(file);
    if (path.empty())
        return nullptr;
    auto doc = std::make_unique<TiXmlDocument>(path.c_str());
    std::string text;
    const char *error = readSettingsText(path, text);
    if (!error) {
        doc->Parse(text.c_str(), nullptr, TIXML_DEFAULT_ENCODING);
        if (doc->Error())
            error = doc->ErrorDesc();
    }
    if (error) {
        const std::string fmt = std::string("Could not load test file %s. Error='%s'. ") + outcome + "\n";
        ZORDbgPrint(__func__, fmt.c_str(), path.c_str(), error);
        return nullptr;
    }
    return doc;
}

std::unique_ptr<TiXmlDocument> newDocument(const char *file)
{
    const std::string path = settingsPath(file);
    if (path.empty())
        return nullptr;
    auto doc = std::make_unique<TiXmlDocument>(path.c_str());
    doc->LinkEndChild(new TiXmlDeclaration("1.0", "UTF-8", ""));
    return doc;
}

// The settings file is replaced whole: written to a temporary file in the
// same directory and renamed over the old one. A reader never sees half a
// file, and a symbolic link in its place is replaced, not written through.
bool saveDocument(const TiXmlDocument &doc)
{
    const std::string path = doc.Value();
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0)
        return false;
    FILE *out = fdopen(fd, "w");
    if (!out)
        close(fd);
    const bool printed = out && doc.SaveFile(out);
    const bool written = out && std::fclose(out) == 0 && printed;
    if (written && std::rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    unlink(temporary.c_str());
    return false;
}

} // namespace

bool initConfigSaveDir(char *dir)
{
    const std::string home = zor::homeDirectory();
    const int length = home.empty() ? -1 : std::snprintf(dir, kConfigDirBytes, "%s/.KVO/", home.c_str());
    if (length < 0 || length >= kConfigDirBytes) {
        ZORDbgPrint(__func__, "get home path err\n");
        return false;
    }
    struct stat st {};
    if (stat(dir, &st) == 0)
        return true;
    // The settings directory is private: made 0700 and left so. Were it
    // world-writable, another user could plant the file or a link in it.
    if (mkdir(dir, 0700) != 0) {
        ZORDbgPrint(__func__, "mkdir err\n");
        return false;
    }
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
    for (size_t i = 0; i < levels.size(); ++i)
        node = childKey(node, levels[i], i + 1 == levels.size() ? attr : nullptr);
    h->element = node->ToElement();
    h->doc = doc.release();
    return true;
}

bool XMLFindSubKey(xmlHandle parent, const char *name, xmlHandle *child)
{
    if (!parent.doc || !parent.element)
        return false;
    TiXmlElement *element = parent.element->FirstChildElement(cleanedName(name).c_str());
    if (!element || !isKey(element))
        return false;
    *child = {parent.doc, element};
    return true;
}

bool XMLCreateSubKey(xmlHandle parent, const char *name, xmlHandle *child)
{
    if (!parent.doc || !parent.element)
        return false;
    *child = {parent.doc, childKey(parent.element, cleanedName(name), nullptr)};
    return true;
}

bool XMLHasSubKeys(xmlHandle h)
{
    if (!h.element)
        return false;
    for (const TiXmlElement *child = h.element->FirstChildElement(); child; child = child->NextSiblingElement())
        if (isKey(child))
            return true;
    return false;
}

void XMLSetValueEx(xmlHandle h, const char *name, const int *attr, int type, unsigned char *data, int size)
{
    if (!h.doc || !h.element || size < 1)
        return;
    const std::string hex = toHex(data, size);
    const std::string cleaned = cleanedName(name);
    TiXmlNode *damaged = nullptr;
    for (TiXmlNode *child = h.element->FirstChild(); child; child = child->NextSibling()) {
        // Keys below this one (a focuser's own settings) are no damaged values.
        if (child->ToElement() && isKey(child->ToElement()))
            continue;
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
    if (!saveDocument(*h->doc))
        ZORDbgPrint(__func__, "Reg Save failed\n");
    delete h->doc;
    h->doc = nullptr;
    h->element = nullptr;
}
