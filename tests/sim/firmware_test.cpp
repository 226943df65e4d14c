// The firmware model behind the drop-in where the library does not lead it: frames delimited by
// their transfers, transfers that are no well-formed frame, long and unknown frames, malformed
// commands, and the user-data area's own bounds and persistence.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "ControlI2C.h"
#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "corvel/sim_i2c.hpp"
#include "firmware/nv_store.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Firmware = SimTest;

// A user-data write frame of exactly `length` bytes, its data all `fill`.
Bytes user_data_write(std::size_t length, uint8_t fill) {
    return frame(MSG_KD_WRITE_USER_DATA, be32(0) + Bytes(length - 11, fill));
}

TEST_F(Firmware, AFrameEndsWithAShortOrZeroLengthPacket) {
    // 64 bytes are whole packets: the frame waits for the zero-length packet.
    EXPECT_EQ(write(h, user_data_write(64, 0x11)), 64);
    EXPECT_EQ(read(h, 1).result, -ETIMEDOUT);
    EXPECT_EQ(ask(Bytes{}), Bytes{MSG_MSG_EXECUT_OK});
    // Whole packets in one write and the short rest in the next are one transfer.
    const Bytes request = user_data_write(100, 0x22);
    EXPECT_EQ(write(h, Bytes(request.begin(), request.begin() + 64)), 64);
    EXPECT_EQ(ask(Bytes(request.begin() + 64, request.end())), Bytes{MSG_MSG_EXECUT_OK});
    EXPECT_EQ(user_data(0)[88], 0x22);
    // A zero-length packet with nothing pending is nothing.
    EXPECT_EQ(write(h, {}), 0);
    EXPECT_EQ(read(h, 1).result, -ETIMEDOUT);
    EXPECT_TRUE(unknown_messages(0).empty());
}

TEST_F(Firmware, WhatNoRouteTakesIsNotedAndNotAnswered) {
    const Bytes request = user_data_write(20, 0x33);
    const Bytes oversize = be32(32768) + Bytes{0} + be32(102792) + Bytes(102792, 0);  // 102801 bytes
    const struct {
        std::vector<Bytes> writes;
        uint32_t noted;
    } cases[] = {
        // Split where no packet ends: a header alone, then a payload read as a frame of its own.
        {{Bytes(request.begin(), request.begin() + 7)}, MSG_KD_WRITE_USER_DATA},
        {{Bytes(request.begin() + 7, request.end())}, 0},  // offset 0 as the code
        // Two frames in one transfer: the size field disagrees with the transfer's length.
        {{frame(MSG_KD_READ_USER_DATA, be32(0) + be32(1)) + frame(MSG_KD_REQUEST_PRODUCT_INFO, {})},
         MSG_KD_READ_USER_DATA},
        {{be32(32768) + Bytes{0} + be32(200000) + Bytes{1, 2, 3}}, 32768},
        {{oversize}, 32768},       // longer than the host's send buffer
        {{Bytes{0x01, 0x02}}, 0},  // shorter than a code
        {{Bytes(64, 0x7F), Bytes{}}, 0x7F7F7F7F},
        // Well-formed, with a 9-byte header, or a short one, but no engine knows the code.
        {{frame(32770, Bytes(300, 0x55), 7)}, 32770},
        {{frame(999, {1, 2})}, 999},
    };
    std::vector<uint32_t> noted;
    for (const auto& c : cases) {
        for (const Bytes& w : c.writes) EXPECT_EQ(write(h, w), static_cast<int>(w.size()));
        noted.push_back(c.noted);
        EXPECT_EQ(read(h, 1).result, -ETIMEDOUT) << c.noted;
        EXPECT_EQ(unknown_messages(0), noted);
    }
    EXPECT_EQ(user_data(0), Bytes(2048, 0xFF));
    EXPECT_EQ(ask(request), Bytes{MSG_MSG_EXECUT_OK});  // the adapter carries on
}

TEST_F(Firmware, CommandsOfAnotherLengthOrUnknownGetNoAnswer) {
    EXPECT_TRUE(ask(be32(KD_CMD_GET_CORVEL_VN) + Bytes{0, 0, 0}, 0x01).empty());
    EXPECT_TRUE(ask(be32(77) + be32(0), 0x01).empty());
    EXPECT_EQ(ask(be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(7), 0x01), be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(0));
    EXPECT_EQ(unknown_messages(0), (std::vector<uint32_t>{KD_CMD_GET_CORVEL_VN, 77}));
}

// The library's largest I2C write: 65542 payload bytes, so the 16-bit size field says 6. Its data
// hold, where a frame of that size would end, a well-formed user-data write; the transfer is one
// frame all the same, and the data go to the EEPROM only.
TEST_F(Firmware, DataBeyondA16BitSizeFieldNeverBecomeFrames) {
    ASSERT_EQ(KII_OpenDevice(1, 0, 0), 0);
    KII_INIT_CONFIG config{};
    config.MasterMode = 1;
    config.AddrType = 7;
    config.SubAddrWidth = 1;
    config.ClockSpeed = 100000;
    ASSERT_EQ(KII_InitI2C(1, 0, 0, &config), 0);
    // The frame: header (7), address (2), sub-address (4), channel (1), data. After 13 bytes come
    // the channel byte (0) and the data, which begin with the rest of the planted frame.
    const Bytes planted = frame(MSG_KD_WRITE_USER_DATA, be32(0) + Bytes(16, 0x11));
    ASSERT_EQ(planted[0], 0);
    Bytes data(65535, 0x5A);
    std::copy(planted.begin() + 1, planted.end(), data.begin());
    clear_records();

    EXPECT_EQ(KII_WriteBytes(1, 0, 0, 0xA0, 0x08, data.data(), 65535), 0);
    EXPECT_EQ(corvel::test::frames(), (std::vector<Bytes>{frame(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN,
                                                                Bytes{0, 0xA0, 0, 0, 0, 0x08, 0} + data)}));
    EXPECT_EQ(user_data(0), Bytes(2048, 0xFF));
    EXPECT_TRUE(unknown_messages(0).empty());
    // All 65535 bytes went to the EEPROM's page 0x08: its last eight bytes stay there.
    Bytes eeprom(256, 0xFF);
    std::fill(eeprom.begin() + 8, eeprom.begin() + 16, 0x5A);
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50), eeprom);
    EXPECT_EQ(read(h, 1).result, -ETIMEDOUT);
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
    EXPECT_EQ(
        std::filesystem::file_size(std::filesystem::path(state_dir()) / "CV0000000001" / "userdata.bin"),
        2048u);
    rebuild({adapter("CV0000000001"), adapter("OTHER")});
    const Bytes kept = user_data(0);
    EXPECT_EQ(Bytes(kept.begin() + 5, kept.begin() + 8), (Bytes{0x12, 0x34, 0x56}));
    EXPECT_EQ(user_data(1), Bytes(2048, 0xFF));
    // Another state directory holds other contents; an unusable one keeps them in memory.
    const std::string dir = state_dir();
    set_state_dir(dir + "/elsewhere");
    EXPECT_EQ(user_data(0), Bytes(2048, 0xFF));
    std::ofstream(dir + "/file") << "not a directory";
    set_state_dir(dir + "/file");
    set_user_data(0, 0, {1});
    EXPECT_EQ(user_data(0)[0], 1);
}

// A program of a few bytes into a large image costs those bytes, not the image.
TEST(NvStore, WritesOnlyWhatChanged) {
    constexpr std::size_t kFlash = 4 << 20;
    std::string dir = (std::filesystem::temp_directory_path() / "corvel-nv-XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    const std::string path = dir + "/adapter/flash.bin";
    {
        fw::NvStore flash(kFlash, 0xFF);
        flash.bind(path);
        EXPECT_FALSE(std::filesystem::exists(path));  // nothing changed yet
        flash.write(4096, Bytes(256, 0x00));          // a new file is made whole, once
        EXPECT_EQ(std::filesystem::file_size(path), kFlash);
        const uint64_t made = flash.bytes_written();
        EXPECT_EQ(made, kFlash);
        flash.write(1 << 20, Bytes(256, 0x12));
        auto cells = flash.edit(10, 2);
        cells[0] = 1, cells[1] = 2;
        flash.commit();
        EXPECT_EQ(flash.bytes_written() - made, 258u);

        fw::NvStore again(kFlash, 0xFF);
        again.bind(path);
        EXPECT_EQ(again.bytes(), flash.bytes());
    }
    // A file shorter than the store reads erased beyond its end, and is filled up erased.
    std::filesystem::resize_file(path, 100);
    fw::NvStore shorter(kFlash, 0xFF);
    shorter.bind(path);
    EXPECT_EQ(shorter.read(8, 4), (Bytes{0xFF, 0xFF, 1, 2}));
    EXPECT_EQ(shorter.read(4096, 1), Bytes{0xFF});
    shorter.write(5000, Bytes{7});
    fw::NvStore reread(kFlash, 0xFF);
    reread.bind(path);
    EXPECT_EQ(reread.bytes(), shorter.bytes());
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace corvel::sim::test
