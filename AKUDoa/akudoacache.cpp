#include "AKUDoa/akudoacache_p.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

// Inlined: the vector path matching the build flags (AVX2 here, NEON on
// AArch64) hashes about twice as fast as the generic shared library.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/base/akudoalogging.h"

namespace {

constexpr int kFormatVersion = 1;
constexpr const char* kMagic = "akudoa-steering-cache";
constexpr size_t kMaxMetaBytes = 4096;
// Name prefixes of the files this library writes into the cache directory.
constexpr const char* kPrefixes[] = {"QuantizeScaleParam_v3", "QuantizeParam_v3", "ExtraQuantizeScaleParam_v3",
                                     "ExtraQuantizeParam_v3"};

class KeyBuilder {
public:
    void add(const void* p, size_t n) { XXH3_64bits_update(state_, p, n); }
    template <typename T> void add(T v) { add(&v, sizeof v); }
    KeyBuilder() : state_(XXH3_createState()) { XXH3_64bits_reset(state_); }
    ~KeyBuilder() { XXH3_freeState(state_); }
    KeyBuilder(const KeyBuilder&) = delete;
    KeyBuilder& operator=(const KeyBuilder&) = delete;
    uint64_t digest() const { return XXH3_64bits_digest(state_); }

private:
    XXH3_state_t* state_;
};

bool writeAll(int fd, const uint8_t* p, size_t len)
{
    while (len > 0) {
        const ssize_t w = ::write(fd, p, len);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        len -= static_cast<size_t>(w);
    }
    return true;
}

// pread of exactly len bytes at off; false on an error or a file that ends
// early (shrunk since its size was checked).
bool preadAll(int fd, uint8_t* p, size_t len, off_t off)
{
    while (len > 0) {
        const ssize_t r = ::pread(fd, p, len, off);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        off += r;
        len -= static_cast<size_t>(r);
    }
    return true;
}

// Checksum of count blocks of len bytes: XXH3-64 of the blocks' own XXH3-64
// values, so that the blocks (table rows) are hashed in parallel.
uint64_t blocksHash(const uint8_t* const* blocks, size_t count, size_t len)
{
    std::vector<uint64_t> h(count);
#pragma omp parallel for schedule(dynamic, 1)
    for (long i = 0; i < static_cast<long>(count); ++i)
        h[i] = XXH3_64bits(blocks[i], len);
    return XXH3_64bits(h.data(), sizeof(uint64_t) * count);
}

// Writes the blocks to a temporary beside path, flushes it and renames it
// over path: readers see the old file or the complete new one. *hash gets
// the checksum of the blocks (blocksHash). The temporary never outlives a
// failure.
bool writeAtomic(const std::string& path, const uint8_t* const* blocks, size_t count, size_t len, uint64_t* hash)
{
    static std::atomic<unsigned> serial{0};
    const std::string tmp = path + ".tmp." + std::to_string(::getpid()) + '.' + std::to_string(serial.fetch_add(1));
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
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
        ok = ::rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok)
        ::unlink(tmp.c_str());
    if (hash)
        *hash = blocksHash(blocks, count, len);
    return ok;
}

// Opens path for reading only if it is a regular file: a FIFO would block
// the open, a device could be endless. Checked by name first, then on the
// descriptor (opened non-blocking) against a swap in between. -1 and *why
// set on failure; *size gets the file size.
int openRegular(const std::string& path, size_t* size, const char** why)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        *why = "cannot be read";
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        *why = "is not a regular file";
        return -1;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        *why = fd < 0 ? "cannot be read" : "is not a regular file";
        return -1;
    }
    *size = static_cast<size_t>(st.st_size);
    return fd;
}

// Reads count blocks of len bytes when the file holds exactly that many
// bytes; *hash gets their checksum (blocksHash). Each block may arrive in
// parts equal pieces, blocks[i * parts + j] receiving piece j of block i;
// a null destination is checked but not kept.
bool readExact(const std::string& path, uint8_t* const* blocks, size_t count, size_t len, uint64_t* hash,
               const char** why, size_t parts = 1)
{
    size_t size = 0;
    const int fd = openRegular(path, &size, why);
    if (fd < 0)
        return false;
    const size_t want = count * len;
    if (size != want) {
        ::close(fd);
        *why = "has the wrong size";
        return false;
    }
    // Read with pread straight into the destination rather than mapping the
    // file: mapped pages of a 400 MB table count towards the resident set
    // on top of the copy, which doubled the peak of a cached start. Each
    // piece is hashed right after it arrives, while it is still cached;
    // rows spread over the threads like the build. A null destination (the
    // mirror blocks of a folded load) goes through a per-thread buffer and
    // is only hashed.
    std::vector<uint64_t> h(count);
    std::atomic<bool> failed{false};
    constexpr size_t kPiece = 65536;
#pragma omp parallel
    {
        XXH3_state_t state;
        XXH3_INITSTATE(&state);
        std::vector<uint8_t> scratch;
#pragma omp for schedule(dynamic, 1)
        for (long i = 0; i < static_cast<long>(count); ++i) {
            XXH3_64bits_reset(&state);
            const size_t partLen = len / parts;
            for (size_t j = 0; j < parts && !failed.load(std::memory_order_relaxed); ++j) {
                uint8_t* dst = blocks[i * parts + j];
                if (!dst && scratch.size() < kPiece)
                    scratch.resize(kPiece);
                const off_t base = static_cast<off_t>(i * len + j * partLen);
                for (size_t at = 0; at < partLen; at += kPiece) {
                    const size_t n = std::min(kPiece, partLen - at);
                    uint8_t* to = dst ? dst + at : scratch.data();
                    if (!preadAll(fd, to, n, base + static_cast<off_t>(at))) {
                        failed.store(true, std::memory_order_relaxed);
                        break;
                    }
                    XXH3_64bits_update(&state, to, n);
                }
            }
            h[i] = XXH3_64bits_digest(&state);
        }
    }
    if (failed.load()) {
        ::close(fd);
        *why = "cannot be read";
        return false;
    }
    ::close(fd);
    *hash = XXH3_64bits(h.data(), sizeof(uint64_t) * count);
    return true;
}

struct Meta {
    int version = 0;
    uint64_t key = 0, scale = 0, table = 0;
};

bool readMeta(const std::string& path, Meta* m, const char** why)
{
    size_t size = 0;
    const int fd = openRegular(path, &size, why);
    if (fd < 0)
        return false;
    char buf[kMaxMetaBytes + 1];
    const ssize_t n = size <= kMaxMetaBytes ? ::read(fd, buf, kMaxMetaBytes) : -1;
    ::close(fd);
    if (n < 0) {
        *why = "is unreadable or too long";
        return false;
    }
    buf[n] = '\0';
    char magic[32] = {0};
    unsigned long long k = 0, s = 0, t = 0;
    if (std::sscanf(buf, "%31s %3d key %16llx scale %16llx table %16llx", magic, &m->version, &k, &s, &t) != 5 ||
        std::strcmp(magic, kMagic) != 0) {
        *why = "is malformed";
        return false;
    }
    m->key = k;
    m->scale = s;
    m->table = t;
    return true;
}

// Logs "<who>::<what>" as plain text (the stream quotes a std::string).
void logLine(const char* who, const std::string& what)
{
    AKUDOA_LOG() << (std::string(who) + "::" + what).c_str();
}

std::string dirOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

// Pid of a temporary named "<prefix>....tmp.<pid>.<n>", 0 when the name is
// not one of this library's temporaries.
long tempWriterPid(const char* name)
{
    bool ours = false;
    for (const char* p : kPrefixes)
        ours = ours || std::strncmp(name, p, std::strlen(p)) == 0;
    const char* tmp = ours ? std::strstr(name, ".tmp.") : nullptr;
    if (!tmp)
        return 0;
    long pid = 0;
    unsigned serial = 0;
    int used = 0;
    if (std::sscanf(tmp, ".tmp.%9ld.%9u%n", &pid, &serial, &used) != 2 || tmp[used] != '\0' || pid <= 0)
        return 0;
    return pid;
}

} // namespace

uint64_t akudoa_cache_key(const AKUDoaQuantizeV3Private& c, const char* engine, bool nearField,
                          float focusDistance, bool average)
{
    KeyBuilder k;
    k.add(engine, std::strlen(engine) + 1);
    k.add(kFormatVersion);
    const StCamCfg* cfg = c.cfg;
    const size_t M = static_cast<size_t>(c.micNum);
    k.add(c.micNum);
    k.add(cfg->micRadius, sizeof(float) * M);
    k.add(cfg->micPhi, sizeof(float) * M);
    k.add(cfg->micIndex, sizeof(int32_t) * M);
    k.add(cfg->micMaxRadius);
    k.add(c.sampleRate);
    k.add(c.frameSize);
    k.add(c.binNum);
    k.add(c.imageRows);
    k.add(c.imageCols);
    k.add(cfg->eangleDomain);
    k.add(cfg->imageThetaXYFactor);
    k.add(static_cast<uint8_t>(nearField));
    k.add(nearField ? focusDistance : 0.0f);
    k.add(static_cast<uint8_t>(average));
    return k.digest();
}

void akudoa_cache_sweep(const std::string& dir)
{
    DIR* dp = ::opendir(dir.c_str());
    if (!dp)
        return;
    const long self = static_cast<long>(::getpid());
    while (const dirent* e = ::readdir(dp)) {
        const long pid = tempWriterPid(e->d_name);
        if (pid == 0 || pid == self)
            continue;
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
            ::unlinkat(::dirfd(dp), e->d_name, 0);
    }
    ::closedir(dp);
}

bool akudoa_cache_save(const char* who, const AKUDoaCacheFiles& files, uint64_t key, const float* scale,
                       size_t binNum, const uint8_t* const* rows, size_t rowLen)
{
    akudoa_cache_sweep(dirOf(files.table));
    logLine(who, "saveQuantizeParam save file");
    // Without its sidecar a half-replaced pair is never trusted.
    if (::unlink(files.meta().c_str()) != 0 && errno != ENOENT)
        return false;
    Meta m;
    const uint8_t* scaleBytes = reinterpret_cast<const uint8_t*>(scale);
    if (!writeAtomic(files.scale, &scaleBytes, 1, sizeof(float) * binNum, &m.scale) ||
        !writeAtomic(files.table, rows, binNum, rowLen, &m.table))
        return false;
    char text[160];
    const int n = std::snprintf(text, sizeof text, "%s %d\nkey %016" PRIx64 "\nscale %016" PRIx64 "\ntable %016" PRIx64 "\n",
                                kMagic, kFormatVersion, key, m.scale, m.table);
    const uint8_t* textBytes = reinterpret_cast<const uint8_t*>(text);
    return writeAtomic(files.meta(), &textBytes, 1, static_cast<size_t>(n), nullptr);
}

bool akudoa_cache_load(const char* who, const AKUDoaCacheFiles& files, uint64_t key, float* scale, size_t binNum,
                       uint8_t* const* rows, size_t rowLen, size_t parts)
{
    akudoa_cache_sweep(dirOf(files.table));
    if (::access(files.table.c_str(), F_OK) != 0 || ::access(files.scale.c_str(), F_OK) != 0)
        return false;
    logLine(who, "loadQuantizeParam try load file");

    const char* why = nullptr;
    std::string reason;
    Meta m;
    std::vector<float> s(binNum);
    uint8_t* scaleBytes = reinterpret_cast<uint8_t*>(s.data());
    uint64_t scaleHash = 0, tableHash = 0;
    if (::access(files.meta().c_str(), F_OK) != 0)
        reason = "no sidecar (written by an older version)";
    else if (!readMeta(files.meta(), &m, &why))
        reason = std::string("sidecar ") + why;
    else if (m.version != kFormatVersion)
        reason = "sidecar format version " + std::to_string(m.version);
    else if (m.key != key)
        reason = "built for another configuration (fingerprint mismatch)";
    else if (!readExact(files.scale, &scaleBytes, 1, sizeof(float) * binNum, &scaleHash, &why))
        reason = std::string("scale file ") + why;
    else if (scaleHash != m.scale)
        reason = "scale file checksum mismatch";
    else if (!std::all_of(s.begin(), s.end(), [](float v) { return std::isfinite(v) && v > 0.0f; }))
        reason = "non-finite or non-positive scale";
    else if (!readExact(files.table, rows, binNum, rowLen, &tableHash, &why, parts))
        reason = std::string("table file ") + why;
    else if (tableHash != m.table)
        reason = "table file checksum mismatch";
    if (!reason.empty()) {
        logLine(who, "loadQuantizeParam rejected, " + reason + ": rebuilding");
        return false;
    }
    std::memcpy(scale, s.data(), sizeof(float) * binNum);
    logLine(who, "loadQuantizeParam load file ok");
    return true;
}
