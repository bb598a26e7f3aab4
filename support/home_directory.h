// The user's home directory, which locates both the settings and the log.
#pragma once

#include <string>

namespace zor {

// "HOME" when it is set and not empty, else the current user's entry in the
// password database; empty when neither names one. An empty "HOME" is taken
// as unset, so nothing is ever placed at the file-system root for it.
std::string homeDirectory();

// Whether `path` names an existing directory.
bool isDirectory(const std::string &path);

} // namespace zor
