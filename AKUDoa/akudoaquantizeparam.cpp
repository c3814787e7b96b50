#include "AKUDoa/akudoaquantizeparam.h"

#include <algorithm>
#include <sys/statfs.h>

#include <cstdlib>
#include <sstream>

#include "AKUDoa/akudoacache_p.h"
#include "AKUDoa/akudoaquantizeparam_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/base/akudoalogging.h"

bool storage_request(const char* path, int* totalMB, int* freeMB)
{
    struct statfs st;
    if (statfs(path, &st) != 0)
        return false;
    const uint64_t bsize = static_cast<uint64_t>(st.f_bsize);
    if (totalMB)
        *totalMB = static_cast<int>((bsize * static_cast<uint64_t>(st.f_blocks)) >> 20);
    if (freeMB)
        *freeMB = static_cast<int>((static_cast<uint64_t>(st.f_bavail) * bsize) >> 20);
    return true;
}

std::string akudoa_cache_dir()
{
    const char* env = std::getenv("AKUDOA_CACHE_DIR");
    if (!env || !*env)
        return "/App/buffer/";
    std::string dir(env);
    if (dir.back() != '/')
        dir += '/';
    return dir;
}

namespace {

struct V3Names {
    std::string scale;
    std::string table;
};

// Names of the V3 pair for the current focus mode; floats in the default
// stream format (1.3 -> "1.3", 1.0 -> "1").
V3Names v3Names(const StCamCfg* cfg, int binNum)
{
    std::ostringstream fields;
    if (cfg->focusDistanceEn)
        fields << "_fodis_" << cfg->focusDistance;
    fields << '_' << cfg->imageResolutionRow << '_' << cfg->imageResolutionCol << '_' << cfg->channelNum << '_'
           << cfg->eangleDomain << '_' << cfg->imageThetaXYFactor << '_' << binNum << ".data";
    const std::string dir = akudoa_cache_dir();
    return {dir + "QuantizeScaleParam_v3" + fields.str(), dir + "QuantizeParam_v3" + fields.str()};
}

} // namespace

// Fingerprint of the V3 table for the current focus mode.
static uint64_t v3Key(const AKUDoaQuantizeV3Private* p)
{
    return akudoa_cache_key(*p, "v3", p->cfg->focusDistanceEn, p->cfg->focusDistance, p->cfg->freqAverage);
}

bool AKUDoaQuantizeV3::saveQuantizeParam()
{
    AKUDoaQuantizeV3Private* p = privateData();
    if (!p->cfg || !p->steerQuant || !p->steerScale)
        return false;
    const std::string dir = akudoa_cache_dir();
    int freeMB = 0;
    if (!storage_request(dir.c_str(), nullptr, &freeMB)) {
        AKUDOA_LOG() << "AKUDoaQuantizeV3::saveQuantizeParam failed, disk read error";
        return false;
    }
    if (freeMB < 4096) {
        AKUDOA_LOG() << "AKUDoaQuantizeV3::saveQuantizeParam failed, disk free size lower at 4096M";
        return false;
    }
    const V3Names names = v3Names(p->cfg, p->binNum);
    return akudoa_cache_save("AKUDoaQuantizeV3", {names.scale, names.table}, v3Key(p), p->steerScale->data,
                             static_cast<size_t>(p->binNum), p->steerQuant->data,
                             static_cast<size_t>(p->steerQuant->cols));
}

bool AKUDoaQuantizeV3::loadQuantizeParam()
{
    AKUDoaQuantizeV3Private* p = privateData();
    if (!p->cfg || !p->steerQuant || !p->steerScale)
        return false;
    // Rows are read straight into the table (403 MB at the defaults, no
    // second copy); a rejected pair is rebuilt over them by the caller.
    // A folded load hands over several pieces per row (see the compact
    // table): rows then counts binNum times the pieces of a row.
    const V3Names names = v3Names(p->cfg, p->binNum);
    const size_t parts = static_cast<size_t>(std::max(1, p->steerQuant->rows / std::max(1, p->binNum)));
    return akudoa_cache_load("AKUDoaQuantizeV3", {names.scale, names.table}, v3Key(p), p->steerScale->data,
                             static_cast<size_t>(p->binNum), p->steerQuant->data,
                             static_cast<size_t>(p->steerQuant->cols) * parts, parts);
}
