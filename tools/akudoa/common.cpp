#include "common.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace akutool {

namespace {
std::string sysError(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}
} // namespace

StagedFile::StagedFile(const std::string& finalPath) : final_(finalPath)
{
    std::string tmpl = joinPath(dirName(finalPath), ".akudoa-tmp-XXXXXX");
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    fd_ = mkstemp(buf.data());
    if (fd_ < 0)
        throw ToolError(sysError("cannot create a file beside", finalPath));
    temp_ = buf.data();
}

StagedFile::~StagedFile()
{
    if (fp_)
        std::fclose(fp_);
    else if (fd_ >= 0)
        close(fd_);
    if (!committed_ && !temp_.empty())
        unlink(temp_.c_str());
}

FILE* StagedFile::stream()
{
    if (!fp_) {
        fp_ = fdopen(fd_, "wb");
        if (!fp_)
            throw ToolError(sysError("cannot write", temp_));
    }
    return fp_;
}

void StagedFile::commit()
{
    bool failed = false;
    if (fp_) {
        failed = std::ferror(fp_) != 0;
        failed = (std::fclose(fp_) != 0) || failed;
        fp_ = nullptr;
    } else if (fd_ >= 0) {
        close(fd_);
    }
    fd_ = -1;
    if (failed)
        throw ToolError("write error on " + final_ + " (disk full?)");
    // mkstemp creates mode 0600; outputs are ordinary files.
    mode_t mask = umask(0);
    umask(mask);
    chmod(temp_.c_str(), 0666 & ~mask);
    if (std::rename(temp_.c_str(), final_.c_str()) != 0)
        throw ToolError(sysError("cannot rename to", final_));
    committed_ = true;
}

StagedDir::StagedDir(const std::string& outDir) : out_(outDir)
{
    struct stat st {};
    createdOut_ = stat(outDir.c_str(), &st) != 0;
    makeDirs(outDir);
    std::string tmpl = joinPath(outDir, ".akudoa-tmp-XXXXXX");
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data()))
        throw ToolError(sysError("cannot create a directory in", outDir));
    stage_ = buf.data();
}

StagedDir::~StagedDir()
{
    if (stage_.empty())
        return;
    // Remove whatever is left (everything, when commit() was not reached).
    if (DIR* d = opendir(stage_.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0)
                continue;
            unlink(joinPath(stage_, e->d_name).c_str());
        }
        closedir(d);
    }
    rmdir(stage_.c_str());
    // A failed run leaves no empty output directory behind either.
    if (!committed_ && createdOut_)
        rmdir(out_.c_str());
}

std::string StagedDir::path(const std::string& name)
{
    names_.push_back(name);
    return joinPath(stage_, name);
}

std::string StagedDir::finalPath(const std::string& name) const
{
    return joinPath(out_, name);
}

void StagedDir::commit()
{
    for (const std::string& n : names_) {
        std::string from = joinPath(stage_, n);
        if (access(from.c_str(), F_OK) != 0)
            continue;
        if (std::rename(from.c_str(), finalPath(n).c_str()) != 0)
            throw ToolError(sysError("cannot move into place", finalPath(n)));
    }
    committed_ = true;
}

void makeDirs(const std::string& path)
{
    if (path.empty())
        return;
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty())
            continue;
        if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            throw ToolError(sysError("cannot create directory", partial));
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw ToolError("not a directory: " + path);
}

bool isReadableFile(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), R_OK) == 0;
}

std::string joinPath(const std::string& dir, const std::string& name)
{
    if (dir.empty() || dir == ".")
        return name;
    if (dir.back() == '/')
        return dir + name;
    return dir + "/" + name;
}

std::string dirName(const std::string& path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

Progress::Progress(const std::string& label, long total)
    : label_(label), total_(total > 0 ? total : 1), tty_(isatty(STDERR_FILENO) != 0)
{
}

void Progress::update(long done)
{
    if (!tty_)
        return;
    int permille = static_cast<int>(1000 * done / total_);
    if (permille == lastPermille_)
        return;
    lastPermille_ = permille;
    const int width = 40;
    int fill = permille * width / 1000;
    std::fprintf(stderr, "\r%s [%.*s%*s] %5.1f%% (%ld/%ld)", label_.c_str(), fill,
                 "########################################", width - fill, "", permille / 10.0, done,
                 total_);
    std::fflush(stderr);
}

void Progress::finish()
{
    if (tty_ && lastPermille_ >= 0)
        std::fprintf(stderr, "\n");
}

double parseDouble(const std::string& text, const std::string& what)
{
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (text.empty() || end == text.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        throw ToolError(what + ": not a number: '" + text + "'");
    return v;
}

long parseLong(const std::string& text, const std::string& what)
{
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || end == text.c_str() || *end != '\0' || errno == ERANGE)
        throw ToolError(what + ": not an integer: '" + text + "'");
    return v;
}

void requireReadableConfig(const std::string& path)
{
    if (!isReadableFile(path))
        throw ToolError("cannot read " + path + ": no such readable file");
}

} // namespace akutool
