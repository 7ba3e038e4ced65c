#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tessel::files {

enum class Compression : std::uint8_t { none, gzip, zstd };

// Bytes that `detect_compression` needs at most.
inline constexpr std::size_t compression_head_bytes = 4;

// By the first bytes of a file, whatever its name.
Compression detect_compression(std::string_view head);

// Its name in messages.
std::string_view compression_name(Compression compression);

struct DecoderState;  // of the library at work

// Unpacks one stream: gzip members or zstd frames, one after the other. Memory is bounded: a zstd frame that
// asks for a window above 128 MiB is damaged.
struct Decoder {
    std::unique_ptr<DecoderState> state;
    bool between_frames = true;  // the input may end here

    Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;
    ~Decoder();
};

// Begins a stream. Throws std::bad_alloc.
void start_decoder(Decoder& decoder, Compression compression);

// Unpacks from the front of `input`, which it shortens by what it consumed, into at most `room` bytes at
// `output`; `produced` is how many it wrote. False when the data is damaged.
bool decode(Decoder& decoder, std::string_view& input, char* output, std::size_t room, std::size_t& produced);

}  // namespace tessel::files
