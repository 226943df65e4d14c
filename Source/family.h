// Pieces every device family shares: the scan/open/close shape, the board-information exchange and
// the request/answer patterns over the message layer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "CorvelBoard.h"
#include "CorvelMsg.h"

namespace corvel {

// Raw receive buffer of the data answers (7-byte reply header included).
inline constexpr std::size_t kReceiveBufferSize = 10240;
inline constexpr std::size_t kDataHeaderSize = 7;
inline constexpr std::size_t kReceiveDataMax = kReceiveBufferSize - kDataHeaderSize;  // 10233
inline constexpr int32_t kMaxChannelIndex = 20;

// Board-information record layout shared by the I2C, GPIO, ADC and 1-Wire families.
struct BoardInfoFields {
    uint8_t* product_name;      // 32 bytes
    uint8_t* firmware_version;  // 4
    uint8_t* hardware_version;  // 4
    uint8_t* serial_number;     // 12
};

// The open wrapper of a family: -15 for a type it does not accept, else lock_init (unless the
// family's flag says the lock was created) and KD_OpenBoard.
int32_t family_open(std::initializer_list<int32_t> accepted, int32_t DevType, int32_t DevIndex,
                    const int& lock_created);
int32_t family_close(std::initializer_list<int32_t> accepted, int32_t DevType, int32_t DevIndex,
                     int& lock_created);

// Opens the board again, tests the connection, asks for the product information and copies it.
int32_t read_board_info(int32_t DevIndex, const BoardInfoFields& info, bool info_is_null);

// Sends `payload` as message `code` (packet number 0): 0, or -5 when the frame did not go out.
int32_t send_request(int32_t dev, int32_t code, std::span<const uint8_t> payload);

// Sends the request and reads the status byte: 0 when it is `ok`, -5 or -10 otherwise.
int32_t request_status(int32_t dev, int32_t code, std::span<const uint8_t> payload, MSG_STATE ok);
// The same, with one status read attempt on the current board handle and the caller's time-out.
int32_t request_status_timeout(int32_t dev, int32_t code, std::span<const uint8_t> payload, MSG_STATE ok,
                               int timeout_ms);

// A payload assembled in the family's fixed send-side buffer (no allocation per message).
class Payload {
  public:
    explicit Payload(std::span<uint8_t> storage) : buf_(storage) {}
    Payload& u8(uint32_t v);
    Payload& be16(uint32_t v);
    Payload& be32(uint32_t v);
    Payload& bytes(const uint8_t* p, std::size_t n);
    std::span<const uint8_t> view() const { return buf_.first(len_); }

  private:
    bool room(std::size_t n) const;
    std::span<uint8_t> buf_;
    std::size_t len_ = 0;
};

}  // namespace corvel
