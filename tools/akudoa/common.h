#ifndef AKUDOA_TOOLS_COMMON_H
#define AKUDOA_TOOLS_COMMON_H

// Error type, file staging and terminal helpers shared by the subcommands of
// the akudoa program.

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "AKUDoa/base/akudoamatrix.h"

namespace akutool {

// Owners for the library's containers (std::unique_ptr deleters).
struct Mat2dDeleter {
    void operator()(mat2d_fp32* m) const { destroy_mat2d_fp32(m); }
};
struct VecDeleter {
    void operator()(vec_fp32* v) const { destroy_vec_fp32(v); }
};

// A failure the user can act on: the message names the file and the
// problem. main() prints it after "akudoa: " and exits with status 1.
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A wrong command line: printed with a usage hint, exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A file that becomes visible under its final name only when complete.
// The content goes to a temporary file in the same directory (so the
// final rename is atomic); commit() renames it, the destructor removes an
// uncommitted one, so a failure never leaves a half-written output.
class StagedFile {
public:
    explicit StagedFile(const std::string& finalPath);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    const std::string& tempPath() const { return temp_; }
    const std::string& finalPath() const { return final_; }
    // Opens the temporary file as a stdio stream (owned by this object,
    // closed by commit() or the destructor).
    FILE* stream();
    void commit();

private:
    std::string final_;
    std::string temp_;
    int fd_ = -1;
    FILE* fp_ = nullptr;
    bool committed_ = false;
};

// A set of output files that appear together: every file is written into a
// hidden staging directory inside the output directory and moved into place
// by commit(); the destructor removes the staging directory and whatever is
// in it when commit() was not reached.
class StagedDir {
public:
    explicit StagedDir(const std::string& outDir);
    ~StagedDir();
    StagedDir(const StagedDir&) = delete;
    StagedDir& operator=(const StagedDir&) = delete;

    // Path inside the staging directory for an output named name.
    std::string path(const std::string& name);
    // Final location of an output named name.
    std::string finalPath(const std::string& name) const;
    void commit();

private:
    std::string out_;
    std::string stage_;
    std::vector<std::string> names_;
    bool createdOut_ = false;
    bool committed_ = false;
};

void makeDirs(const std::string& path);
bool isReadableFile(const std::string& path);
// Throws ToolError naming the configuration file when it cannot be read.
void requireReadableConfig(const std::string& path);
std::string joinPath(const std::string& dir, const std::string& name);
std::string dirName(const std::string& path);

// Progress bar on standard error, drawn only when it is a terminal.
class Progress {
public:
    Progress(const std::string& label, long total);
    void update(long done);
    void finish();

private:
    std::string label_;
    long total_;
    bool tty_;
    int lastPermille_ = -1;
};

// Strict number parsing for command-line values and scene files.
double parseDouble(const std::string& text, const std::string& what);
long parseLong(const std::string& text, const std::string& what);

} // namespace akutool

#endif
