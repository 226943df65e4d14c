// The text kit: what every text family (I2C, SPI, GPIO, ADC, USART, CAN) shares, so that a text
// command holds only its field list, its texts and its codes.
//
//   - copy_input: the command's own copy of the caller's text, refused when it does not fit;
//   - Fields: the "|" splitter, which behaves as strtok does (empty fields vanish) and counts the
//     fields into the command's table, failing once the count reaches the command's limit;
//   - number: a field read as strtol reads it with base 0;
//   - Writer: the output text, written front to back with no re-scan (byte lists in "0x%02X|"
//     form, fixed-width hexadecimal, decimal, plain texts);
//   - select_device: the SelectDevice command of every family.
//
// Everything here is linear in the length of the text it reads or writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "lock.h"

namespace corvel::text {

// ---- Input ----------------------------------------------------------------------------------

// Copies the NUL-terminated `in` into `buffer`; false (and nothing copied) when it does not fit
// with its terminator. Reads at most buffer.size() characters of `in`.
bool copy_input(const char* in, std::span<char> buffer);

// The fields of a text split in place on '|'. A field is a run of other characters; separators
// that start, end or repeat produce no empty field. Pointers to the fields go into `table` in
// order. `limit` is the most fields taken: when one more follows, the split stops and too_many()
// is true (limit 4 takes "a|b|c|d" and refuses "a|b|c|d|e"). `table` holds at least `limit`
// entries.
class Fields {
  public:
    Fields() = default;  // no fields yet; assign a split to it
    Fields(char* text, std::span<char*> table, std::size_t limit);
    // The table's own limit: a table of N entries fails from N-1 fields on, its last entry being
    // reserved for the end mark (so at most N-2 fields are taken).
    Fields(char* text, std::span<char*> table) : Fields(text, table, table.size() - 2) {}

    std::size_t count() const { return count_; }
    bool empty() const { return count_ == 0; }
    bool too_many() const { return too_many_; }
    const char* operator[](std::size_t i) const { return table_[i]; }
    // Field i read with base 0 (see number()).
    long number(std::size_t i) const;

  private:
    std::span<char*> table_;
    std::size_t count_ = 0;
    bool too_many_ = false;
};

// The command's copy of `in`, split with `limit` as Fields takes it: `copied` tells whether it
// fitted `buffer`; one that did not leaves an empty copy and so no field.
Fields split_copy(const char* in, std::span<char> buffer, std::span<char*> table, std::size_t limit,
                  bool& copied);

// A field (or a whole text) read as strtol reads it with base 0: "0x"/"0X" hexadecimal, a leading
// "0" octal, otherwise decimal, an optional sign, stopping at the first character that does not
// fit; no digits is 0. Callers cut the value to the width of the field that receives it.
inline long number(const char* text) {
    return std::strtol(text, nullptr, 0);
}

// The texts a command answers refused input with: too long to copy or too many fields (-2), no
// field at all (-3), fewer fields than it reads (-3).
struct Refusal {
    std::string_view too_many;
    std::string_view none = "please input data!";
    std::string_view too_few = "please input data!";
};

// Judges a command's split input: 0 when `copied` and the fields are neither too many nor fewer
// than `needed`; otherwise the code, with the matching text of `texts` written to `out`.
int32_t judge(bool copied, const Fields& fields, std::size_t needed, const Refusal& texts, char* out);

// ---- Output ---------------------------------------------------------------------------------

// Writes a NUL-terminated text front to back; the text stays terminated after every call. The
// caller's buffer is not bounded here: commands document how much room their results need.
class Writer {
  public:
    explicit Writer(char* out) : p_(out) { *p_ = '\0'; }

    Writer& text(std::string_view s);
    Writer& ch(char c);
    Writer& dec(long value);
    // "0x" and `digits` upper-case hexadecimal digits of the low 4 x digits bits of `value`.
    Writer& hex(uint32_t value, int digits);
    // Each byte as "0x%02X", joined by '|' (nothing after the last, nothing at all for none).
    Writer& hex_list(std::span<const uint8_t> bytes);

    char* end() const { return p_; }

  private:
    char* p_;
};

// Replaces `out` with `s`.
inline void put(char* out, std::string_view s) {
    Writer(out).text(s);
}

// ---- Device selection -----------------------------------------------------------------------

// Whether the device list holds an open handle for `index`.
bool device_is_open(int32_t index);

// How a family's SelectDevice uses the board lock: not at all, or the I2C way (intended: it locks
// the device current before the selection and unlocks the one current after it; with the single
// process-wide mutex that releases what it took).
enum class SelectLock { None, PreviousThenCurrent };

// The SelectDevice command, in two steps around the family's lock rule. parse_selection splits
// `in` in place and reads its one index (above 99 clamped to 99, a negative one kept): 0, or -3
// with "please input data!" / -2 with "input data is too more!" written. finish_selection writes
// the answer for the index: 0 when it is open, else -11.
int32_t parse_selection(char* in, char* out, int32_t& index);
int32_t finish_selection(char* out, int32_t index, bool open);

// Makes the index in `in` the family's current device when it is open, else makes 0 current.
// `Device` is the record's device field (a plain or an atomic int32_t).
template <typename Device>
int32_t select_device(char* in, char* out, Device& device, SelectLock lock_rule) {
    if (in == nullptr || out == nullptr) return -1;
    int32_t index = 0;
    if (const int32_t refused = parse_selection(in, out, index); refused != 0) return refused;
    const bool locks = lock_rule == SelectLock::PreviousThenCurrent;
    const int32_t before = device;
    if (locks) lock(before);
    const bool open = device_is_open(index);
    device = open ? index : 0;
    const int32_t after = device;
    const int32_t code = finish_selection(out, index, open);
    // Intended: the device current after the selection is unlocked. Both indices lock only below
    // the lock limit; when just one of them does, the one that was locked is released instead, so
    // the mutex is never released without being held.
    if (locks) unlock((before < kLockIndexLimit) == (after < kLockIndexLimit) ? after : before);
    return code;
}

}  // namespace corvel::text
