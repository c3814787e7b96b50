// Helpers for the kernel tests: a private temporary directory, INI and raw
// binary files written into it, and capture of the library's log lines.
#ifndef AKUDOA_TESTS_KERNEL_FIXTURE_H
#define AKUDOA_TESTS_KERNEL_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include <ftw.h>
#include <unistd.h>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoaquantizeparam.h"
#include "AKUDoa/base/akudoalogging.h"
#include "support/akudoagrid.h"

namespace kerneltest {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

inline std::vector<std::string>& capturedLines()
{
    static std::vector<std::string> lines;
    return lines;
}

inline void captureHandler(const char*, int, const char*, const char* message) { capturedLines().emplace_back(message ? message : ""); }

inline bool writeFile(const std::string& path, const void* data, size_t bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    const bool ok = f && (bytes == 0 || std::fwrite(data, 1, bytes, f) == bytes);
    return f && std::fclose(f) == 0 && ok;
}

inline void removeTree(const std::string& dir)
{
    nftw(dir.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); }, 8, FTW_DEPTH | FTW_PHYS);
}

// Fixture: fresh temp dir per test, log captured, handler removed afterwards.
class KernelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/akudoa_kernel_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        capturedLines().clear(), InstallDoaMessageHandler(captureHandler);
    }
    void TearDown() override
    {
        InstallDoaMessageHandler(nullptr);
        removeTree(dir_);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    // Writes an INI file and returns its path.
    std::string ini(const std::string& text, const std::string& name = "cfg.ini") const
    {
        EXPECT_TRUE(writeFile(path(name), text.data(), text.size()));
        return path(name);
    }
    // The log lines without tag and line end: "[AKUDOALIB] x \r\n" -> "x ".
    static std::vector<std::string> bodies()
    {
        std::vector<std::string> out;
        for (const std::string& l : capturedLines()) {
            const size_t from = l.rfind("[AKUDOALIB] ", 0) == 0 ? 12 : 0;
            const bool crlf = l.size() >= from + 2 && l.compare(l.size() - 2, 2, "\r\n") == 0;
            out.push_back(l.substr(from, l.size() - from - (crlf ? 2 : 0)));
        }
        return out;
    }
    static bool logged(const std::string& text)
    {
        const std::vector<std::string> b = bodies();
        return std::find(b.begin(), b.end(), text) != b.end();
    }
    static AKUDoaKernelPrivate* priv(AKUDoaKernel& k) { return AKUDoaKernelInspector::d(k); }
    std::string dir_;
};

// Steering-table cache in the test's own directory: tests run as parallel
// processes and some look at the files. What was set before is put back
// (or unset): a later test in the same process must not refill a directory
// this one removed. Tables are saved only with 4096 MB free, so a full disk
// is named here rather than as missing files later.
class CacheTest : public KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        const char* old = std::getenv("AKUDOA_CACHE_DIR");
        had_ = old != nullptr, saved_ = old ? old : "", cache_ = dir_ + "/";
        useCache(cache_);
        int freeMB = 0;
        ASSERT_TRUE(storage_request(cache_.c_str(), nullptr, &freeMB) && freeMB >= 4096) << freeMB << " MB free on " << cache_;
    }
    void TearDown() override { had_ ? useCache(saved_) : (void)::unsetenv("AKUDOA_CACHE_DIR"), KernelTest::TearDown(); }
    static void useCache(const std::string& dir) { ::setenv("AKUDOA_CACHE_DIR", dir.c_str(), 1); }
    bool had_ = false;
    std::string saved_, cache_;
};

// INI text of a small camera: 96 kHz, identity correction coefficients, no
// distance measurement, no extended view; a negative rotate leaves the
// default orientation; `more` is appended (a section named again adds to
// it, a key named again replaces it).
inline std::string cameraIni(int mics, int frameSize, int rows, int cols, int program, int rotate, int correction,
                             const std::string& more = "")
{
    const auto n = [](int v) { return std::to_string(v); };
    return "[AudioRecordingParam]\nchannel_num = " + n(mics) + "\nframe_size = " + n(frameSize) +
           "\nsample_frequency = 96000\n[AcousticCameraParam]\nimage_resolution_row = " + n(rows) + "\nimage_resolution_col = " +
           n(cols) + "\nimage_correction_flag = " + n(correction) + (rotate < 0 ? "" : "\nrotate_mode = " + n(rotate)) +
           "\nrx1 = 0\nrx2 = 0\nrx3 = 1\nry1 = 0\nry2 = 1\nry3 = 0\ndistanceMeasure_en = false\n[DOA]\nextra_en = false\n"
           "DOAVersionSelect = " + n(program) + "\n" + more;
}

// Capture frame (rows scattered through micIndex) of the sources.
inline AkuMat capture(const StCamCfg& cfg, const std::vector<AkuSimSource>& sources)
{
    return AkuMat(akugrid_capture_frame(cfg, akugrid_frame(cfg, sources).get()));
}

} // namespace kerneltest

#endif
