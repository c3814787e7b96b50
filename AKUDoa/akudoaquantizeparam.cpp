#include "AKUDoa/akudoaquantizeparam.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

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

static bool writeAll(int fd, const uint8_t* p, size_t len)
{
    while (len > 0) {
        const ssize_t w = ::write(fd, p, len);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (w == 0)
            return false;
        p += w;
        len -= static_cast<size_t>(w);
    }
    return true;
}

bool akudoa_write_file_atomic(const std::string& path, const uint8_t* const* blocks, size_t count, size_t len)
{
    static std::atomic<unsigned> serial{0};
    std::ostringstream tmp;
    tmp << path << ".tmp." << ::getpid() << '.' << serial.fetch_add(1);
    const std::string tmpPath = tmp.str();
    const int fd = ::open(tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
    if (fd < 0)
        return false;
    bool ok = true;
    for (size_t i = 0; ok && i < count; ++i)
        ok = writeAll(fd, blocks[i], len);
    // The pair must survive a power cut once it carries its final name.
    if (ok)
        ok = ::fsync(fd) == 0;
    if (::close(fd) != 0)
        ok = false;
    if (ok)
        ok = ::rename(tmpPath.c_str(), path.c_str()) == 0;
    if (!ok)
        ::unlink(tmpPath.c_str());
    return ok;
}

bool akudoa_read_file_exact(const std::string& path, uint8_t* const* blocks, size_t count, size_t len)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    const size_t want = count * len;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != want) {
        ::close(fd);
        return false;
    }
    if (want == 0) {
        ::close(fd);
        return true;
    }
    void* map = ::mmap(nullptr, want, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED)
        return false;
    const uint8_t* src = static_cast<const uint8_t*>(map);
    for (size_t i = 0; i < count; ++i)
        std::memcpy(blocks[i], src + i * len, len);
    ::munmap(map, want);
    return true;
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
    AKUDOA_LOG() << "AKUDoaQuantizeV3::saveQuantizeParam save file";

    const uint8_t* scale = reinterpret_cast<const uint8_t*>(p->steerScale->data);
    if (!akudoa_write_file_atomic(names.scale, &scale, 1, sizeof(float) * static_cast<size_t>(p->binNum)))
        return false;
    std::vector<const uint8_t*> rows(static_cast<size_t>(p->steerQuant->rows));
    for (int b = 0; b < p->steerQuant->rows; ++b)
        rows[b] = p->steerQuant->data[b];
    return akudoa_write_file_atomic(names.table, rows.data(), rows.size(),
                                    static_cast<size_t>(p->steerQuant->cols));
}

bool AKUDoaQuantizeV3::loadQuantizeParam()
{
    AKUDoaQuantizeV3Private* p = privateData();
    if (!p->cfg || !p->steerQuant || !p->steerScale)
        return false;
    const V3Names names = v3Names(p->cfg, p->binNum);
    if (::access(names.table.c_str(), F_OK) != 0 || ::access(names.scale.c_str(), F_OK) != 0)
        return false;
    AKUDOA_LOG() << "AKUDoaQuantizeV3::loadQuantizeParam try load file";

    // Both files are checked against the sizes this configuration needs
    // before anything is copied: a short or stale file means a rebuild.
    std::vector<float> scale(static_cast<size_t>(p->binNum));
    uint8_t* scaleBlock = reinterpret_cast<uint8_t*>(scale.data());
    if (!akudoa_read_file_exact(names.scale, &scaleBlock, 1, sizeof(float) * scale.size()))
        return false;
    std::vector<uint8_t*> rows(static_cast<size_t>(p->steerQuant->rows));
    for (int b = 0; b < p->steerQuant->rows; ++b)
        rows[b] = p->steerQuant->data[b];
    if (!akudoa_read_file_exact(names.table, rows.data(), rows.size(), static_cast<size_t>(p->steerQuant->cols)))
        return false;
    std::memcpy(p->steerScale->data, scale.data(), sizeof(float) * scale.size());
    AKUDOA_LOG() << "AKUDoaQuantizeV3::loadQuantizeParam load file ok";
    return true;
}
