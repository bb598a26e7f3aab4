#include "server_config.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zoralpaca {
namespace {

constexpr std::size_t kMaxFileSize = 256 * 1024;

std::uint64_t fnv1a(const std::string &text, std::uint64_t hash)
{
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

std::string homeDirectory()
{
    const char *home = std::getenv("HOME");
    if (home && *home)
        return home;
    const passwd *entry = getpwuid(getuid());
    return entry && entry->pw_dir ? entry->pw_dir : "";
}

void makeDirectories(const std::string &path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0700);
    mkdir(path.c_str(), 0700);
}

std::string directoryOf(const std::string &path) { return path.substr(0, path.find_last_of('/')); }

} // namespace

std::string uniqueIdOf(const std::string &key)
{
    // Two 64-bit FNV-1a hashes of the key, laid out as a UUID of the
    // vendor-defined version 8 and RFC 4122's variant.
    std::uint64_t high = fnv1a(key, 0xcbf29ce484222325ULL);
    std::uint64_t low = fnv1a("zor_alpaca:" + key, 0x84222325cbf29ce4ULL);
    high = (high & ~0xf000ULL) | 0x8000ULL;
    low = (low & ~(0xc0ULL << 56)) | (0x80ULL << 56);
    char text[37];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", static_cast<unsigned>(high >> 32),
                  static_cast<unsigned>((high >> 16) & 0xffff), static_cast<unsigned>(high & 0xffff),
                  static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xffffffffffffULL));
    return text;
}

std::string defaultConfigPath()
{
    const char *xdg = std::getenv("XDG_CONFIG_HOME");
    const std::string base = xdg && *xdg == '/' ? xdg : homeDirectory() + "/.config";
    return base + "/zor_alpaca/config.json";
}

ServerConfig::ServerConfig() : ServerConfig(defaultConfigPath()) {}

ServerConfig::ServerConfig(std::string path) : m_path(std::move(path)) { load(); }

void ServerConfig::load()
{
    std::ifstream file(m_path, std::ios::binary);
    if (!file)
        return;
    std::string text(kMaxFileSize + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    const auto parsed =
        text.size() > kMaxFileSize ? nlohmann::json() : nlohmann::json::parse(text, nullptr, false);
    if (!parsed.is_object()) {
        std::cerr << "zor_alpaca: " << m_path << " is not a configuration this program wrote; not used\n";
        return;
    }
    if (auto names = parsed.find("bluetooth"); names != parsed.end() && names->is_array())
        for (const auto &name : *names)
            if (name.is_string() && !name.get<std::string>().empty())
                m_bluetooth.push_back(name.get<std::string>());
    if (auto focusers = parsed.find("compensation"); focusers != parsed.end() && focusers->is_object())
        for (const auto &[key, value] : focusers->items()) {
            if (!value.is_object())
                continue;
            zorservice::CompensationSettings settings;
            settings.enabled = value.value("enabled", false);
            settings.stepsPerDegree = value.value("stepsPerDegree", 0.0);
            settings.threshold = value.value("threshold", 1.0);
            if (settings.threshold > 0)
                m_compensation[key] = settings;
        }
}

std::vector<std::string> ServerConfig::bluetoothNames() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bluetooth;
}

bool ServerConfig::addBluetoothName(const std::string &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto &known : m_bluetooth)
        if (known == name)
            return false;
    m_bluetooth.push_back(name);
    return true;
}

bool ServerConfig::renameBluetooth(const std::string &from, const std::string &to)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = std::find(m_bluetooth.begin(), m_bluetooth.end(), from);
    if (found == m_bluetooth.end())
        return false;
    *found = to;
    return true;
}

std::optional<zorservice::CompensationSettings> ServerConfig::compensation(const std::string &key) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_compensation.find(key);
    if (found == m_compensation.end())
        return std::nullopt;
    return found->second;
}

void ServerConfig::setCompensation(const std::string &key, const zorservice::CompensationSettings &settings)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_compensation[key] = settings;
}

bool ServerConfig::save() const
{
    nlohmann::json out;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        out["bluetooth"] = m_bluetooth;
        out["compensation"] = nlohmann::json::object();
        for (const auto &[key, settings] : m_compensation)
            out["compensation"][key] = {{"enabled", settings.enabled},
                                        {"stepsPerDegree", settings.stepsPerDegree},
                                        {"threshold", settings.threshold}};
    }
    makeDirectories(directoryOf(m_path));
    const std::string temporary = m_path + ".new";
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        if (!file.flush()) {
            std::cerr << "zor_alpaca: cannot write " << temporary << '\n';
            return false;
        }
    }
    if (std::rename(temporary.c_str(), m_path.c_str()) != 0) {
        std::cerr << "zor_alpaca: cannot replace " << m_path << '\n';
        return false;
    }
    return true;
}

} // namespace zoralpaca
