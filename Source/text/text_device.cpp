// The board-wide text commands: list the adapters, open and close one.
#include <array>

#include "CorvelBoard.h"
#include "CorvelText.h"
#include "lock.h"
#include "text_kit.h"
#include "corvel/protocol.hpp"
#include "kd_board.h"

namespace proto = corvel::proto;
namespace text = corvel::text;

namespace {

std::array<char, proto::text::kParamInput> open_input;
std::array<char*, proto::text::kParamFields> open_fields;
std::array<char, proto::text::kParamInput> close_input;
std::array<char*, proto::text::kParamFields> close_fields;

// Intended: one "lock created" flag per device number, which nothing ever sets, so every open
// initialises the lock (which creates the mutex only once per process).
std::array<bool, proto::text::kLockFlags> lock_created{};

bool lock_is_created(int32_t device) {
    return device >= 0 && static_cast<std::size_t>(device) < lock_created.size() && lock_created[device];
}

// Copies and splits `in` into its one device number: 0, or the refusal written to `out`.
int32_t parse_device(const char* in, char* out, std::span<char> input, std::span<char*> table,
                     int32_t& device) {
    if (!text::copy_input(in, input)) {
        text::put(out, "Data input is too more!");
        return -2;
    }
    const text::Fields fields(input.data(), table, 1);
    if (fields.empty()) {
        text::put(out, "No input data!");
        return -3;
    }
    if (fields.too_many()) {
        text::put(out, "Data input is too more!");
        return -2;
    }
    device = static_cast<int32_t>(fields.number(0));
    return 0;
}

}  // namespace

extern "C" {

CORVEL_API int32_t KDIF_USB_EnumBoard(char* in, char* out) {
    if (in == nullptr || out == nullptr) return -1;
    // The caller's limit is checked but otherwise not used.
    if (text::number(in) > proto::text::kMaxDeviceCount) return -4;
    const int32_t n = KD_EnumBoard(1);
    text::Writer w(out);
    for (int32_t i = 0; i < n; ++i) {
        if (i > 0) w.ch('|');
        w.dec(1).ch(',').dec(i);
    }
    return n;
}

CORVEL_API int32_t KDIF_OpenDevice(char* in, char* out) {
    if (in == nullptr || out == nullptr) return -1;
    int32_t device = 0;
    if (const int32_t refused = parse_device(in, out, open_input, open_fields, device); refused != 0)
        return refused;
    if (!lock_is_created(device)) lock_init(device);
    // The board open, with the lock taken here: KD_OpenBoard would take it a second time.
    ensure_enumerated();
    lock(device);
    const bool opened = open_board_locked(device);
    if (opened)
        text::Writer(out).text("Open device ").dec(device).text(" success!");
    else
        text::put(out, "Open device faild! ");
    unlock(device);
    return opened ? 0 : -8;
}

CORVEL_API int32_t KDIF_CloseDevice(char* in, char* out) {
    if (in == nullptr || out == nullptr) return -1;
    int32_t device = 0;
    if (const int32_t refused = parse_device(in, out, close_input, close_fields, device); refused != 0)
        return refused;
    if (KD_CloseBoard(device) != 0) {
        text::put(out, "Close device faild! ");
        return -8;
    }
    text::Writer(out).text("Close device ").dec(device).text(" success!");
    return 0;
}

}  // extern "C"
