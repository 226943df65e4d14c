#include "firmware/board_engine.hpp"

#include <algorithm>
#include <string>

#include "CorvelBoard.h"
#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

constexpr std::size_t kSerialBytes = 12;
constexpr std::size_t kNameBytes = 32;

// Appends `text` as exactly `width` bytes: truncated, or zero-padded.
void put_fixed(Bytes& out, const std::string& text, std::size_t width) {
    const std::size_t n = std::min(text.size(), width);
    out.insert(out.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n));
    out.insert(out.end(), width - n, 0);
}

class BoardEngine final : public Engine {
  public:
    explicit BoardEngine(Port& port) : port_(port), user_data_(port.nv(kUserDataFile, kUserDataSize, 0xFF)) {}

    std::vector<uint32_t> message_codes() const override {
        return {MSG_KD_REQUEST_PRODUCT_INFO, MSG_KD_WRITE_USER_DATA, MSG_KD_READ_USER_DATA};
    }
    std::vector<uint32_t> commands() const override {
        return {KD_CMD_GET_CORVEL_VN, KD_CMD_CAN_GET_DATA_FLAG};
    }

    void on_frame(const Frame& frame) override {
        switch (frame.code) {
            case MSG_KD_REQUEST_PRODUCT_INFO:
                product_info();
                break;
            case MSG_KD_WRITE_USER_DATA:
                write_user_data(frame.payload);
                break;
            case MSG_KD_READ_USER_DATA:
                read_user_data(frame.payload);
                break;
            default:
                break;
        }
    }

    void on_command(uint32_t command, uint32_t) override {
        Bytes out;
        put_be32(out, command);
        if (command == KD_CMD_GET_CORVEL_VN) {
            out.insert(out.end(), kFirmwareVersion.begin(), kFirmwareVersion.end());
        } else {
            // Received CAN frames waiting: the board itself holds none.
            put_be32(out, 0);
        }
        port_.command_answer(std::move(out));
    }

  private:
    // Firmware version, hardware version, serial number (12 raw bytes), product name (32 bytes).
    void product_info() {
        const Identity& id = port_.identity();
        Bytes payload(kFirmwareVersion.begin(), kFirmwareVersion.end());
        payload.insert(payload.end(), kHardwareVersion.begin(), kHardwareVersion.end());
        put_fixed(payload, id.has_serial ? id.serial : std::string(), kSerialBytes);
        put_fixed(payload, product_name(id.personality), kNameBytes);
        port_.reply(MSG_KD_REQUEST_PRODUCT_INFO_FB, MSG_MSG_DATA_TRAN_OK, payload);
    }

    // Offset (4 bytes), then the data. What lies outside the area is not stored, and the write is
    // still acknowledged: the firmware does not report a partial store.
    void write_user_data(const Bytes& payload) {
        if (payload.size() < 4) {
            port_.status(MSG_MSG_EXECUT_ERROR);
            return;
        }
        const uint32_t offset = get_be32(payload.data());
        user_data_.write(offset, std::span<const uint8_t>(payload).subspan(4));
        port_.status(MSG_MSG_EXECUT_OK);
    }

    // Offset and count (4 bytes each); the answer is exactly `count` raw bytes, those past the end
    // of the area erased (0xFF). The count is bounded by the size of the area. A count of 0, or a
    // request too short to hold both numbers, gets no answer at all.
    void read_user_data(const Bytes& payload) {
        if (payload.size() < 8) return;
        const uint32_t offset = get_be32(payload.data());
        const std::size_t count = std::min<std::size_t>(get_be32(payload.data() + 4), kUserDataSize);
        if (count == 0) return;
        port_.raw(user_data_.read(offset, count));
    }

    Port& port_;
    NvStore& user_data_;
};

}  // namespace

std::unique_ptr<Engine> make_board_engine(Port& port) {
    return std::make_unique<BoardEngine>(port);
}

}  // namespace corvel::sim::fw
