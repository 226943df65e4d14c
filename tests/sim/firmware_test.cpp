// The firmware model behind the drop-in: frame reassembly, the board engine, unknown messages and
// non-volatile user data.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

class Firmware : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        h = open();
        ASSERT_NE(h, nullptr);
    }
    Bytes status_after(const Bytes& request) {
        EXPECT_EQ(write(h, request), static_cast<int>(request.size()));
        return read(h, 512).data;
    }
    Bytes read_user(uint32_t offset, uint32_t count) {
        EXPECT_EQ(write(h, frame(MSG_KD_READ_USER_DATA, be32(offset) + be32(count))), 15);
        return read(h, 4096).data;
    }
    usb_dev_handle* h = nullptr;
};

struct InfoCase {
    AdapterSpec adapter;
    const char* serial_bytes;  // 12 bytes as sent
    const char* name;
};

TEST_F(Firmware, ProductInformationPacketByteForByte) {
    AdapterSpec none = adapter("", 4);
    none.has_serial = false;
    const InfoCase cases[] = {
        {adapter("CV0000000001", 1), "CV0000000001", "Corvel I2C Adapter"},
        {adapter("S2", 2), "S2", "Corvel SPI Adapter"},
        {adapter("A-VERY-LONG-SERIAL", 3), "A-VERY-LONG-", "Corvel CAN Adapter"},
        {none, "", "Corvel Dual CAN Adapter"},
    };
    for (const InfoCase& c : cases) {
        SCOPED_TRACE(c.name);
        rebuild({c.adapter});
        h = open();
        Bytes expected =
            be32(MSG_KD_REQUEST_PRODUCT_INFO_FB) + Bytes{MSG_MSG_DATA_TRAN_OK, 0, 52, 2, 1, 0, 5, 1, 0, 0, 0};
        Bytes serial(c.serial_bytes, c.serial_bytes + std::strlen(c.serial_bytes));
        serial.resize(12, 0);
        Bytes name(c.name, c.name + std::strlen(c.name));
        name.resize(32, 0);
        expected = expected + serial + name;
        expected.resize(512, 0);
        EXPECT_EQ(status_after(frame(MSG_KD_REQUEST_PRODUCT_INFO, {})), expected);
    }
}

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
    const Bytes two =
        frame(MSG_KD_READ_USER_DATA, be32(100) + be32(2)) + frame(MSG_KD_REQUEST_PRODUCT_INFO, {});
    EXPECT_EQ(write(h, two), 22);
    EXPECT_EQ(read(h, 8).data, (Bytes{0xAA, 0xBB}));
    EXPECT_EQ(read(h, 512).result, 512);
}

TEST_F(Firmware, LongHeaderFramesAndUnknownCodesGetNoAnswer) {
    // A 9-byte header with a 4-byte length; the frame after it is found where the length says.
    const Bytes longframe = frame(32770, Bytes(300, 0x55), 7);
    ASSERT_EQ(longframe.size(), 309u);
    EXPECT_EQ(write(h, longframe + frame(999, {1, 2}) + frame(MSG_KD_READ_USER_DATA, be32(0) + be32(1))),
              309 + 9 + 15);
    EXPECT_EQ(read(h, 8).data, Bytes{0xFF});
    EXPECT_EQ(read(h, 8).result, -ETIMEDOUT);
    EXPECT_EQ(unknown_messages(0), (std::vector<uint32_t>{32770, 999}));

    // A header announcing more than any host sends: the buffered bytes are dropped.
    EXPECT_EQ(write(h, be32(32768) + Bytes{0} + be32(200000) + Bytes{1, 2, 3}), 12);
    EXPECT_EQ(unknown_messages(0).back(), 32768u);
    EXPECT_EQ(status_after(frame(MSG_KD_WRITE_USER_DATA, be32(0) + Bytes{1})), Bytes{MSG_MSG_EXECUT_OK});
}

TEST_F(Firmware, UserDataStaysInsideTheArea) {
    const struct {
        uint32_t offset;
        Bytes data;
        std::size_t stored;
    } writes[] = {{10, {1, 2, 3}, 3}, {2046, {4, 5, 6, 7}, 2}, {2048, {8}, 0}, {0xFFFFFFFF, {9}, 0}};
    for (const auto& w : writes) {
        EXPECT_EQ(status_after(frame(MSG_KD_WRITE_USER_DATA, be32(w.offset) + w.data)),
                  Bytes{MSG_MSG_EXECUT_OK});
    }
    Bytes expected(2048, 0xFF);
    expected[10] = 1, expected[11] = 2, expected[12] = 3, expected[2046] = 4, expected[2047] = 5;
    EXPECT_EQ(user_data(0), expected);

    EXPECT_EQ(read_user(8, 6), (Bytes{0xFF, 0xFF, 1, 2, 3, 0xFF}));
    EXPECT_EQ(read_user(2045, 5), (Bytes{0xFF, 4, 5, 0xFF, 0xFF}));  // past the end: erased
    EXPECT_EQ(read_user(0, 5000).size(), 2048u);                     // bounded to the area
    EXPECT_EQ(read_user(0x7FFFFFFF, 2), (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(write(h, frame(MSG_KD_READ_USER_DATA, be32(0) + be32(0))), 15);
    EXPECT_EQ(read(h, 8).result, -ETIMEDOUT);  // nothing to send
}

TEST_F(Firmware, UserDataPersistsInTheStateDirectory) {
    set_user_data(0, 5, {0x12, 0x34});
    status_after(frame(MSG_KD_WRITE_USER_DATA, be32(7) + Bytes{0x56}));
    const auto file = std::filesystem::path(dir_) / "CV0000000001" / "userdata.bin";
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_EQ(std::filesystem::file_size(file), 2048u);

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

TEST_F(Firmware, InterruptCommandChannel) {
    const struct {
        Bytes request;
        Bytes answer;  // empty: none
    } cases[] = {
        {be32(KD_CMD_GET_CORVEL_VN) + be32(0x01020304), be32(KD_CMD_GET_CORVEL_VN) + Bytes{2, 1, 0, 5}},
        {be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(0), be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(0)},
        {be32(KD_CMD_GET_CORVEL_VN) + Bytes{0, 0, 0}, {}},
        {be32(77) + be32(0), {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(write(h, c.request, 0x01), static_cast<int>(c.request.size()));
        const Read r = read(h, 8, 0x81);
        if (c.answer.empty()) {
            EXPECT_EQ(r.result, -ETIMEDOUT);
        } else {
            EXPECT_EQ(r.data, c.answer);
        }
    }
    EXPECT_EQ(unknown_messages(0), (std::vector<uint32_t>{KD_CMD_GET_CORVEL_VN, 77}));
    EXPECT_EQ(read(h, 8).result, -ETIMEDOUT);  // nothing went to bulk IN
}

}  // namespace
}  // namespace corvel::sim::test
