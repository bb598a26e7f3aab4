// Reads back what the library logged after a given moment: the lines written
// to the current log file since this object was made, split into their parts.
#pragma once

#include "home_sandbox.h"
#include "support/log.h"

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace zor_test {

struct LogLine {
    std::string level;
    std::string module;
    std::string function;
    std::string message;
};

class LogLines {
public:
    // Starts the logger (under the sandbox home) if nothing has yet.
    LogLines()
    {
        sandboxHome();
        InitLogger();
        m_path = zor::currentLogFile();
        m_start = readFile(m_path).size();
    }

    std::vector<LogLine> all() const
    {
        static const std::regex pattern(R"(^\[[^\]]*\] \[(\w+)\] \[([^:\]]+):\d+ ([^\]]+)\] (.*)$)");
        std::vector<LogLine> lines;
        std::istringstream in(readFile(m_path).substr(m_start));
        std::string text;
        std::smatch match;
        while (std::getline(in, text)) {
            if (std::regex_match(text, match, pattern))
                lines.push_back({match[1], match[2], match[3], match[4]});
        }
        return lines;
    }

    // The messages logged by one function of one module, in order.
    std::vector<std::string> messages(const std::string &module, const std::string &function) const
    {
        std::vector<std::string> found;
        for (const LogLine &line : all()) {
            if (line.module == module && line.function == function)
                found.push_back(line.message);
        }
        return found;
    }

private:
    std::string m_path;
    size_t m_start = 0;
};

} // namespace zor_test
