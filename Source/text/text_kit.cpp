#include "text_kit.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "corvel/protocol.hpp"
#include "kd_board.h"

namespace corvel::text {

bool copy_input(const char* in, std::span<char> buffer) {
    const std::size_t n = strnlen(in, buffer.size());
    if (n == buffer.size()) return false;
    std::memcpy(buffer.data(), in, n + 1);
    return true;
}

// One pass over the text: each run of non-separators becomes a field, its end terminated.
Fields::Fields(char* text, std::span<char*> table, std::size_t limit) : table_(table) {
    char* p = text;
    while (true) {
        while (*p == '|') ++p;
        if (*p == '\0') break;
        if (count_ >= limit) {
            too_many_ = true;
            break;
        }
        table_[count_++] = p;
        while (*p != '\0' && *p != '|') ++p;
        if (*p == '\0') break;
        *p++ = '\0';
    }
}

Fields split_copy(const char* in, std::span<char> buffer, std::span<char*> table, std::size_t limit,
                  bool& copied) {
    copied = copy_input(in, buffer);
    if (!copied) buffer[0] = '\0';
    return Fields(buffer.data(), table, limit);
}

long Fields::number(std::size_t i) const {
    return text::number(table_[i]);
}

int32_t judge(bool copied, const Fields& fields, std::size_t needed, const Refusal& texts, char* out) {
    if (!copied || fields.too_many()) {
        put(out, texts.too_many);
        return -2;
    }
    if (fields.empty()) {
        put(out, texts.none);
        return -3;
    }
    if (fields.count() < needed) {
        put(out, texts.too_few);
        return -3;
    }
    return 0;
}

Writer& Writer::text(std::string_view s) {
    std::memcpy(p_, s.data(), s.size());
    p_ += s.size();
    *p_ = '\0';
    return *this;
}

Writer& Writer::ch(char c) {
    *p_++ = c;
    *p_ = '\0';
    return *this;
}

Writer& Writer::dec(long value) {
    std::array<char, 24> digits{};
    std::size_t n = 0;
    // The magnitude as unsigned, so that the most negative value has one too.
    unsigned long magnitude =
        value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
    do {
        digits[n++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) *p_++ = '-';
    while (n > 0) *p_++ = digits[--n];
    *p_ = '\0';
    return *this;
}

Writer& Writer::hex(uint32_t value, int digits) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    *p_++ = '0';
    *p_++ = 'x';
    for (int i = digits - 1; i >= 0; --i) *p_++ = kDigits[(value >> (4 * i)) & 0xF];
    *p_ = '\0';
    return *this;
}

Writer& Writer::hex_list(std::span<const uint8_t> bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) *p_++ = '|';
        hex(bytes[i], 2);
    }
    *p_ = '\0';
    return *this;
}

bool device_is_open(int32_t index) {
    return board_is_open(index);
}

int32_t parse_selection(char* in, char* out, int32_t& index) {
    std::array<char*, 2> table{};
    const Fields fields(in, table, 1);
    if (fields.empty()) {
        put(out, "please input data!");
        return -3;
    }
    if (fields.too_many()) {
        put(out, "input data is too more!");
        return -2;
    }
    const long n = fields.number(0);
    index = static_cast<int32_t>(std::min<long>(n, proto::text::kSelectMax));
    return 0;
}

int32_t finish_selection(char* out, int32_t index, bool open) {
    Writer w(out);
    if (open) {
        w.text("Select device ").dec(index).text(" success!");
        return 0;
    }
    w.text("Device ").dec(index).text(" isn't exist or isn't opened!");
    return -11;
}

}  // namespace corvel::text
