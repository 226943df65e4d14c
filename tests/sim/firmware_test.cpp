// The firmware model behind the drop-in where the library does not lead it: frames split or run
// together, long and unknown frames, malformed commands, and the user-data area's own bounds and
// persistence.
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Firmware = SimTest;

TEST_F(Firmware, FramesAreReassembledAcrossWrites) {
    const Bytes request = frame(MSG_KD_WRITE_USER_DATA, be32(100) + Bytes{0xAA, 0xBB});
    // Split inside the header and the payload, with zero-length packets in between.
    EXPECT_EQ(write(h, Bytes(request.begin(), request.begin() + 3)), 3);
    EXPECT_EQ(write(h, {}), 0);
    EXPECT_EQ(read(h, 1).result, -ETIMEDOUT);
    EXPECT_EQ(write(h, Bytes(request.begin() + 3, request.begin() + 9)), 6);
    EXPECT_EQ(write(h, Bytes(request.begin() + 9, request.end())), 4);
    EXPECT_EQ(read(h, 8).data, Bytes{MSG_MSG_EXECUT_OK});
    // Several frames in one write are answered in order.
    EXPECT_EQ(
        write(h, frame(MSG_KD_READ_USER_DATA, be32(100) + be32(2)) + frame(MSG_KD_REQUEST_PRODUCT_INFO, {})),
        22);
    EXPECT_EQ(read(h, 8).data, (Bytes{0xAA, 0xBB}));
    EXPECT_EQ(read(h, 512).result, 512);
}

TEST_F(Firmware, LongHeaderFramesAndUnknownCodesAndCommandsGetNoAnswer) {
    // A 9-byte header with a 4-byte length; the frame after it is found where the length says.
    const Bytes longframe = frame(32770, Bytes(300, 0x55), 7);
    EXPECT_EQ(write(h, longframe + frame(999, {1, 2}) + frame(MSG_KD_READ_USER_DATA, be32(0) + be32(1))),
              309 + 9 + 15);
    EXPECT_EQ(read(h, 8).data, Bytes{0xFF});
    EXPECT_EQ(read(h, 8).result, -ETIMEDOUT);
    // A header announcing more than any host sends: the buffered bytes are dropped.
    EXPECT_EQ(write(h, be32(32768) + Bytes{0} + be32(200000) + Bytes{1, 2, 3}), 12);
    EXPECT_EQ(ask(frame(MSG_KD_WRITE_USER_DATA, be32(0) + Bytes{1})), Bytes{MSG_MSG_EXECUT_OK});
    // Commands on the interrupt endpoint: a short one and an unknown one.
    EXPECT_TRUE(ask(be32(KD_CMD_GET_CORVEL_VN) + Bytes{0, 0, 0}, 0x01).empty());
    EXPECT_TRUE(ask(be32(77) + be32(0), 0x01).empty());
    EXPECT_EQ(ask(be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(7), 0x01), be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(0));
    EXPECT_EQ(unknown_messages(0), (std::vector<uint32_t>{32770, 999, 32768, KD_CMD_GET_CORVEL_VN, 77}));
}

// The library clamps offsets and counts to the area; the firmware bounds them on its own.
TEST_F(Firmware, UserDataStaysInsideTheArea) {
    const auto read_user = [&](uint32_t offset, uint32_t count) {
        return ask(MSG_KD_READ_USER_DATA, be32(offset) + be32(count));
    };
    for (const auto& [offset, data] : std::vector<std::pair<uint32_t, Bytes>>{
             {10, {1, 2, 3}}, {2046, {4, 5, 6, 7}}, {2048, {8}}, {0xFFFFFFFF, {9}}}) {
        EXPECT_EQ(ask(frame(MSG_KD_WRITE_USER_DATA, be32(offset) + data)), Bytes{MSG_MSG_EXECUT_OK});
    }
    Bytes expected(2048, 0xFF);
    expected[10] = 1, expected[11] = 2, expected[12] = 3, expected[2046] = 4, expected[2047] = 5;
    EXPECT_EQ(user_data(0), expected);
    EXPECT_EQ(read_user(2045, 5), (Bytes{0xFF, 4, 5, 0xFF, 0xFF}));  // past the end: erased
    EXPECT_EQ(read_user(0, 5000).size(), 2048u);
    EXPECT_EQ(read_user(0x7FFFFFFF, 2), (Bytes{0xFF, 0xFF}));
    EXPECT_TRUE(read_user(0, 0).empty());
}

TEST_F(Firmware, UserDataPersistsInTheStateDirectory) {
    set_user_data(0, 5, {0x12, 0x34});
    ask(frame(MSG_KD_WRITE_USER_DATA, be32(7) + Bytes{0x56}));
    EXPECT_EQ(std::filesystem::file_size(std::filesystem::path(dir_) / "CV0000000001" / "userdata.bin"),
              2048u);
    rebuild({adapter("CV0000000001"), adapter("OTHER")});
    const Bytes kept = user_data(0);
    EXPECT_EQ(Bytes(kept.begin() + 5, kept.begin() + 8), (Bytes{0x12, 0x34, 0x56}));
    EXPECT_EQ(user_data(1), Bytes(2048, 0xFF));
    // Another state directory holds other contents; an unusable one keeps them in memory.
    set_state_dir(dir_ + "/elsewhere");
    EXPECT_EQ(user_data(0), Bytes(2048, 0xFF));
    std::ofstream(dir_ + "/file") << "not a directory";
    set_state_dir(dir_ + "/file");
    set_user_data(0, 0, {1});
    EXPECT_EQ(user_data(0)[0], 1);
}

}  // namespace
}  // namespace corvel::sim::test
