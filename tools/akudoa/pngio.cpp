#include "pngio.h"

#include <csetjmp>
#include <cstdio>
#include <memory>
#include <png.h>

#include "common.h"

namespace akutool {

namespace {
// libpng reports errors by longjmp; the message is kept for the exception
// thrown after the jump.
struct PngErr {
    std::string message;
};

void onError(png_structp png, png_const_charp msg)
{
    auto* e = static_cast<PngErr*>(png_get_error_ptr(png));
    if (e)
        e->message = msg ? msg : "libpng error";
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp) {}

// The setjmp lives here so that nothing this frame changes after it is a
// local of the frame (such locals are indeterminate after the jump).
bool decodePng(png_structp png, png_infop info, FILE* fp, RgbImage* img, std::vector<png_bytep>* rows)
{
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_init_io(png, fp);
    png_set_sig_bytes(png, 8);
    png_read_info(png, info);
    png_set_expand(png);
    png_set_strip_16(png);
    png_set_gray_to_rgb(png);
    png_color_16 black{};
    png_set_background(png, &black, PNG_BACKGROUND_GAMMA_SCREEN, 0, 1.0);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    const png_uint_32 w = png_get_image_width(png, info);
    const png_uint_32 h = png_get_image_height(png, info);
    if (png_get_rowbytes(png, info) != static_cast<size_t>(w) * 3)
        png_error(png, "unexpected pixel layout after conversion");
    *img = RgbImage(static_cast<int>(w), static_cast<int>(h));
    rows->resize(h);
    for (png_uint_32 y = 0; y < h; ++y)
        (*rows)[y] = img->at(0, static_cast<int>(y));
    png_read_image(png, rows->data());
    png_read_end(png, nullptr);
    return true;
}

bool encodePng(png_structp png, png_infop info, FILE* fp, const RgbImage* image, std::vector<png_bytep>* rows)
{
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_init_io(png, fp);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image->width), static_cast<png_uint_32>(image->height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    rows->resize(static_cast<size_t>(image->height));
    for (int y = 0; y < image->height; ++y)
        (*rows)[static_cast<size_t>(y)] = const_cast<png_bytep>(image->at(0, y));
    png_write_image(png, rows->data());
    png_write_end(png, nullptr);
    return true;
}
} // namespace

RgbImage readPng(const std::string& path)
{
    if (!isReadableFile(path))
        throw ToolError("cannot read " + path + ": no such readable file");
    std::unique_ptr<FILE, int (*)(FILE*)> fp(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!fp)
        throw ToolError("cannot open " + path);
    unsigned char sig[8] = {};
    if (std::fread(sig, 1, 8, fp.get()) != 8 || png_sig_cmp(sig, 0, 8) != 0)
        throw ToolError(path + " is not a PNG file");

    PngErr err;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &err, onError, onWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw ToolError("out of memory reading " + path);
    }
    RgbImage img;
    std::vector<png_bytep> rows;
    const bool ok = decodePng(png, info, fp.get(), &img, &rows);
    png_destroy_read_struct(&png, &info, nullptr);
    if (!ok)
        throw ToolError("cannot decode " + path + ": " + err.message);
    return img;
}

void writePng(const std::string& path, const RgbImage& image)
{
    if (image.width <= 0 || image.height <= 0)
        throw ToolError("internal error: empty image for " + path);
    StagedFile staged(path);
    FILE* fp = staged.stream();
    PngErr err;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &err, onError, onWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, &info);
        throw ToolError("out of memory writing " + path);
    }
    std::vector<png_bytep> rows;
    const bool ok = encodePng(png, info, fp, &image, &rows);
    png_destroy_write_struct(&png, &info);
    if (!ok)
        throw ToolError("cannot write " + path + ": " + err.message);
    staged.commit();
}

} // namespace akutool
