#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>

#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/base/akudoalogging.h"

// Microphone geometry and per-bin sensitivity: built-in layouts, the two
// optional binary files, and the checks that keep bad values out.

namespace {

// Built-in microphone layouts. Azimuths in radians wrapped into -pi..pi,
// radii in metres. Computed once from the ring formulas of each array.

constexpr double kPi = 3.14159265358979323846;

float wrapDegToRad(double deg)
{
    while (deg > 180.0)
        deg -= 360.0;
    while (deg <= -180.0)
        deg += 360.0;
    return static_cast<float>(deg * kPi / 180.0);
}

struct Layout128 {
    float phi[AKUDOA_MAX_MIC_NUM];
    float radius[AKUDOA_MAX_MIC_NUM];
};

// Seven rings of 17 microphones, each ring turned by 360/7 degrees against
// the previous one and 7.1 mm wider, plus an inner ring of 9 at 10 mm.
const Layout128& layout128()
{
    static const Layout128 layout = [] {
        Layout128 l{};
        for (int k = 0; k < 7; ++k) {
            for (int j = 0; j < 17; ++j) {
                const int i = 17 * k + j;
                l.radius[i] = static_cast<float>(0.0171 + 0.0071 * k);
                l.phi[i] = wrapDegToRad(k * 360.0 / 7.0 + j * 360.0 / 17.0);
            }
        }
        for (int j = 0; j < 9; ++j) {
            l.radius[119 + j] = 0.01f;
            l.phi[119 + j] = wrapDegToRad(80.0 + 40.0 * j);
        }
        return l;
    }();
    return layout;
}

// Subsets of the 128 layout: entry i is the capture channel of position i.
const int32_t g_index_48[48] = {0,  2,  4,  6,  8,  10, 12, 14, 19, 25,  29,  34,  36,  38,  40,  42,
                                45, 47, 49, 53, 58, 62, 66, 68, 70, 73,  75,  77,  79,  81,  83,  85,
                                88, 90, 94, 98, 100, 103, 105, 107, 109, 111, 113, 115, 118, 120, 123, 126};
const int32_t g_index_36[36] = {3,  6,  12, 15, 19, 22, 25, 28, 31, 33,  36,  39,  42,  45,  48,  50,  70,  73,
                                76, 78, 81, 84, 87, 90, 92, 95, 98, 101, 104, 106, 109, 112, 115, 118, 119, 124};

// Single ring of n equally spaced microphones starting at azimuth 0.
void ringLayout(int n, float r, int32_t* index, float* phi, float* radius)
{
    for (int i = 0; i < n; ++i) {
        index[i] = i;
        phi[i] = wrapDegToRad(360.0 * i / n);
        radius[i] = r;
    }
}

// Reads up to bytes from fd into dst; returns the bytes read.
size_t readAll(int fd, void* dst, size_t bytes)
{
    char* p = static_cast<char*>(dst);
    size_t done = 0;
    while (done < bytes) {
        const ssize_t n = ::read(fd, p + done, bytes - done);
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    return done;
}

// Azimuths are wrapped into -pi..pi by the layouts; a file may use 0..2pi.
// Linear arrays store signed positions as radii. 10 m is far beyond any
// array this library images.
bool goodPosition(float phi, float radius)
{
    return std::isfinite(phi) && std::fabs(phi) <= 2.0 * kPi + 1e-3 && std::isfinite(radius) &&
           std::fabs(radius) <= 10.0f;
}

} // namespace

bool akudoa_builtin_geometry(int count, int32_t* index, float* phi, float* radius)
{
    const Layout128& l = layout128();
    const int32_t* table = nullptr;
    switch (count) {
    case 8:
        ringLayout(8, 0.025f, index, phi, radius);
        return true;
    case 16:
        ringLayout(16, 0.06f, index, phi, radius);
        return true;
    case 36:
        table = g_index_36;
        break;
    case 48:
        table = g_index_48;
        break;
    case 64:
    case 128:
        break;
    default:
        return false;
    }
    for (int i = 0; i < count; ++i) {
        int32_t c = i;
        if (table)
            c = table[i];
        else if (count == 64)
            c = 2 * i; // the even channels
        index[i] = c;
        phi[i] = l.phi[c];
        radius[i] = l.radius[c];
    }
    return true;
}

int akudoa_open_regular(const char* path)
{
    // Non-blocking, so that a FIFO without a writer cannot stall init; the
    // type is checked on the open descriptor itself.
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return -1;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        AKUDOA_LOG() << "doakernel init: refused" << path << ": not a regular file";
        ::close(fd);
        return -1;
    }
    return fd;
}

void akudoa_load_geometry(StCamCfg& c)
{
    const int n = c.channelNum;
    int32_t index[AKUDOA_MAX_MIC_NUM];
    float phi[AKUDOA_MAX_MIC_NUM];
    float radius[AKUDOA_MAX_MIC_NUM];
    akudoa_builtin_geometry(n, index, phi, radius);
    std::memcpy(c.micIndex, index, sizeof(index));
    std::memcpy(c.micPhi, phi, sizeof(phi));
    std::memcpy(c.micRadius, radius, sizeof(radius));
    const int fd = c.micFile ? akudoa_open_regular(c.micFile) : -1;
    if (fd >= 0) {
        AKUDOA_LOG() << "doakernel init: use special formation file" << c.micFile;
        // Three sections of n entries; a short file fills what it holds.
        const size_t section = static_cast<size_t>(n) * 4;
        if (readAll(fd, c.micIndex, section) == section && readAll(fd, c.micPhi, section) == section)
            readAll(fd, c.micRadius, section);
        ::close(fd);
        akudoa_check_geometry(c, index, phi, radius);
    }
    for (int i = 0; i < n; ++i)
        AKUDOA_LOG() << c.micIndex[i] + 1 << "Radius =" << c.micRadius[i] << "MicPhi =" << c.micPhi[i];
}

void akudoa_check_geometry(StCamCfg& c, const int32_t* index, const float* phi, const float* radius)
{
    const int n = c.channelNum;
    bool aperture = false;
    for (int i = 0; i < n; ++i) {
        // Indices address rows of the caller's frame.
        if (c.micIndex[i] < 0 || c.micIndex[i] >= AKUDOA_MAX_MIC_NUM) {
            AKUDOA_LOG() << "doakernel init: mic index out of range at position" << i << "=" << c.micIndex[i];
            c.micIndex[i] = index[i];
        }
        if (!goodPosition(c.micPhi[i], c.micRadius[i])) {
            AKUDOA_LOG() << "doakernel init: refused mic position" << i << ": phi =" << c.micPhi[i]
                         << "radius =" << c.micRadius[i] << ", accepted phi -2pi .. 2pi, radius -10 .. 10 m";
            c.micPhi[i] = phi[i];
            c.micRadius[i] = radius[i];
        }
        aperture = aperture || c.micRadius[i] != 0.0f;
    }
    if (!aperture) {
        // Every microphone at the centre: no direction can be told apart.
        AKUDOA_LOG() << "doakernel init: refused mic radii: all zero, built-in radii kept";
        std::memcpy(c.micRadius, radius, sizeof(float) * static_cast<size_t>(n));
    }
}

void akudoa_load_sensitivity(StCamCfg& c)
{
    // One gain per FFT bin up to Nyquist (frameSize is at most 1024).
    const int gains = c.frameSize / 2 + 1;
    for (int i = 0; i < gains; ++i)
        c.micSensitivity[i] = 1.0f;
    const int fd = c.micSenCalibrationFile ? akudoa_open_regular(c.micSenCalibrationFile) : -1;
    if (fd < 0)
        return;
    AKUDOA_LOG() << "doakernel init: use special sensitvity calibration file" << c.micSenCalibrationFile;
    readAll(fd, c.micSensitivity, sizeof(float) * static_cast<size_t>(gains));
    ::close(fd);
    int refused = 0;
    for (int i = 0; i < gains; ++i) {
        const float g = c.micSensitivity[i];
        if (std::isfinite(g) && g >= 0.0f && g <= 1000.0f)
            continue;
        if (refused++ == 0)
            AKUDOA_LOG() << "doakernel init: refused sensitivity gain of bin" << i << "=" << g
                         << ", accepted 0 .. 1000; gain 1 kept";
        c.micSensitivity[i] = 1.0f;
    }
}
