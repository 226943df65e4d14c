// Bit strings: bits given and returned as text of the characters '0' and '1', first bit first, and
// their packed form on the wire. Bit k is byte k/8, bit position 7 - k%8 (the first bit of each
// group of eight is the most significant one); a last partial byte is padded with zero bits.
// Shared by the SPI bit transfers and the text commands that carry bit strings.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace corvel::bits {

// Bytes that n bits pack into.
constexpr std::size_t packed_size(std::size_t nbits) {
    return nbits / 8 + (nbits % 8 != 0 ? 1 : 0);
}

// Whether every character is '0' or '1'.
constexpr bool is_bit_text(std::span<const uint8_t> text) {
    return std::all_of(text.begin(), text.end(), [](uint8_t c) { return c == '0' || c == '1'; });
}

// Packed byte i of the bit text (which is_bit_text accepts).
constexpr uint8_t packed_byte(std::span<const uint8_t> text, std::size_t i) {
    uint8_t byte = 0;
    for (std::size_t k = i * 8; k < text.size() && k < i * 8 + 8; ++k)
        if (text[k] == '1') byte = static_cast<uint8_t>(byte | 0x80 >> (k % 8));
    return byte;
}

// Writes the first nbits bits of `packed` (packed_size(nbits) bytes) to `text` as characters,
// followed by a NUL: text must hold nbits + 1 bytes. `text` may be `packed` itself: the bits are
// laid out from the last one back, so each packed byte is read before its place is written.
constexpr void unpack(const uint8_t* packed, std::size_t nbits, uint8_t* text) {
    text[nbits] = '\0';
    for (std::size_t k = nbits; k-- > 0;) text[k] = (packed[k / 8] >> (7 - k % 8) & 1) ? '1' : '0';
}

}  // namespace corvel::bits
