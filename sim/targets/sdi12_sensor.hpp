// An SDI-12 sensor (protocol version 1.4) on one port of the adapter, at the level of command and
// response lines: the port hands it each command with the parity bits already removed and sends
// back the line it answers (the port adds CR LF).
//
// Commands ("a" its address): "a!" acknowledge -> "a"; "?!" -> "a"; "aI!" identification ->
// "a14CORVEL  SDI12S100SN0001"; "aAb!" changes the address to b -> "b"; "aM!"/"aMC!" (and
// concurrent "aC!"/"aCC!") start the measurement -> "atttn" ("atttnn" for C), values ready ttt = 1
// second later (000 when there are no values); "aM1!".."aM9!" and the like are measurements it has
// none of -> "a0000"; "aD0!".."aD9!" the values of the last measurement, split over D0, D1, ...
// in lines of at most 35 value characters (75 after C), with the CRC after MC or CC; "aR0!"/"aRC0!"
// the continuous values ("aR1!".."aR9!": "a" alone). Anything else, or another address, gets no
// answer.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvel::sim::fw {

// The SDI-12 CRC (CRC-16/ARC: reflected polynomial 0xA001, initial 0) of a line, as the three
// characters 0x40 | bits 15-12, 0x40 | bits 11-6, 0x40 | bits 5-0 appended to it.
std::array<char, 3> sdi12_crc(std::string_view line);

// A value as a sensor shows it: sign and up to 7 significant digits, no trailing zeros ("+3.14").
std::string sdi12_value(double v);

class Sdi12Sensor {
  public:
    static constexpr uint64_t kMeasurementUs = 1000000;  // ttt = 001
    static constexpr std::size_t kMaxValues = 9;

    explicit Sdi12Sensor(char address);

    // The answer to `command` ("!" included) at the sensor's time `now_us`, without CR LF; nothing
    // when the sensor stays silent.
    std::optional<std::string> command(std::string_view command, uint64_t now_us);

    char address() const { return address_; }
    const std::vector<double>& values() const { return values_; }
    const std::vector<double>& continuous() const { return continuous_; }
    void set_values(std::vector<double> v) { values_ = std::move(v); }
    void set_continuous(std::vector<double> v) { continuous_ = std::move(v); }

  private:
    std::optional<std::string> measure(std::string_view rest, uint64_t now_us);
    std::string with_crc(std::string line, bool crc) const;

    char address_;
    std::vector<double> values_{3.14, 2.718, 1.414};
    std::vector<double> continuous_{21.5, 1013.2};
    // The last measurement: its data lines, when they are ready and whether they carry a CRC.
    std::vector<std::string> data_;
    bool measured_ = false;
    uint64_t ready_at_ = 0;
    bool crc_ = false;
};

}  // namespace corvel::sim::fw
