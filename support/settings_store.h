// A small registry-like key/value store kept as XML in ~/.KVO/: a key is a
// backslash-separated path of nested elements, a value is an element with a
// numeric type and its bytes as hexadecimal text.
#pragma once

class TiXmlDocument;
class TiXmlElement;

constexpr int kLevelNameBytes = 256;

// An open key: the document it owns and the key's element inside it.
struct xmlHandle {
    TiXmlDocument *doc = nullptr;
    TiXmlElement *element = nullptr;
};

// Writes "<home>/.KVO/" into `dir` (at least 256 bytes) and makes sure it exists.
bool initConfigSaveDir(char *dir);
// Splits a key path at "\" and "/", skipping empty pieces. Names are cut to
// 255 characters. With a null `levels` it only counts.
int getFolderName(const char *path, char (*levels)[kLevelNameBytes]);
// Characters that cannot stand in an element name become '_'.
char replaceChar(char c);
void clearSpace(char *text);

bool XMLOpenKey(const char *file, const char *key, xmlHandle *h);
bool XMLCreateKey(const char *file, const char *key, xmlHandle *h, const char *attr);
void XMLSetValueEx(xmlHandle h, const char *name, const int *attr, int type, unsigned char *data, int size);
// On success *size holds the stored byte count; at most the incoming *size
// bytes are written to `data`.
bool XMLQueryValueEx(xmlHandle h, const char *name, int *attr, int *type, unsigned char *data, int *size);
void XMLCloseKey(xmlHandle *h);

// Keys below an open key share its document: values are read and written
// through them, and only the key they were found in is closed.
bool XMLFindSubKey(xmlHandle parent, const char *name, xmlHandle *child);
// As XMLFindSubKey, creating the key when it is missing.
bool XMLCreateSubKey(xmlHandle parent, const char *name, xmlHandle *child);
// Whether an open key holds keys below it, not only values.
bool XMLHasSubKeys(xmlHandle h);
