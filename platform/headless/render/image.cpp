#include "platform/headless/render/image.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstdio>  // before jpeglib.h, which uses FILE without including it
#include <cstring>
#include <new>

#include <jerror.h>
#include <jpeglib.h>
#include <png.h>
#include <zlib.h>

namespace virela::headless {

namespace {

// Decoders refuse images above this many pixels rather than allocate whatever a header claims.
constexpr std::uint64_t maxDecodedPixels = std::uint64_t{1} << 26;

std::uint8_t channel(double v) noexcept {
    if (!(v > 0)) return 0;  // also NaN
    if (v >= 1) return 255;
    return static_cast<std::uint8_t>(std::lround(v * 255));
}

// Pixel indices are clamped far outside any canvas so that the integer conversion is defined.
int pixelIndex(double v) noexcept {
    return static_cast<int>(std::clamp(v, -1e9, 1e9));
}

// round(x / 255) for x in 0..255*255.
inline unsigned div255(unsigned x) noexcept {
    return (x + 128 + ((x + 128) >> 8)) >> 8;
}

}  // namespace

Image Image::filled(int width, int height, std::uint8_t byte) {
    Image image;
    if (width <= 0 || height <= 0) return image;
    image.width = width;
    image.height = height;
    image.rgba.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4, byte);
    return image;
}

bool Image::valid() const noexcept {
    return width > 0 && height > 0 &&
           rgba.size() == static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
}

Rgba8 toRgba8(const Color& color, double alphaFactor) noexcept {
    return {channel(color.red), channel(color.green), channel(color.blue),
            channel(color.alpha * alphaFactor)};
}

PixelBox PixelBox::intersect(const PixelBox& o) const noexcept {
    return {std::max(x0, o.x0), std::max(y0, o.y0), std::min(x1, o.x1), std::min(y1, o.y1)};
}

PixelBox centreCoverage(const Rect& r) noexcept {
    if (r.isEmpty()) return {};
    // Pixel i's centre is i + 0.5: inside when x <= i + 0.5 < maxX.
    return {pixelIndex(std::ceil(r.x - 0.5)), pixelIndex(std::ceil(r.y - 0.5)),
            pixelIndex(std::ceil(r.maxX() - 0.5)), pixelIndex(std::ceil(r.maxY() - 0.5))};
}

PixelBox touchedPixels(const Rect& r) noexcept {
    if (r.isEmpty()) return {};
    return {pixelIndex(std::floor(r.x)), pixelIndex(std::floor(r.y)),
            pixelIndex(std::ceil(r.maxX())), pixelIndex(std::ceil(r.maxY()))};
}

void fillBox(Image& image, PixelBox box, Rgba8 color) noexcept {
    box = box.intersect({0, 0, image.width, image.height});
    if (box.empty() || color.a == 0 || !image.valid()) return;
    const std::size_t stride = static_cast<std::size_t>(image.width) * 4;
    const std::size_t span = static_cast<std::size_t>(box.x1 - box.x0) * 4;
    std::uint8_t* first = image.at(box.x0, box.y0);
    if (color.a == 255) {
        // One row by pixel, the others copied from it.
        const std::uint8_t px[4] = {color.r, color.g, color.b, 255};
        for (std::size_t i = 0; i < span; i += 4) std::memcpy(first + i, px, 4);
        std::uint8_t* row = first + stride;
        for (int y = box.y0 + 1; y < box.y1; ++y, row += stride) std::memcpy(row, first, span);
        return;
    }
    const unsigned a = color.a;
    const unsigned ia = 255 - a;
    const unsigned r = color.r * a;
    const unsigned g = color.g * a;
    const unsigned b = color.b * a;
    std::uint8_t* row = first;
    for (int y = box.y0; y < box.y1; ++y, row += stride) {
        for (std::size_t i = 0; i < span; i += 4) {
            std::uint8_t* p = row + i;
            p[0] = static_cast<std::uint8_t>(div255(r + p[0] * ia));
            p[1] = static_cast<std::uint8_t>(div255(g + p[1] * ia));
            p[2] = static_cast<std::uint8_t>(div255(b + p[2] * ia));
        }
    }
}

// ---- PNG ----

namespace {

void pngError(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

void pngWrite(png_structp png, png_bytep data, std::size_t length) {
    auto* out = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
    bool grown = true;
    try {
        out->insert(out->end(), data, data + length);
    } catch (const std::bad_alloc&) {
        grown = false;
    }
    // Outside the handler: png_error leaves by longjmp, which must not skip a destructor.
    if (!grown) png_error(png, "out of memory");
}

void pngFlush(png_structp) {}

// Holds the setjmp; nothing with a destructor lives in this frame, and nothing set after the
// setjmp is read after a longjmp.
bool writePng(png_structp png, png_infop info, const Image& image, bool opaque) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
                 static_cast<png_uint_32>(image.height), 8,
                 opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    // Screens are flat colour and repeat row after row: the Up filter alone, with zlib's
    // defaults, comes within a few percent of libpng's adaptive filtering in half the time.
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
    png_set_compression_strategy(png, Z_DEFAULT_STRATEGY);
    png_write_info(png, info);
    if (opaque) png_set_filler(png, 0, PNG_FILLER_AFTER);  // drops the alpha byte
    for (int y = 0; y < image.height; ++y) png_write_row(png, image.at(0, y));
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

std::vector<std::uint8_t> encodePng(const Image& image) {
    if (!image.valid()) return {};
    bool opaque = true;
    for (std::size_t i = 3; i < image.rgba.size(); i += 4) {
        if (image.rgba[i] != 255) {
            opaque = false;
            break;
        }
    }
    std::vector<std::uint8_t> out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    if (png == nullptr) return {};
    png_infop info = png_create_info_struct(png);
    bool ok = false;
    if (info != nullptr) {
        png_set_write_fn(png, &out, pngWrite, pngFlush);
        ok = writePng(png, info, image, opaque);
    }
    png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
    if (!ok) return {};
    return out;
}

std::optional<Image> decodePng(const std::vector<std::uint8_t>& bytes) {
    if (bytes.empty()) return std::nullopt;
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    // The simplified API keeps its own setjmp inside libpng; this frees what it holds on every
    // path.
    struct Release {
        png_image* p;
        ~Release() { png_image_free(p); }
    } release{&png};
    if (!png_image_begin_read_from_memory(&png, bytes.data(), bytes.size())) return std::nullopt;
    if (png.width == 0 || png.height == 0 ||
        std::uint64_t{png.width} * png.height > maxDecodedPixels) {
        return std::nullopt;
    }
    png.format = PNG_FORMAT_RGBA;
    Image image;
    image.width = static_cast<int>(png.width);
    image.height = static_cast<int>(png.height);
    image.rgba.resize(static_cast<std::size_t>(png.width) * png.height * 4);
    if (!png_image_finish_read(&png, nullptr, image.rgba.data(), 0, nullptr)) {
        return std::nullopt;
    }
    return image;
}

// ---- JPEG ----

namespace {

struct JpegErrors {
    jpeg_error_mgr mgr;  // first: libjpeg hands back a pointer to it
    std::jmp_buf jump;
    bool warned;
};

JpegErrors& errorsOf(j_common_ptr cinfo) noexcept {
    return *reinterpret_cast<JpegErrors*>(cinfo->err);
}

[[noreturn]] void jpegErrorExit(j_common_ptr cinfo) {
    std::longjmp(errorsOf(cinfo).jump, 1);
}

// Level -1 is a warning: corrupt or truncated data that libjpeg papers over.
void jpegEmit(j_common_ptr cinfo, int level) {
    if (level < 0) errorsOf(cinfo).warned = true;
}

void jpegOutput(j_common_ptr) {}

void installErrors(JpegErrors& errors) {
    jpeg_std_error(&errors.mgr);
    errors.mgr.error_exit = jpegErrorExit;
    errors.mgr.emit_message = jpegEmit;
    errors.mgr.output_message = jpegOutput;
    errors.warned = false;
}

// Compressed output straight into a vector. (jpeg_mem_dest has no clean error path: once its
// buffer has grown, the grown buffer is reachable only through the library's private state.)
struct VectorDestination {
    jpeg_destination_mgr mgr;  // first: libjpeg hands back a pointer to it
    std::vector<std::uint8_t>* out;
};

constexpr std::size_t jpegChunk = 64 * 1024;

VectorDestination& destinationOf(j_compress_ptr cinfo) noexcept {
    return *reinterpret_cast<VectorDestination*>(cinfo->dest);
}

void jpegInitDestination(j_compress_ptr cinfo) {
    VectorDestination& dest = destinationOf(cinfo);
    bool grown = true;
    try {
        dest.out->resize(jpegChunk);
    } catch (const std::bad_alloc&) {
        grown = false;
    }
    if (!grown) {
        cinfo->err->msg_code = JERR_OUT_OF_MEMORY;
        cinfo->err->error_exit(reinterpret_cast<j_common_ptr>(cinfo));
    }
    dest.mgr.next_output_byte = dest.out->data();
    dest.mgr.free_in_buffer = dest.out->size();
}

// Called when the buffer is full (whatever next_output_byte says).
boolean jpegEmptyBuffer(j_compress_ptr cinfo) {
    VectorDestination& dest = destinationOf(cinfo);
    const std::size_t used = dest.out->size();
    bool grown = true;
    try {
        dest.out->resize(used * 2);
    } catch (const std::bad_alloc&) {
        grown = false;
    }
    if (!grown) {
        cinfo->err->msg_code = JERR_OUT_OF_MEMORY;
        cinfo->err->error_exit(reinterpret_cast<j_common_ptr>(cinfo));
    }
    dest.mgr.next_output_byte = dest.out->data() + used;
    dest.mgr.free_in_buffer = dest.out->size() - used;
    return TRUE;
}

void jpegTermDestination(j_compress_ptr cinfo) {
    VectorDestination& dest = destinationOf(cinfo);
    dest.out->resize(dest.out->size() - dest.mgr.free_in_buffer);  // shrinks: cannot throw
}

// As writePng: the setjmp lives in a frame without destructors.
bool writeJpeg(jpeg_compress_struct& cinfo, JpegErrors& errors, VectorDestination& dest,
               const Image& image, int quality) {
    if (setjmp(errors.jump)) return false;
    jpeg_create_compress(&cinfo);
    cinfo.dest = &dest.mgr;
    cinfo.image_width = static_cast<JDIMENSION>(image.width);
    cinfo.image_height = static_cast<JDIMENSION>(image.height);
    cinfo.input_components = 4;
    cinfo.in_color_space = JCS_EXT_RGBX;  // reads RGBA rows in place, skipping alpha
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPLE*>(image.at(0, static_cast<int>(cinfo.next_scanline)));
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    return true;
}

bool readJpegHeader(jpeg_decompress_struct& cinfo, JpegErrors& errors,
                    const std::vector<std::uint8_t>& bytes) {
    if (setjmp(errors.jump)) return false;
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, bytes.data(), static_cast<unsigned long>(bytes.size()));
    if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK) return false;
    cinfo.out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(&cinfo);
    return true;
}

bool readJpegRows(jpeg_decompress_struct& cinfo, JpegErrors& errors, Image& image) {
    if (setjmp(errors.jump)) return false;
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = image.at(0, static_cast<int>(cinfo.output_scanline));
        if (jpeg_read_scanlines(&cinfo, &row, 1) != 1) return false;
    }
    jpeg_finish_decompress(&cinfo);
    return true;
}

}  // namespace

std::vector<std::uint8_t> encodeJpeg(const Image& image, double quality) {
    if (!image.valid()) return {};
    const double q = std::isfinite(quality) ? std::clamp(quality, 0.0, 1.0) : 0.7;
    std::vector<std::uint8_t> out;
    VectorDestination dest{};
    dest.out = &out;
    dest.mgr.init_destination = jpegInitDestination;
    dest.mgr.empty_output_buffer = jpegEmptyBuffer;
    dest.mgr.term_destination = jpegTermDestination;
    JpegErrors errors{};
    installErrors(errors);
    jpeg_compress_struct cinfo{};
    cinfo.err = &errors.mgr;
    const bool ok = writeJpeg(cinfo, errors, dest, image, static_cast<int>(std::lround(q * 100)));
    jpeg_destroy_compress(&cinfo);  // safe after a failed or skipped create: it checks `mem`
    if (!ok) return {};
    return out;
}

std::optional<Image> decodeJpeg(const std::vector<std::uint8_t>& bytes) {
    if (bytes.empty() || bytes.size() > ULONG_MAX) return std::nullopt;
    JpegErrors errors{};
    installErrors(errors);
    jpeg_decompress_struct cinfo{};
    cinfo.err = &errors.mgr;
    std::optional<Image> result;
    if (readJpegHeader(cinfo, errors, bytes) && cinfo.output_components == 4 &&
        cinfo.output_width > 0 && cinfo.output_height > 0 &&
        std::uint64_t{cinfo.output_width} * cinfo.output_height <= maxDecodedPixels) {
        Image image;
        image.width = static_cast<int>(cinfo.output_width);
        image.height = static_cast<int>(cinfo.output_height);
        bool allocated = true;
        try {
            image.rgba.resize(static_cast<std::size_t>(cinfo.output_width) * cinfo.output_height *
                              4);
        } catch (const std::bad_alloc&) {
            allocated = false;
        }
        if (allocated && readJpegRows(cinfo, errors, image) && !errors.warned) {
            result = std::move(image);
        }
    }
    jpeg_destroy_decompress(&cinfo);
    return result;
}

}  // namespace virela::headless
