// The GPIO text commands: "mask|data" to set the pins' modes or drive them, "mask" to read them.
#include <array>

#include "CorvelText.h"
#include "corvel/protocol.hpp"
#include "gpio_driver.h"
#include "text_kit.h"

using namespace corvel;
namespace tx = corvel::proto::text;

namespace {

// Shared by the three commands, which callers serialise (no lock is taken here).
std::array<char, tx::kGpioInput> input{};
std::array<char*, tx::kParamFields> table{};
std::array<uint8_t, tx::kSmallBuffer> send_buffer{};
std::array<uint8_t, tx::kSmallBuffer> receive_buffer{};

constexpr text::Refusal kRefusal{"input data is too more!"};

void point_buffers() {
    GPIO_Data.p_sendDataBuff = send_buffer.data();
    GPIO_Data.p_getDataBuff = receive_buffer.data();
}

// Init and write: mask and data. `most` is the most fields taken (init ignores a third field, the
// write refuses it).
int32_t set_pins(char* in, char* out, std::size_t most, int (*driver)(GPIO_DATA*)) {
    point_buffers();
    if (in == nullptr || out == nullptr) return -1;
    bool copied = false;
    const text::Fields fields = text::split_copy(in, input, table, most, copied);
    if (const int32_t refused = text::judge(copied, fields, 2, kRefusal, out); refused != 0) return refused;
    GPIO_Data.mask = static_cast<uint32_t>(fields.number(0));
    GPIO_Data.data = static_cast<uint32_t>(fields.number(1));
    receive_buffer[0] = 0;
    const int result = driver(&GPIO_Data);
    // The receive buffer's text: empty, as these messages have no answer.
    text::put(out, reinterpret_cast<const char*>(receive_buffer.data()));
    return result;
}

}  // namespace

int32_t KDIF_GPIO_SelectDevice(char* in, char* out) {
    return text::select_device(in, out, GPIO_Data.deviceNumber, text::SelectLock::None);
}

int32_t KDIF_GPIO_Init(char* in, char* out) {
    return set_pins(in, out, 3, GPIO_Init);
}

int32_t KDIF_GPIO_WriteData(char* in, char* out) {
    return set_pins(in, out, 2, GPIO_WriteData);
}

// Intended: the levels are written on failure too, then those of the last successful read.
int32_t KDIF_GPIO_ReadData(char* in, char* out) {
    point_buffers();
    if (in == nullptr || out == nullptr) return -1;
    bool copied = false;
    const text::Fields fields = text::split_copy(in, input, table, tx::kParamFields - 2, copied);
    if (const int32_t refused = text::judge(copied, fields, 1, kRefusal, out); refused != 0) return refused;
    GPIO_Data.mask = static_cast<uint32_t>(fields.number(0));
    const int result = GPIO_ReadData(&GPIO_Data);
    text::Writer(out).hex(GPIO_Data.data, 8);
    return result;
}
