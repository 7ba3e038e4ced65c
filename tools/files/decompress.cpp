#include "files/decompress.h"

#include <algorithm>
#include <climits>
#include <new>

#define ZLIB_CONST  // input that is only read
#include <zlib.h>
#include <zstd.h>

namespace tessel::files {

struct DecoderState {
    Compression compression = Compression::none;
    z_stream gzip{};
    ZSTD_DCtx* zstd = nullptr;
};

namespace {

constexpr int gzip_only = 16 + MAX_WBITS;  // as zlib wants it: the largest window, gzip's header and no other
constexpr std::string_view gzip_magic = "\x1f\x8b";
constexpr std::string_view zstd_magic = "\x28\xb5\x2f\xfd";
constexpr std::string_view zstd_skippable_magic = "\x2a\x4d\x18";  // after a byte from 0x50 to 0x5f

void stop(DecoderState& state) {
    if (state.compression == Compression::gzip) {
        inflateEnd(&state.gzip);
    }
    ZSTD_freeDCtx(state.zstd);
    state.zstd = nullptr;
    state.compression = Compression::none;
}

bool decode_gzip(Decoder& decoder, std::string_view& input, char* output, std::size_t room,
                 std::size_t& produced) {
    z_stream& stream = decoder.state->gzip;
    if (decoder.between_frames && inflateReset(&stream) != Z_OK) {
        return false;
    }
    const auto in_size = static_cast<uInt>(std::min<std::size_t>(input.size(), UINT_MAX));
    const auto out_size = static_cast<uInt>(std::min<std::size_t>(room, UINT_MAX));
    stream.next_in = reinterpret_cast<const Bytef*>(input.data());
    stream.avail_in = in_size;
    stream.next_out = reinterpret_cast<Bytef*>(output);
    stream.avail_out = out_size;
    const int status = inflate(&stream, Z_NO_FLUSH);
    input.remove_prefix(in_size - stream.avail_in);
    produced = out_size - stream.avail_out;
    decoder.between_frames = status == Z_STREAM_END;
    return status == Z_OK || status == Z_STREAM_END || status == Z_BUF_ERROR;
}

// The library writes the output.
// NOLINTNEXTLINE(readability-non-const-parameter)
bool decode_zstd(Decoder& decoder, std::string_view& input, char* output, std::size_t room,
                 std::size_t& produced) {
    ZSTD_inBuffer in{input.data(), input.size(), 0};
    ZSTD_outBuffer out{output, room, 0};
    const std::size_t status = ZSTD_decompressStream(decoder.state->zstd, &out, &in);
    input.remove_prefix(in.pos);
    produced = out.pos;
    decoder.between_frames = status == 0;
    return ZSTD_isError(status) == 0;
}

}  // namespace

Compression detect_compression(std::string_view head) {
    if (head.substr(0, gzip_magic.size()) == gzip_magic) {
        return Compression::gzip;
    }
    const bool skippable = head.size() >= compression_head_bytes && (head[0] & 0xf0) == 0x50 &&
                           head.substr(1, zstd_skippable_magic.size()) == zstd_skippable_magic;
    return skippable || head.substr(0, zstd_magic.size()) == zstd_magic ? Compression::zstd
                                                                        : Compression::none;
}

std::string_view compression_name(Compression compression) {
    return compression == Compression::gzip ? "gzip" : compression == Compression::zstd ? "zstd" : "plain";
}

Decoder::Decoder() : state(std::make_unique<DecoderState>()) {}

Decoder::~Decoder() {
    stop(*state);
}

void start_decoder(Decoder& decoder, Compression compression) {
    DecoderState& state = *decoder.state;
    stop(state);
    decoder.between_frames = true;
    if (compression == Compression::gzip) {
        state.gzip = z_stream{};
        if (inflateInit2(&state.gzip, gzip_only) != Z_OK) {
            throw std::bad_alloc();
        }
    } else if (compression == Compression::zstd) {
        state.zstd = ZSTD_createDCtx();
        if (state.zstd == nullptr) {
            throw std::bad_alloc();
        }
    }
    state.compression = compression;
}

bool decode(Decoder& decoder, std::string_view& input, char* output, std::size_t room,
            std::size_t& produced) {
    produced = 0;
    return decoder.state->compression == Compression::gzip
               ? decode_gzip(decoder, input, output, room, produced)
               : decode_zstd(decoder, input, output, room, produced);
}

}  // namespace tessel::files
