// The SDI-12 family: device management, port initialisation, and commands to the sensors with
// their response lines, optionally CRC-checked (sdi12crc.h). Both functions hold the board lock
// across their request and its answer.
#include "ControlSDI.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "family.h"
#include "sdi12crc.h"

using namespace corvel;
namespace sdi12 = corvel::proto::sdi12;

namespace {

constexpr std::array<int32_t, 2> kSdiTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family kSdi{kSdiTypes};
constexpr uint8_t kMaxPort = sdi12::kPorts - 1;

// SDI-12 frames characters as 7E1: bit 7 carries the even parity of bits 0-6.
uint8_t with_parity(uint8_t c) {
    const auto data = static_cast<uint8_t>(c & ~sdi12::kParityBit);
    return std::popcount(data) % 2 ? static_cast<uint8_t>(data | sdi12::kParityBit) : data;
}

// The index of the byte just after the first CR LF of the reply, or 0 when it has none.
std::size_t line_end(std::span<const uint8_t> reply) {
    for (std::size_t i = 2; i <= reply.size(); ++i)
        if (reply[i - 2] == sdi12CRC::CARRIAGE_RETURN && reply[i - 1] == sdi12CRC::LINE_FEED) return i;
    return 0;
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t SDI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t SDI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kSdi, DevType, DevIndex);
}

int32_t SDI_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kSdi, DevType, DevIndex);
}

// ---- Ports and commands ------------------------------------------------------------------------

int32_t SDI_InitSDI(int32_t DevType, int32_t DevIndex, uint8_t SDIIndex) {
    if (const int32_t r = Check(kSdi, DevType, DevIndex).channel(SDIIndex, kMaxPort); r != 0) return r;
    Request request(MSG_KD_SDI12_INIT);
    request.payload().u8(SDIIndex);
    BoardLock hold(DevIndex);
    return request_status(DevIndex, request, MSG_MSG_EXECUT_OK);
}

// The port is checked before the pointers (intended). The command is read at most 512 bytes far:
// one without a terminator there, or longer than 511 characters, or without "!", is -4.
int32_t SDI_SendCmd(int32_t DevType, int32_t DevIndex, uint8_t SDIIndex, uint8_t* pCommand, uint8_t* pRespond,
                    uint8_t CheckCRC) {
    if (const int32_t r =
            Check(kSdi, DevType, DevIndex).channel(SDIIndex, kMaxPort).not_null(pCommand, pRespond);
        r != 0)
        return r;
    const char* command = reinterpret_cast<const char*>(pCommand);
    const std::size_t length = strnlen(command, sdi12::kLineBufferSize);
    const void* bang = std::memchr(command, sdi12::kCommandEnd, length);
    if (bang == nullptr || length > sdi12::kCommandMax) return KD_ERR_DATA_FORMAT;

    Request request(MSG_KD_SDI12_SEND_CMD);
    request.payload().u8(SDIIndex);
    for (const char* c = command; c <= bang; ++c) request.payload().u8(with_parity(static_cast<uint8_t>(*c)));

    // The reply is taken up to 511 bytes, so that it and a terminator fit the caller's 512 bytes.
    std::array<uint8_t, sdi12::kLineBufferSize> reply{};
    S_MSG answer{};
    {
        BoardLock hold(DevIndex);
        const int32_t r =
            request_reply(DevIndex, request, Reply::Long, std::span(reply).first(sdi12::kLineBufferSize - 1),
                          std::nullopt, &answer);
        // A reply that did not come is -5, the send's code (intended).
        if (r != 0) return KD_ERR_USB_WRITE_FAIL;
    }
    const std::size_t size =
        std::min<std::size_t>(static_cast<std::size_t>(answer.size), sdi12::kLineBufferSize - 1);
    if (answer.status != MSG_MSG_EXECUT_OK || size < 2) return KD_ERR_EXECUTE_CMD;
    const std::size_t end = line_end(std::span(reply).first(size));
    if (end == 0) return KD_ERR_NO_DATA;
    // The line is terminated just after its line feed, and the whole reply and one byte more are
    // copied: whatever followed the line end comes along behind the terminator.
    reply[end] = 0;
    std::copy_n(reply.begin(), size + 1, pRespond);
    if (CheckCRC == 0) return KD_SUCCESS;

    // A mismatch is -15, whose text is "Device Not Available" (intended).
    std::array<char, sdi12CRC::MAX_D_COMMAND_RESPONSE_SIZE> line{};
    std::copy_n(pRespond, size + 1, line.begin());
    sdi12CRC crc;
    return crc.checkCRC(line.data()) ? KD_SUCCESS : KD_ERR_DEVICE_NOT_AVAILABLE;
}
