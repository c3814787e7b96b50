#ifndef AKUDOA_AKUDOASETTINGS_P_H
#define AKUDOA_AKUDOASETTINGS_P_H

#include <cstddef>
#include <string>

#include "AKUDoa/akudoacamcfg.h"

struct _dictionary_;

// How a setting is read from the INI file and printed in the summary.
enum class AKUSettingType {
    Int,        // integer key, int32 field, printed as integer
    IntAsFloat, // integer key, float field, printed as float
    Double,     // double key, float field, printed as float
    Bool,       // boolean key, bool field, printed "true"/"false"
    Text,       // string key, pointer field into the dictionary
};

// One row per setting of StCamCfg that has an INI key or a summary line.
// The row order is the order of the summary block; rows without a label
// (the correction coefficients) come last.
struct AKUSetting {
    const char* key;   // "Section:key", or null for a fixed preset
    const char* label; // summary label with its padding, or null
    AKUSettingType type;
    size_t offset;     // of the field in StCamCfg
    double preset;     // written before the file is read
    double iniDefault; // what the reader returns for a missing key
    double lo, hi;     // accepted values, inclusive; lo > hi: not checked
    const char* meaning;
};

const AKUSetting* akudoa_settings(size_t* count);

// Writes every row's preset (and the fields without a row) into c.
void akudoa_settings_preset(StCamCfg& c);
// Reads every row with a key from the dictionary into c.
void akudoa_settings_read(StCamCfg& c, _dictionary_* ini);
// True when every checked row lies in its range and the image fits the
// machine; otherwise logs one line naming key, value and range.
bool akudoa_settings_validate(const StCamCfg& c, _dictionary_* ini);
// The summary block, separator to "load config success".
void akudoa_settings_summary(const StCamCfg& c);
// Markdown page describing every row (docs/configuration.md).
std::string akudoa_settings_markdown();

// Limits of the checked ranges that other code shares.
constexpr double AKUDOA_FOCUS_MIN = 0.01;   // metres
constexpr double AKUDOA_FOCUS_MAX = 1000.0; // metres
constexpr double AKUDOA_CORRECTION_MAX = 1e4; // |rx1| ... |ry3|

#endif
