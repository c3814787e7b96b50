// Helpers shared by the fuzz targets: a private directory per process, file
// reading and writing, and splitting one input into several files.
#ifndef AKUDOA_TESTS_FUZZ_SUPPORT_H
#define AKUDOA_TESTS_FUZZ_SUPPORT_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// Fresh directory $TMPDIR/akudoa-fuzz-<tag>-XXXXXX (TMPDIR defaults to
// /tmp), with a trailing '/'; the steering-table cache goes to its
// subdirectory `cache` ("" for the directory itself).
inline std::string fuzz_dir(const char* tag, const std::string& cache = "")
{
    const char* tmp = std::getenv("TMPDIR");
    std::string t = std::string(tmp && *tmp ? tmp : "/tmp") + "/akudoa-fuzz-" + tag + "-XXXXXX";
    if (!::mkdtemp(&t[0]))
        std::abort();
    ::setenv("AKUDOA_CACHE_DIR", (t + "/" + cache).c_str(), 1);
    return t + "/";
}

inline std::string fuzz_read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void fuzz_write(const std::string& path, const std::string& bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        std::abort();
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

// Splits the input at each line "----" into at most n parts (the last part
// takes the rest); missing parts are empty.
inline std::vector<std::string> fuzz_split(const uint8_t* data, size_t size, size_t n)
{
    const std::string in(reinterpret_cast<const char*>(data), size);
    const std::string sep = "\n----\n";
    std::vector<std::string> parts;
    size_t at = 0;
    while (parts.size() + 1 < n) {
        const size_t next = in.find(sep, at);
        if (next == std::string::npos)
            break;
        parts.push_back(in.substr(at, next - at));
        at = next + sep.size();
    }
    parts.push_back(in.substr(std::min(at, in.size())));
    parts.resize(n);
    return parts;
}

#endif
