// A PMBus power supply with two outputs (pages 0 and 1) on an SMBus.
//
// It decodes the bytes of its I2C side as PMBus: after START with the write bit the first byte is
// the command code (0xFE or 0xFF and a second byte for an extended command), then the command's
// data: none (send byte), one byte, a word (low byte first) or a block (a count, then that many
// bytes). One byte more is a PEC, checked against the CRC-8 of everything the packet carried, its
// address byte included. A write takes effect when its packet ends: at the STOP, or at a repeated
// START (the write half of a process call); a group command's packets therefore all act at the one
// STOP that ends it. A repeated START with the read bit answers the command last written: its bytes,
// then their PEC, then 0xFF.
//
// Refused and recorded in STATUS_CML, with SMBALERT# raised: an unknown command (its code is not
// acknowledged: invalid command), a write to a read-only command (its first data byte: invalid
// command), a byte value the command does not take, a block count of 0 or above 32 or more bytes
// than the command has (invalid data), and a PEC that does not match (that byte: PEC failed).
//
// Faults (VOUT over-voltage, IOUT over-current, over-temperature) latch the output off and raise
// SMBALERT#; the output comes back when it is commanded off and on again (OPERATION or CONTROL).
// CLEAR_FAULTS clears every status register of both pages and releases SMBALERT#; a condition
// still present sets its fault again at once. An Alert Response Address read releases SMBALERT#
// and leaves the status registers as they are.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "corvel/sim_smbus.hpp"
#include "targets/i2c_target.hpp"
#include "targets/smbus_device.hpp"

namespace corvel::sim::fw {

namespace pmbus {
// Command codes.
inline constexpr uint8_t kPage = 0x00;
inline constexpr uint8_t kOperation = 0x01;
inline constexpr uint8_t kOnOffConfig = 0x02;
inline constexpr uint8_t kClearFaults = 0x03;
inline constexpr uint8_t kCapability = 0x19;
inline constexpr uint8_t kQuery = 0x1A;
inline constexpr uint8_t kVoutMode = 0x20;
inline constexpr uint8_t kVoutCommand = 0x21;
inline constexpr uint8_t kVoutOvFaultLimit = 0x40;
inline constexpr uint8_t kIoutOcFaultLimit = 0x46;
inline constexpr uint8_t kOtFaultLimit = 0x4F;
inline constexpr uint8_t kStatusByte = 0x78;
inline constexpr uint8_t kStatusWord = 0x79;
inline constexpr uint8_t kStatusVout = 0x7A;
inline constexpr uint8_t kStatusIout = 0x7B;
inline constexpr uint8_t kStatusTemperature = 0x7D;
inline constexpr uint8_t kStatusCml = 0x7E;
inline constexpr uint8_t kReadVout = 0x8B;
inline constexpr uint8_t kReadIout = 0x8C;
inline constexpr uint8_t kReadTemperature1 = 0x8D;
inline constexpr uint8_t kPmbusRevision = 0x98;
inline constexpr uint8_t kMfrId = 0x99;
inline constexpr uint8_t kMfrModel = 0x9A;
inline constexpr uint8_t kMfrRevision = 0x9B;
inline constexpr uint8_t kMfrExtended = 0xFE;  // a manufacturer command code follows
inline constexpr uint8_t kPmbusExtended = 0xFF;
inline constexpr uint8_t kMfrRegister = 0x10;  // 0xFE 0x10: a 16-bit manufacturer register

// STATUS_WORD: the low byte is STATUS_BYTE.
inline constexpr uint16_t kWordNoneOfTheAbove = 1u << 0;
inline constexpr uint16_t kWordCml = 1u << 1;
inline constexpr uint16_t kWordTemperature = 1u << 2;
inline constexpr uint16_t kWordVinUv = 1u << 3;
inline constexpr uint16_t kWordIoutOc = 1u << 4;
inline constexpr uint16_t kWordVoutOv = 1u << 5;
inline constexpr uint16_t kWordOff = 1u << 6;
inline constexpr uint16_t kWordBusy = 1u << 7;
inline constexpr uint16_t kWordUnknown = 1u << 8;
inline constexpr uint16_t kWordOther = 1u << 9;
inline constexpr uint16_t kWordFans = 1u << 10;
inline constexpr uint16_t kWordPowerGoodNot = 1u << 11;
inline constexpr uint16_t kWordMfr = 1u << 12;
inline constexpr uint16_t kWordInput = 1u << 13;
inline constexpr uint16_t kWordIout = 1u << 14;
inline constexpr uint16_t kWordVout = 1u << 15;

// The fault bit of STATUS_VOUT, STATUS_IOUT and STATUS_TEMPERATURE (OV, OC and OT fault).
inline constexpr uint8_t kFault = 0x80;
// STATUS_CML.
inline constexpr uint8_t kCmlInvalidCommand = 0x80;
inline constexpr uint8_t kCmlInvalidData = 0x40;
inline constexpr uint8_t kCmlPecFailed = 0x20;
}  // namespace pmbus

class PmbusSupply final : public I2cTarget, public SmbusDevice {
  public:
    static constexpr int kPages = 2;
    static constexpr uint8_t kVoutMode = 0x17;  // linear, exponent -9
    static constexpr uint8_t kOperationOn = 0x80;
    static constexpr uint8_t kOnOffConfigDefault = 0x1E;  // OPERATION and CONTROL (active high)

    struct Output {
        double vout;         // volts
        double load;         // amperes
        double temperature;  // degrees Celsius
    };

    // `addr7`: where it sits on its bus, which its PEC covers. `outputs`: pages 0 and 1 at power-up.
    PmbusSupply(uint8_t addr7, const std::array<Output, kPages>& outputs);
    // The power-up outputs of the supply at 0x40 (even) or 0x41 (odd).
    static std::array<Output, kPages> defaults_for(uint8_t addr7);

    // I2cTarget
    bool start(bool read) override;
    bool write(uint8_t byte) override;
    uint8_t read() override;
    void stop() override;

    // SmbusDevice
    bool alerting() const override { return alert_; }
    void alert_answered() override { alert_ = false; }
    void control(bool high) override;

    // For the control API; a page outside 0..1 is ignored.
    PmbusSupplyState state() const;
    void set_load(int page, double amps);
    void set_temperature(int page, double celsius);

  private:
    enum class Format : uint8_t { SendByte, Byte, Word, Block, Query };
    struct Command {
        uint8_t code;
        Format format;
        bool readable;
        bool writable;
        bool linear;  // a number in LINEAR11 or LINEAR16 (what QUERY reports)
    };
    struct Page {
        uint8_t operation = kOperationOn;
        uint8_t on_off_config = kOnOffConfigDefault;
        uint16_t vout_command = 0;  // LINEAR16
        uint16_t vout_ov_limit = 0;
        uint16_t iout_oc_limit = 0;  // LINEAR11
        uint16_t ot_limit = 0;
        double load = 0;
        double temperature = 0;
        uint8_t status_vout = 0;
        uint8_t status_iout = 0;
        uint8_t status_temperature = 0;
        bool latched_off = false;
        bool on = false;
    };
    static constexpr std::size_t kPacketMax = 2 + 1 + 32;  // command (2 when extended), count, data

    static const Command* find(uint8_t ext, uint8_t code);
    bool commanded_on(const Page& p) const;
    void update(Page& p);
    void fault(uint8_t& reg, uint8_t bit);
    void cml(uint8_t bit);
    uint16_t status_word(const Page& p) const;

    // The packet being written since the last START with the write bit.
    void begin_packet();
    std::size_t header_size() const { return ext_ != 0 ? 2 : 1; }
    // Data bytes the command takes; for a block, known once its count has arrived.
    std::size_t data_size() const;
    bool accept_data(uint8_t byte, std::size_t index);
    // A STOP or a repeated START ends the packet: a complete write acts.
    void end_packet(bool read_follows);
    void execute();
    void prepare_reply();
    void put_word(uint16_t w);
    void put_block(const std::string& s);

    uint8_t addr8_;
    std::array<Page, kPages> pages_{};
    uint8_t page_ = 0;
    uint8_t status_cml_ = 0;
    bool alert_ = false;
    bool control_high_ = true;
    uint16_t mfr_register_ = 0;
    std::string mfr_id_ = "CORVEL";
    std::string mfr_model_ = "SIM-PSU";
    std::string mfr_revision_ = "1.0";

    // The transaction on the bus.
    bool in_transaction_ = false;
    bool packet_open_ = false;  // a START with the write bit began a packet that has not ended
    uint8_t crc_ = 0;           // CRC-8 of the packet so far, address bytes included
    std::array<uint8_t, kPacketMax> packet_{};
    std::size_t written_ = 0;
    uint8_t ext_ = 0;  // 0xFE or 0xFF for an extended command
    const Command* command_ = nullptr;
    bool refused_ = false;  // a byte was not acknowledged: the rest of the packet is ignored
    bool pec_seen_ = false;
    std::array<uint8_t, kPacketMax> reply_{};
    std::size_t reply_size_ = 0;
    std::size_t reply_taken_ = 0;
    bool reply_pec_ = false;  // after the reply's bytes comes their PEC
};

}  // namespace corvel::sim::fw
