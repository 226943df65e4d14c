// The self-test aborts through assert() in every build, release builds included.
#undef NDEBUG
#include "sdi12crc.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace {

constexpr std::size_t kMax = sdi12CRC::MAX_D_COMMAND_RESPONSE_SIZE;
constexpr uint16_t kPolynomial = 0xA001;  // 0x8005 reflected
constexpr std::size_t kCrcChars = sdi12CRC::ASCII_CRC_SIZE - 1;

// The length of a line in a buffer of kMax bytes: at most kMax - 1, so that a terminator always fits.
std::size_t length(const char* s) {
    return strnlen(s, kMax - 1);
}

// Copies a line into a buffer of kMax bytes, cut to fit, terminated.
void copy(char* to, const char* from) {
    const std::size_t n = length(from);
    std::memmove(to, from, n);
    to[n] = sdi12CRC::END_STRING;
}

// Appends n characters to the line in a buffer of kMax bytes, as many as fit.
void append(char* to, const char* from, std::size_t n) {
    const std::size_t at = length(to);
    const std::size_t fit = std::min(n, kMax - 1 - at);
    std::memmove(to + at, from, fit);
    to[at + fit] = sdi12CRC::END_STRING;
}

}  // namespace

void sdi12CRC::computeCRC() {
    const char* s = responseToDCommandWithoutCRC.data();
    uint16_t crc = 0;
    for (std::size_t i = 0, n = length(s); i < n; ++i) {
        crc ^= static_cast<unsigned char>(s[i]);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) ? static_cast<uint16_t>(crc >> 1 ^ kPolynomial) : crc >> 1;
    }
    CRC = crc;
}

// Each character is 0x40 with six bits of the CRC (the first only four): printable, never CR or LF.
void sdi12CRC::CRCToAscii() {
    asciiCRC[0] = static_cast<char>(0x40 | CRC >> 12);
    asciiCRC[1] = static_cast<char>(0x40 | (CRC >> 6 & 0x3F));
    asciiCRC[2] = static_cast<char>(0x40 | (CRC & 0x3F));
    asciiCRC[3] = END_STRING;
}

// Intended: the masks are 0x2FC0 and 0xBF, not the 0x0FC0 and 0x3F of the six bits each character
// carries. Characters from 0x40 to 0x7F, the only ones CRCToAscii makes, decode the same either way.
void sdi12CRC::asciiToCRC() {
    if (strnlen(asciiCRC.data(), asciiCRC.size()) != kCrcChars) {
        CRC = 0;
        return;
    }
    const auto c = [&](int i) { return static_cast<unsigned>(static_cast<unsigned char>(asciiCRC[i])); };
    CRC = static_cast<uint16_t>(c(0) << 12 | ((c(1) * 64) & 0x2FC0) | (c(2) & 0xBF));
}

void sdi12CRC::extractAsciiCRC() {
    const char* s = responseToDCommandWithCRC.data();
    const std::size_t n = length(s);
    if (n < kCrcChars) {
        asciiCRC[0] = END_STRING;
        return;
    }
    std::memcpy(asciiCRC.data(), s + n - kCrcChars, kCrcChars);
    asciiCRC[kCrcChars] = END_STRING;
}

void sdi12CRC::appendAsciiCRC() {
    copy(responseToDCommandWithCRC.data(), responseToDCommandWithoutCRC.data());
    append(responseToDCommandWithCRC.data(), asciiCRC.data(), strnlen(asciiCRC.data(), kCrcChars));
}

void sdi12CRC::removeAsciiCRC(char* s) {
    const std::size_t n = length(s);
    if (n > kCrcChars - 1) s[n - kCrcChars] = END_STRING;
}

bool sdi12CRC::hasCarriageReturnLineFeed(const char* s) {
    const std::size_t n = length(s);
    return n >= 2 && s[n - 2] == CARRIAGE_RETURN && s[n - 1] == LINE_FEED;
}

void sdi12CRC::removeCarriageReturnLineFeed(char* s) {
    if (hasCarriageReturnLineFeed(s)) s[length(s) - 2] = END_STRING;
}

void sdi12CRC::appendCarriageReturnLineFeed(char* s) {
    const char crlf[] = {CARRIAGE_RETURN, LINE_FEED};
    if (length(s) + sizeof crlf < kMax) append(s, crlf, sizeof crlf);
}

void sdi12CRC::appendCRC(const char* line) {
    char* plain = responseToDCommandWithoutCRC.data();
    copy(plain, line);
    const bool crlf = hasCarriageReturnLineFeed(plain);
    if (crlf) removeCarriageReturnLineFeed(plain);
    computeCRC();
    CRCToAscii();
    appendAsciiCRC();
    if (crlf) appendCarriageReturnLineFeed(responseToDCommandWithCRC.data());
}

bool sdi12CRC::checkCRC(const char* line) {
    char* with = responseToDCommandWithCRC.data();
    copy(with, line);
    removeCarriageReturnLineFeed(with);
    extractAsciiCRC();
    asciiToCRC();
    const uint16_t received = CRC;
    removeAsciiCRC(with);
    copy(responseToDCommandWithoutCRC.data(), with);
    computeCRC();
    copy(with, line);
    return received == CRC;
}

void sdi12CRC::test() {
    // Data responses and the lines the sensor sends for them, CRC appended.
    static constexpr struct {
        const char* line;
        const char* with_crc;
    } kAppended[] = {
        {"", "@@@"},
        {"0+3.14", "0+3.14OqZ"},
        {"0+3.14+2.718+1.414", "0+3.14+2.718+1.414Ipz"},
        {"0+1.11+2.22+3.33+4.44+5.55+6.66", "0+1.11+2.22+3.33+4.44+5.55+6.66I]q"},
        {"0+3.14\r\n", "0+3.14OqZ\r\n"},
    };
    static constexpr const char* kChecked[] = {
        "0+3.14OqZ",
        "0+3.14+2.718+1.414Ipz",
        "0+1.11+2.22+3.33+4.44+5.55+6.66I]q",
        "0+3.14+2.718IWO",
        "0+2.718Gbc",
        "0+1.414GtW",
    };
    char CRCTest[kMax];
    for (const auto& c : kAppended) {
        appendCRC(c.line);
        copy(CRCTest, responseToDCommandWithCRC.data());
        assert(std::strcmp(CRCTest, c.with_crc) == 0 && checkCRC(CRCTest));
    }
    for (const char* line : kChecked) {
        copy(CRCTest, line);
        assert(checkCRC(CRCTest));
        append(CRCTest, "\r\n", 2);
        assert(checkCRC(CRCTest));
    }
}
