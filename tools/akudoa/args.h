#ifndef AKUDOA_TOOLS_ARGS_H
#define AKUDOA_TOOLS_ARGS_H

// Command-line options of one subcommand: "--name value" and "--flag".

#include <map>
#include <set>
#include <string>
#include <vector>

namespace akutool {

class Args {
public:
    // valued: options that take a value; flags: options that do not.
    // Throws UsageError on an unknown option or a missing value.
    Args(const std::vector<std::string>& argv, const std::set<std::string>& valued,
         const std::set<std::string>& flags);

    bool has(const std::string& name) const;
    std::string get(const std::string& name, const std::string& fallback = std::string()) const;
    // Throws UsageError when the option is missing.
    std::string required(const std::string& name) const;
    double number(const std::string& name, double fallback) const;
    long integer(const std::string& name, long fallback) const;

private:
    std::map<std::string, std::string> values_;
    std::set<std::string> flags_;
};

} // namespace akutool

#endif
