// The family kit: what every device family shares, so that a family unit holds only its limits,
// its payload layouts and its own oddities.
//
//   - device management: the scan/open/close wrappers over the board functions;
//   - the argument checks in their fixed order (device type -15, connection -13, pointers -1,
//     channel and other ranges -4), chained on a Check;
//   - the exchanges: a request followed by a status byte, by a data answer behind a reply header,
//     or by a reply frame; the read handshake (request, status byte, data-fetch message, then the
//     data); the board-information record;
//   - the board lock for the families whose functions take it.
//
// A request is built in place with the message layer's Request (its payload() is a
// corvel::proto::Writer over the calling thread's send buffer), and answers are read with
// corvel::proto::Reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "corvel/protocol.hpp"
#include "usb_driver.h"

namespace corvel {

// ---- Device management ----------------------------------------------------------------------

// What the board-level wrappers of a family need to know about it.
struct Family {
    std::span<const int32_t> types;  // the device types it accepts (others are -15)
    bool open_creates_lock = true;   // its open calls lock_init first (the counter family's does not)

    bool accepts(int32_t type) const;
};

// The scan wrapper, the same in every family.
int32_t family_scan(uint8_t NeedInit);
// -15 for a type the family does not accept; else lock_init (when the family's open creates the
// lock) and KD_OpenBoard.
int32_t family_open(const Family& family, int32_t DevType, int32_t DevIndex);
// -15 for a type the family does not accept; else KD_CloseBoard.
int32_t family_close(const Family& family, int32_t DevType, int32_t DevIndex);

// ---- Argument checks ------------------------------------------------------------------------

// The checks a family function makes before anything goes out, in the order they are chained:
// constructing one checks the device type and then the connection (which closes and re-opens the
// handle, so it runs only for an accepted type); not_null, channel and require each check only
// while nothing failed yet. Converts to the first failing code, or 0.
class Check {
  public:
    Check(const Family& family, int32_t DevType, int32_t DevIndex);

    template <typename... Ptr>
    Check& not_null(const Ptr*... pointers) {
        if (code_ == KD_SUCCESS && ((pointers == nullptr) || ...)) code_ = KD_ERR_PARAMETER_NULL;
        return *this;
    }
    // A channel index above `max` is -4. Only the upper end is limited: negative indices pass, as
    // the adapter has always taken them (the firmware answers for itself).
    Check& channel(int32_t index, int32_t max) { return require(index <= max, KD_ERR_DATA_FORMAT); }
    // Any other condition, with the code to answer when it does not hold.
    Check& require(bool holds, int32_t code) {
        if (code_ == KD_SUCCESS && !holds) code_ = code;
        return *this;
    }

    // Further checks after the device checks passed, for a family function that does something in
    // between (the user-data functions clamp their count before the null check).
    static Check ranges() { return Check(KD_SUCCESS); }

    operator int32_t() const { return code_; }

  private:
    explicit Check(int32_t code) : code_(code) {}
    int32_t code_;
};

// ---- Exchanges ------------------------------------------------------------------------------
// Results are the families' codes: 0, -5 when the request did not go out, -6 when no answer (or
// too short a one) came, -10 when the answer's status was not the expected one.

// Sends the request.
int32_t send(int32_t dev, Request& request);

// Reads the status byte that answers a request already sent, which must be `ok`: 0, or -10. For
// the families that hold the lock around the request and, separately, around its answer.
int32_t read_status(int32_t dev, MSG_STATE ok);

// Sends the request and reads the status byte, which must be `ok`.
int32_t request_status(int32_t dev, Request& request, MSG_STATE ok);
// The same, with one status read attempt on the current board handle and the caller's time-out.
int32_t request_status(int32_t dev, Request& request, MSG_STATE ok, int timeout_ms);

// Sends a short message through the status path (USB_SendStatus: a 7-byte header, packet number
// 0, at most 505 payload bytes, 500 ms), as the data-fetch requests (no payload) and the CAN polls
// (the channel byte) go: 0, or -5.
int32_t send_bare(int32_t dev, int32_t code, std::span<const uint8_t> payload = {});
// The same for a request built in place, for the requests that go through the status path (the
// ADC read): its code and payload, 0 or -5.
int32_t send_bare(int32_t dev, Request& request);

// Whether a data-fetch message that did not go out ends a read handshake with -5 (Checked), or is
// let pass, so that the data read finds nothing and fails by itself (Unchecked). Each family
// function keeps the one it has always had.
enum class FetchSend { Checked, Unchecked };

// The read handshake up to the data: sends the request, reads its status byte (the usual wait, or
// one attempt with `status_timeout_ms`), which must be `ok`, then sends the bare data-fetch message
// `fetch`. The caller then reads the data (read_exact, read_data). 0, -5 when the request (or a
// Checked fetch) did not go out, -10 for another status; no fetch is sent after a failure.
int32_t request_fetch(int32_t dev, Request& request, MSG_STATE ok, int32_t fetch, FetchSend policy,
                      std::optional<int> status_timeout_ms = std::nullopt);

// Reads exactly n raw bytes (no header) straight into `out`: 0, or -6 for any other count. n = 0
// reads nothing (an empty read cannot fall short); an n above INT32_MAX cannot be asked for in
// one transfer and is -6 without a read.
int32_t read_exact(int32_t dev, uint8_t* out, std::size_t n, int timeout_ms,
                   ReadMode mode = ReadMode::Retrying);

// Reads a data answer of `len` payload bytes behind a reply header (skipped unexamined) into
// `out`. Fewer bytes than asked still succeed and copy only what came; less than a header is -6.
int32_t read_data(int32_t dev, uint8_t* out, std::size_t len, int timeout_ms,
                  ReadMode mode = ReadMode::Retrying);
// Sends the request, then reads its data answer as read_data does.
int32_t request_data(int32_t dev, Request& request, uint8_t* out, std::size_t len, int timeout_ms,
                     ReadMode mode = ReadMode::Retrying);

// The reply frame that answers a request.
enum class Reply {
    Packet,  // one 512-byte packet (USB_GetMsg)
    Exact,   // exactly out.size() payload bytes behind the header (USB_GetMsgWithSize)
    Long,    // a header, then the announced payload (USB_GetMsgEx)
    Frame,   // one frame of any length up to 512 bytes, 100 ms a try (USB_GetReplyFrame); the
             // answer's size is then the number of payload bytes stored
};
// Sends the request and receives the reply into `out` (at most out.size() bytes are copied). When
// `ok` is given, a reply status other than it is `wrong_status` (-10 unless the family answers
// otherwise, as the GPIO reads do with -6). The received record is left in *answer when the caller
// wants the status, code or size.
int32_t request_reply(int32_t dev, Request& request, Reply kind, std::span<uint8_t> out,
                      std::optional<MSG_STATE> ok = std::nullopt, S_MSG* answer = nullptr,
                      int32_t wrong_status = KD_ERR_EXECUTE_CMD);

// ---- Board information ----------------------------------------------------------------------

// Board-information record layout shared by the I2C, GPIO, ADC and 1-Wire families.
struct BoardInfoFields {
    uint8_t* product_name;      // 32 bytes
    uint8_t* firmware_version;  // 4
    uint8_t* hardware_version;  // 4
    uint8_t* serial_number;     // 12
};

// Opens the board again, tests the connection, asks for the product information and copies it.
int32_t read_board_info(int32_t DevIndex, const BoardInfoFields& info, bool info_is_null);

// The same for a family's own record type (every family's has these four fields): the body of its
// ReadBoardInfo function.
template <typename Info>
int32_t read_board_info(int32_t DevIndex, Info* pInfo) {
    Info ignored{};
    Info& info = pInfo ? *pInfo : ignored;
    return read_board_info(DevIndex,
                           {info.ProductName, info.FirmwareVersion, info.HardwareVersion, info.SerialNumber},
                           pInfo == nullptr);
}

// ---- The board lock -------------------------------------------------------------------------

// Holds the process-wide board lock for a scope, for the family functions documented to take it
// (lock(index) only locks below index 21). Functions that deliberately leave it held call lock()
// themselves.
class BoardLock {
  public:
    explicit BoardLock(int32_t DevIndex);
    ~BoardLock();
    BoardLock(const BoardLock&) = delete;
    BoardLock& operator=(const BoardLock&) = delete;

  private:
    int32_t index_;
};

}  // namespace corvel
