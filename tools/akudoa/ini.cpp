#include "ini.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "common.h"

namespace akutool {

std::string toLower(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return std::string();
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

namespace {
std::string stripComment(const std::string& line)
{
    for (size_t i = 0; i < line.size(); ++i) {
        if ((line[i] == ';' || line[i] == '#') && (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t'))
            return line.substr(0, i);
    }
    return line;
}
} // namespace

IniFile IniFile::load(const std::string& path)
{
    if (!isReadableFile(path))
        throw ToolError("cannot read " + path + ": no such readable file");
    std::ifstream in(path);
    if (!in)
        throw ToolError("cannot open " + path);
    std::stringstream ss;
    ss << in.rdbuf();
    return parse(ss.str(), path);
}

IniFile IniFile::parse(const std::string& text, const std::string& name)
{
    IniFile ini;
    ini.name_ = name;
    std::istringstream in(text);
    std::string raw;
    std::string section;
    int lineNo = 0;
    while (std::getline(in, raw)) {
        ++lineNo;
        std::string line = trim(stripComment(raw));
        if (line.empty())
            continue;
        if (line.front() == '[') {
            if (line.back() != ']')
                throw ToolError(name + ":" + std::to_string(lineNo) + ": unterminated section header");
            section = toLower(trim(line.substr(1, line.size() - 2)));
            if (section.empty())
                throw ToolError(name + ":" + std::to_string(lineNo) + ": empty section name");
            if (std::find(ini.order_.begin(), ini.order_.end(), section) != ini.order_.end())
                throw ToolError(name + ":" + std::to_string(lineNo) + ": section [" + section + "] appears twice");
            ini.order_.push_back(section);
            ini.data_[section];
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            throw ToolError(name + ":" + std::to_string(lineNo) + ": expected 'key = value', got '" + line + "'");
        std::string key = toLower(trim(line.substr(0, eq)));
        std::string value = trim(line.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (key.empty())
            throw ToolError(name + ":" + std::to_string(lineNo) + ": missing key before '='");
        auto& entries = ini.data_[section];
        if (section.empty() && std::find(ini.order_.begin(), ini.order_.end(), section) == ini.order_.end())
            ini.order_.insert(ini.order_.begin(), section);
        bool replaced = false;
        for (auto& e : entries) {
            if (e.first == key) {
                e.second = Entry{value, lineNo};
                replaced = true;
            }
        }
        if (!replaced)
            entries.push_back({key, Entry{value, lineNo}});
    }
    return ini;
}

const IniFile::Entry* IniFile::find(const std::string& section, const std::string& key) const
{
    auto it = data_.find(toLower(section));
    if (it == data_.end())
        return nullptr;
    std::string k = toLower(key);
    for (const auto& e : it->second)
        if (e.first == k)
            return &e.second;
    return nullptr;
}

bool IniFile::has(const std::string& section, const std::string& key) const
{
    return find(section, key) != nullptr;
}

std::vector<std::string> IniFile::keys(const std::string& section) const
{
    std::vector<std::string> out;
    auto it = data_.find(toLower(section));
    if (it != data_.end())
        for (const auto& e : it->second)
            out.push_back(e.first);
    return out;
}

std::string IniFile::where(const std::string& section, const std::string& key) const
{
    const Entry* e = find(section, key);
    return name_ + (e ? ":" + std::to_string(e->line) : std::string()) + ": [" + section + "] " + key;
}

std::string IniFile::get(const std::string& section, const std::string& key, const std::string& fallback) const
{
    const Entry* e = find(section, key);
    return e ? e->value : fallback;
}

double IniFile::getDouble(const std::string& section, const std::string& key, double fallback) const
{
    const Entry* e = find(section, key);
    return e ? parseDouble(e->value, where(section, key)) : fallback;
}

long IniFile::getLong(const std::string& section, const std::string& key, long fallback) const
{
    const Entry* e = find(section, key);
    return e ? parseLong(e->value, where(section, key)) : fallback;
}

bool IniFile::getBool(const std::string& section, const std::string& key, bool fallback) const
{
    const Entry* e = find(section, key);
    if (!e)
        return fallback;
    std::string v = toLower(e->value);
    if (v == "1" || v == "true" || v == "yes" || v == "on" || v == "y" || v == "t")
        return true;
    if (v == "0" || v == "false" || v == "no" || v == "off" || v == "n" || v == "f")
        return false;
    throw ToolError(where(section, key) + ": not a boolean: '" + e->value + "'");
}

std::vector<double> IniFile::getList(const std::string& section, const std::string& key, int count) const
{
    const Entry* e = find(section, key);
    if (!e)
        throw ToolError(name_ + ": [" + section + "] " + key + " is missing");
    std::string text = e->value;
    std::replace(text.begin(), text.end(), ',', ' ');
    std::istringstream in(text);
    std::vector<double> out;
    std::string item;
    while (in >> item)
        out.push_back(parseDouble(item, where(section, key)));
    if (count >= 0 && static_cast<int>(out.size()) != count)
        throw ToolError(where(section, key) + ": expected " + std::to_string(count) + " numbers, got " +
                        std::to_string(out.size()));
    return out;
}

} // namespace akutool
