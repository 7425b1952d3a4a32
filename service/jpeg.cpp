#include "service/jpeg.h"

#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>

#include <algorithm>
#include <cstring>

namespace service {
namespace {

constexpr int kMaxScans = 64;  // a progressive image has about ten
constexpr int kQualities[] = {95, 90, 80, 70, 60, 50, 40, 30};

// What the library calls in place of ending the program and of writing to standard error. Nothing with a destructor
// may live in the functions that the jump leaves.
struct Errors {
    jpeg_error_mgr base;  // first: the library has a pointer to it
    std::jmp_buf leave;
    char text[JMSG_LENGTH_MAX];  // the first that was wrong
};

void Keep(j_common_ptr codec) {
    Errors* const errors = reinterpret_cast<Errors*>(codec->err);
    if (errors->text[0] == '\0') {
        errors->base.format_message(codec, errors->text);
    }
}

[[noreturn]] void Leave(j_common_ptr codec) {
    Keep(codec);
    std::longjmp(reinterpret_cast<Errors*>(codec->err)->leave, 1);
}

void Note(j_common_ptr codec, int level) {
    if (level < 0) {
        ++codec->err->num_warnings;
        Keep(codec);
    }
}

void Silence(j_common_ptr) {}

jpeg_error_mgr* SetUp(Errors& errors) {
    jpeg_std_error(&errors.base);
    errors.base.error_exit = &Leave;
    errors.base.emit_message = &Note;
    errors.base.output_message = &Silence;
    errors.text[0] = '\0';
    return &errors.base;
}

// ---- Decoding ----

void CountScans(j_common_ptr codec) {
    if (reinterpret_cast<j_decompress_ptr>(codec)->input_scan_number > kMaxScans) {
        std::snprintf(reinterpret_cast<Errors*>(codec->err)->text, JMSG_LENGTH_MAX, "it has too many scans");
        std::longjmp(reinterpret_cast<Errors*>(codec->err)->leave, 1);
    }
}

struct DecodeOrder {
    std::span<const std::uint8_t> field;
    std::uint32_t lines;
    std::uint32_t channels;
    std::uint8_t* rows;
    std::uint32_t height;  // out
    bool damaged;          // out
};

bool FitsField(const jpeg_decompress_struct& codec, const DecodeOrder& order) {
    return codec.image_width == kWidth && codec.image_height <= order.lines && codec.data_precision == 8 &&
           (codec.num_components == 1 || codec.num_components == 3);
}

bool Decode(jpeg_decompress_struct& codec, Errors& errors, DecodeOrder& order) {
    jpeg_progress_mgr progress{};
    progress.progress_monitor = &CountScans;
    if (setjmp(errors.leave) != 0) {
        return false;
    }
    jpeg_create_decompress(&codec);
    codec.progress = &progress;
    jpeg_mem_src(&codec, order.field.data(), order.field.size());
    jpeg_read_header(&codec, TRUE);
    if (!FitsField(codec, order)) {
        std::snprintf(errors.text, sizeof(errors.text), "it has %u by %u pixels of %d components", codec.image_width,
                      codec.image_height, codec.num_components);
        return false;
    }
    order.height = codec.image_height;
    codec.out_color_space = order.channels == 1 ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_start_decompress(&codec);
    while (codec.output_scanline < codec.output_height) {
        JSAMPROW row = order.rows + std::size_t{codec.output_scanline} * kWidth * order.channels;
        jpeg_read_scanlines(&codec, &row, 1);
    }
    jpeg_finish_decompress(&codec);
    order.damaged = errors.base.num_warnings != 0;
    return true;
}

// ---- Encoding ----

void LeavePlaceAlone(j_compress_ptr) {}

boolean EndOfPlace(j_compress_ptr codec) {
    std::longjmp(reinterpret_cast<Errors*>(codec->err)->leave, 1);
}

void SetColours(jpeg_compress_struct& codec, std::uint32_t channels) {
    codec.input_components = static_cast<int>(channels);
    codec.in_color_space = channels == 1 ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_set_defaults(&codec);
    if (channels == 3) {  // 4:2:2, like the fields beside it
        codec.comp_info[0].h_samp_factor = 2;
        codec.comp_info[0].v_samp_factor = 1;
    }
}

bool Encode(jpeg_compress_struct& codec, Errors& errors, const JpegImage& image, int quality,
            std::span<std::uint8_t> out) {
    jpeg_destination_mgr place{};
    place.next_output_byte = out.data();
    place.free_in_buffer = out.size();
    place.init_destination = &LeavePlaceAlone;
    place.empty_output_buffer = &EndOfPlace;
    place.term_destination = &LeavePlaceAlone;
    if (setjmp(errors.leave) != 0) {
        return false;
    }
    jpeg_create_compress(&codec);
    codec.dest = &place;
    codec.image_width = kWidth;
    codec.image_height = image.height;
    SetColours(codec, image.channels);
    jpeg_set_quality(&codec, quality, TRUE);
    jpeg_start_compress(&codec, TRUE);
    while (codec.next_scanline < codec.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(image.Row(codec.next_scanline));
        jpeg_write_scanlines(&codec, &row, 1);
    }
    jpeg_finish_compress(&codec);
    std::memset(place.next_output_byte, 0, place.free_in_buffer);
    return true;
}

}  // namespace

bool IsJpeg(std::span<const std::uint8_t> field) {
    return field.size() >= 4 && field[0] == 0xFF && field[1] == 0xD8 && field[2] == 0xFF;
}

bool DecodeJpeg(std::span<const std::uint8_t> field, std::uint32_t lines, std::uint32_t channels, JpegImage& image,
                std::string& why) {
    image.channels = channels;
    image.pixels.assign(std::size_t{lines} * kWidth * channels, 0);
    Errors errors;
    jpeg_decompress_struct codec{};
    codec.err = SetUp(errors);
    DecodeOrder order{field, lines, channels, image.pixels.data(), 0, false};
    const bool shown = Decode(codec, errors, order);
    jpeg_destroy_decompress(&codec);
    image.height = order.height;
    image.damaged = order.damaged;
    if (!shown || order.damaged) {
        why = errors.text;
    }
    return shown;
}

bool EncodeJpeg(const JpegImage& image, std::vector<std::uint8_t>& place) {
    std::vector<std::uint8_t> made(place.size());
    const bool fits = std::ranges::any_of(kQualities, [&](int quality) {
        Errors errors;
        jpeg_compress_struct codec{};
        codec.err = SetUp(errors);
        const bool done = Encode(codec, errors, image, quality, made);
        jpeg_destroy_compress(&codec);
        return done;
    });
    if (fits) {
        place = std::move(made);
    }
    return fits;
}

}  // namespace service
