#include "firmware/board_engine.hpp"

#include <algorithm>
#include <string>

#include "CorvelBoard.h"
#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

constexpr std::size_t kUserDataSize = proto::i2c::kUserDataSize;

// Appends `text` as exactly `width` bytes: truncated, or zero-padded.
void put_fixed(Bytes& out, const std::string& text, std::size_t width) {
    const std::size_t n = std::min(text.size(), width);
    out.insert(out.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n));
    out.insert(out.end(), width - n, 0);
}

class BoardEngine final : public Engine {
  public:
    explicit BoardEngine(Port& port) : port_(port), user_data_(port.nv(kUserDataFile, kUserDataSize, 0xFF)) {}

    std::span<const Route> routes() const override {
        static constexpr Route kRoutes[] = {
            route<&BoardEngine::product_info>(MSG_KD_REQUEST_PRODUCT_INFO),
            route<&BoardEngine::write_user_data>(MSG_KD_WRITE_USER_DATA, Sizes::at_least(4),
                                                 Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
            // A request too short to hold both numbers gets no answer at all.
            route<&BoardEngine::read_user_data>(MSG_KD_READ_USER_DATA, Sizes::at_least(8), Refusal::none()),
        };
        return kRoutes;
    }
    // On the CAN types the CAN engine answers the frames-waiting command from its FIFOs.
    std::span<const Route> commands() const override {
        static constexpr Route kCommands[] = {
            route<&BoardEngine::version>(KD_CMD_GET_CORVEL_VN),
            route<&BoardEngine::can_frames_waiting>(KD_CMD_CAN_GET_DATA_FLAG),
        };
        const int p = port_.identity().personality;
        const bool can = p == proto::kDevTypeCan1 || p == proto::kDevTypeCan2;
        return std::span<const Route>(kCommands).first(can ? 1 : 2);
    }

  private:
    // Firmware version, hardware version, serial number (12 raw bytes), product name (32 bytes).
    void product_info() {
        const AdapterSpec& id = port_.identity();
        Bytes payload(kFirmwareVersion.begin(), kFirmwareVersion.end());
        payload.insert(payload.end(), kHardwareVersion.begin(), kHardwareVersion.end());
        put_fixed(payload, id.has_serial ? id.serial : std::string(), proto::kBoardSerialSize);
        put_fixed(payload, product_name(id.personality), proto::kProductNameSize);
        port_.reply(MSG_KD_REQUEST_PRODUCT_INFO_FB, MSG_MSG_DATA_TRAN_OK, payload);
    }

    // Offset (4 bytes), then the data. What lies outside the area is not stored, and the write is
    // still acknowledged: the firmware does not report a partial store.
    void write_user_data(Request& r) {
        const uint32_t offset = r.in.be32();
        user_data_.write(offset, r.in.rest());
        port_.status(MSG_MSG_EXECUT_OK);
    }

    // Offset and count (4 bytes each); the answer is exactly `count` raw bytes, those past the end
    // of the area erased (0xFF). The count is bounded by the size of the area; a count of 0 gets
    // no answer at all.
    void read_user_data(Request& r) {
        const uint32_t offset = r.in.be32();
        const std::size_t count = std::min<std::size_t>(r.in.be32(), kUserDataSize);
        if (count == 0) return;
        port_.raw(user_data_.read(offset, count));
    }

    // The command and the firmware version.
    void version(Request& r) {
        Bytes out;
        append_be32(out, r.code);
        out.insert(out.end(), kFirmwareVersion.begin(), kFirmwareVersion.end());
        port_.command_answer(std::move(out));
    }

    // The command and the count of received CAN frames waiting: an adapter without CAN holds none.
    void can_frames_waiting(Request& r) {
        Bytes out;
        append_be32(out, r.code);
        append_be32(out, 0);
        port_.command_answer(std::move(out));
    }

    Port& port_;
    NvStore& user_data_;
};

}  // namespace

std::unique_ptr<Engine> make_board_engine(Port& port) {
    return std::make_unique<BoardEngine>(port);
}

}  // namespace corvel::sim::fw
