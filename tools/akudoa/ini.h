#ifndef AKUDOA_TOOLS_INI_H
#define AKUDOA_TOOLS_INI_H

// A small INI reader for scene files and for checking a camera
// configuration before the library loads it. Sections and keys are
// case-insensitive (as the library's reader treats them); values keep their
// case. ';' and '#' start a comment at the start of a line or after
// whitespace.

#include <map>
#include <string>
#include <vector>

namespace akutool {

class IniFile {
public:
    // Throws ToolError when the file cannot be read or a line is malformed.
    static IniFile load(const std::string& path);
    static IniFile parse(const std::string& text, const std::string& name);

    const std::string& name() const { return name_; }
    // Section names in file order (lower case), each once.
    const std::vector<std::string>& sections() const { return order_; }
    bool has(const std::string& section, const std::string& key) const;
    // The keys of a section in file order.
    std::vector<std::string> keys(const std::string& section) const;

    std::string get(const std::string& section, const std::string& key, const std::string& fallback) const;
    double getDouble(const std::string& section, const std::string& key, double fallback) const;
    long getLong(const std::string& section, const std::string& key, long fallback) const;
    bool getBool(const std::string& section, const std::string& key, bool fallback) const;
    // A whitespace- or comma-separated list of numbers; throws when the
    // count differs from count (count < 0: any count).
    std::vector<double> getList(const std::string& section, const std::string& key, int count) const;
    // "file:line" of a key, for messages.
    std::string where(const std::string& section, const std::string& key) const;

private:
    struct Entry {
        std::string value;
        int line;
    };
    std::string name_;
    std::vector<std::string> order_;
    std::map<std::string, std::vector<std::pair<std::string, Entry>>> data_;
    const Entry* find(const std::string& section, const std::string& key) const;
};

std::string toLower(std::string s);
std::string trim(const std::string& s);

} // namespace akutool

#endif
