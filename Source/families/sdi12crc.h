// The SDI-12 CRC: the CRC-16 (reflected polynomial 0xA001, initial value 0) that sensors append to
// a data response as three printable characters, before the line's CR LF. Internal to the library
// (not exported): the SDI-12 family checks responses with it, and test() is its self-test.
//
// The string arguments of the members are NUL-terminated lines in buffers of
// MAX_D_COMMAND_RESPONSE_SIZE bytes, as the class's own buffers are: every operation reads at most
// that many bytes and never writes past that size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

class sdi12CRC {
  public:
    static constexpr std::size_t ASCII_CRC_SIZE = 4;  // three characters and a terminator
    static constexpr char CARRIAGE_RETURN = 13;
    static constexpr char LINE_FEED = 10;
    static constexpr char END_STRING = 0;
    static constexpr std::size_t MAX_D_COMMAND_RESPONSE_SIZE = 512;

    // The buffers are members (RAII): a fresh object holds three empty strings and a CRC of 0, and
    // nothing is allocated or freed.
    sdi12CRC() = default;

    // Builds responseToDCommandWithCRC: the line with its CRC characters appended (before the CR LF,
    // which is kept at the end when the line has one).
    void appendCRC(const char* line);
    // Whether the line's three CRC characters (before a trailing CR LF, if any) match its text.
    // responseToDCommandWithCRC is left holding the line as given.
    bool checkCRC(const char* line);

    // Steps on the members.
    void computeCRC();       // CRC over responseToDCommandWithoutCRC
    void CRCToAscii();       // CRC -> asciiCRC
    void asciiToCRC();       // asciiCRC -> CRC (0 unless asciiCRC holds exactly 3 characters)
    void extractAsciiCRC();  // the last 3 characters of responseToDCommandWithCRC -> asciiCRC
    void appendAsciiCRC();   // responseToDCommandWithCRC = responseToDCommandWithoutCRC + asciiCRC

    // String operations.
    void removeAsciiCRC(char* s);  // cuts the last 3 characters of a string longer than 2
    bool hasCarriageReturnLineFeed(const char* s);
    void removeCarriageReturnLineFeed(char* s);  // cuts a trailing CR LF
    void appendCarriageReturnLineFeed(char* s);  // appends CR LF when there is room

    // Runs the known responses through appendCRC and checkCRC; a failure aborts by assertion.
    void test();

    std::array<char, MAX_D_COMMAND_RESPONSE_SIZE> responseToDCommandWithoutCRC{};
    std::array<char, MAX_D_COMMAND_RESPONSE_SIZE> responseToDCommandWithCRC{};
    std::array<char, ASCII_CRC_SIZE> asciiCRC{};
    uint16_t CRC = 0;
};
