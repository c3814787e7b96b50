#include "args.h"

#include "common.h"

namespace akutool {

Args::Args(const std::vector<std::string>& argv, const std::set<std::string>& valued,
           const std::set<std::string>& flags)
{
    for (size_t i = 0; i < argv.size(); ++i) {
        std::string a = argv[i];
        if (a.compare(0, 2, "--") != 0)
            throw UsageError("unexpected argument '" + a + "'");
        std::string name = a.substr(2);
        std::string value;
        bool inlineValue = false;
        size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            inlineValue = true;
        }
        if (flags.count(name)) {
            if (inlineValue)
                throw UsageError("--" + name + " takes no value");
            flags_.insert(name);
        } else if (valued.count(name)) {
            if (!inlineValue) {
                if (i + 1 >= argv.size())
                    throw UsageError("--" + name + " needs a value");
                value = argv[++i];
            }
            values_[name] = value;
        } else {
            throw UsageError("unknown option --" + name);
        }
    }
}

bool Args::has(const std::string& name) const { return values_.count(name) || flags_.count(name); }

std::string Args::get(const std::string& name, const std::string& fallback) const
{
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
}

std::string Args::required(const std::string& name) const
{
    auto it = values_.find(name);
    if (it == values_.end() || it->second.empty())
        throw UsageError("--" + name + " is required");
    return it->second;
}

double Args::number(const std::string& name, double fallback) const
{
    return has(name) ? parseDouble(get(name), "--" + name) : fallback;
}

long Args::integer(const std::string& name, long fallback) const
{
    return has(name) ? parseLong(get(name), "--" + name) : fallback;
}

} // namespace akutool
