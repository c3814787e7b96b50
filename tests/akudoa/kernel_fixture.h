// Helpers for the kernel tests: a private temporary directory, INI and raw
// binary files written into it, and capture of the library's log lines.
#ifndef AKUDOA_TESTS_KERNEL_FIXTURE_H
#define AKUDOA_TESTS_KERNEL_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <ftw.h>
#include <unistd.h>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/base/akudoalogging.h"

namespace kerneltest {

inline std::vector<std::string>& capturedLines()
{
    static std::vector<std::string> lines;
    return lines;
}

inline void captureHandler(const char*, int, const char*, const char* message)
{
    capturedLines().emplace_back(message ? message : "");
}

// Strips the tag and the line end: "[AKUDOALIB] x \r\n" -> "x ".
inline std::string body(const std::string& line)
{
    std::string s = line;
    const std::string tag = "[AKUDOALIB] ";
    if (s.compare(0, tag.size(), tag) == 0)
        s.erase(0, tag.size());
    if (s.size() >= 2 && s.compare(s.size() - 2, 2, "\r\n") == 0)
        s.erase(s.size() - 2);
    return s;
}

inline bool writeFile(const std::string& path, const void* data, size_t bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = bytes == 0 || std::fwrite(data, 1, bytes, f) == bytes;
    std::fclose(f);
    return ok;
}

inline bool writeText(const std::string& path, const std::string& text)
{
    return writeFile(path, text.data(), text.size());
}

// Fixture: fresh temp dir per test, log captured, handler removed afterwards.
class KernelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/akudoa_kernel_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        capturedLines().clear();
        InstallDoaMessageHandler(captureHandler);
    }

    void TearDown() override
    {
        InstallDoaMessageHandler(nullptr);
        nftw(dir_.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); }, 8,
             FTW_DEPTH | FTW_PHYS);
    }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Writes an INI file and returns its path.
    std::string ini(const std::string& text, const std::string& name = "cfg.ini") const
    {
        const std::string p = path(name);
        EXPECT_TRUE(writeText(p, text));
        return p;
    }

    static std::vector<std::string> bodies()
    {
        std::vector<std::string> out;
        for (const std::string& l : capturedLines())
            out.push_back(body(l));
        return out;
    }

    static bool logged(const std::string& text)
    {
        for (const std::string& l : capturedLines())
            if (body(l) == text)
                return true;
        return false;
    }

    static AKUDoaKernelPrivate* priv(AKUDoaKernel& k) { return AKUDoaKernelInspector::d(k); }

    std::string dir_;
};

} // namespace kerneltest

#endif
