// The SPI family: device management, configuration, byte and bit transfers, slave mode, block
// transfers, the adapter's flash engine and Microwire memories. The shared shapes come from the
// family kit (family.h); what is here is the family's limits, its payload layouts and its own
// oddities. Every exchange holds the board lock from the request to the end of its data read, so
// the request, status byte, data-fetch message and data of one call never interleave with another
// call's traffic; the argument checks run before the lock is taken.
#include "ControlSPI.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "bit_string.h"
#include "family.h"

using namespace corvel;
namespace spi = corvel::proto::spi;

namespace {

// Only device type 2: the SPI family refuses the I2C-type adapter, while most families take both.
// Intended. Every open calls lock_init (which creates the mutex once per process): the family's
// "lock created" flag was only ever cleared by the close and never set, so it is not kept.
constexpr std::array<int32_t, 1> kSpiTypes = {KD_DEVTYPE_SPI};
constexpr Family kSpi{kSpiTypes};

uint8_t low_byte(int32_t v) {
    return static_cast<uint8_t>(v);
}

// A request answered by a status byte, under the board lock.
int32_t locked_status(int32_t DevIndex, Request& request, MSG_STATE ok) {
    BoardLock hold(DevIndex);
    return request_status(DevIndex, request, ok);
}

// The family's read handshake under one hold of the board lock: the request, its status byte `ok`,
// the data-fetch message 1286, then exactly n raw bytes (no header) into `out`.
int32_t locked_read(int32_t DevIndex, Request& request, MSG_STATE ok, FetchSend fetch, uint8_t* out,
                    std::size_t n, int timeout_ms = spi::kDataTimeoutMs) {
    BoardLock hold(DevIndex);
    if (const int32_t r = request_fetch(DevIndex, request, ok, MSG_KD_REQUEST_SPI_DATAS_REC, fetch); r != 0)
        return r;
    return read_exact(DevIndex, out, n, timeout_ms);
}

// The byte write-reads: the handshake with the given data-fetch message, and the line
// "ReadLen: <n>\r\n" on standard output between that message and the data read, a second time when
// ReadLen is 256. Intended: applications read that line.
int32_t write_read(int32_t DevIndex, Request& request, int32_t fetch, uint8_t* out, uint32_t ReadLen) {
    BoardLock hold(DevIndex);
    if (const int32_t r =
            request_fetch(DevIndex, request, MSG_SPI_WRITE_READ_DATA_OK, fetch, FetchSend::Checked);
        r != 0)
        return r;
    for (int lines = ReadLen == 256 ? 2 : 1; lines > 0; --lines)
        std::printf("ReadLen: %d\r\n", static_cast<int>(ReadLen));
    return read_exact(DevIndex, out, ReadLen, spi::kDataTimeoutMs);
}

// The field checks of both configurations, in their order; only the clock ceiling differs.
template <typename Config>
int32_t check_config(const Config& c, uint32_t max_clock_hz) {
    constexpr int32_t bad = KD_ERR_DATA_FORMAT;
    return Check::ranges()
        .require(c.ControlMode <= spi::kMaxControlMode, bad)
        .require(c.CPOL <= 1, bad)
        .require(c.CPHA <= 1, bad)
        .require(c.MasterMode <= 1, bad)
        .require(c.TranBits >= spi::kMinTranBits && c.TranBits <= spi::kMaxTranBits, bad)
        .require(c.LSBFirst <= 1, bad)
        .require(c.SelPolarity <= 1, bad)
        .require(c.ClockSpeed >= spi::kMinClockHz && c.ClockSpeed <= max_clock_hz, bad);
}

// The configuration as it goes out, in an order that differs from the records' (intended).
template <typename Config>
void put_config(proto::Writer& w, const Config& c) {
    w.u8(c.ControlMode)
        .u8(c.CPOL)
        .u8(c.CPHA)
        .u8(c.MasterMode)
        .u8(c.TranBits)
        .u8(c.LSBFirst)
        .u8(c.SelPolarity)
        .be32(c.ClockSpeed);
}

// The bits of a write string that go out: the string up to its NUL, cut at 822336 bits (102792
// packed bytes) when longer. Intended: a longer string is cut, never refused.
std::span<const uint8_t> write_bits(const uint8_t* text) {
    const std::size_t n = strnlen(reinterpret_cast<const char*>(text), spi::kWriteBitsMax + 1);
    return {text, std::min<std::size_t>(n, spi::kWriteBitsMax)};
}

// A read bit count as it goes out: above 822400 bits (102800 packed bytes) it is lowered to that
// (intended); a negative count is taken as 0, so nothing is asked for or read.
int32_t read_bit_count(int32_t ReadBitsNum) {
    return std::clamp<int32_t>(ReadBitsNum, 0, spi::kReadBitsMax);
}

void put_packed(proto::Writer& w, std::span<const uint8_t> bits) {
    for (std::size_t i = 0; i < bits::packed_size(bits.size()); ++i) w.u8(bits::packed_byte(bits, i));
}

// The read side of the bit transfers: the packed bits come in raw straight into the caller's text
// buffer (which holds nbits + 1 bytes, more than the packed ones) and are laid out as text in place.
// A failed data-fetch message is let pass (intended, unlike the byte reads).
int32_t read_bits(int32_t DevIndex, Request& request, MSG_STATE ok, uint8_t* text, int32_t nbits) {
    const auto n = static_cast<std::size_t>(nbits);
    if (const int32_t r =
            locked_read(DevIndex, request, ok, FetchSend::Unchecked, text, bits::packed_size(n));
        r != 0)
        return r;
    bits::unpack(text, n, text);
    return KD_SUCCESS;
}

// A block total, formed without overflow from the 16-bit arguments.
int64_t block_total(uint16_t BlockSize, uint16_t BlockNum) {
    return int64_t{BlockSize} * BlockNum;
}

// The checks of the block transfers: the total before the pointers (intended), then the channel
// and the block count.
template <typename... Ptr>
int32_t check_block(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, int64_t total, int64_t max,
                    uint16_t BlockNum, const Ptr*... pointers) {
    return Check(kSpi, DevType, DevIndex)
        .require(total <= max, KD_ERR_DATA_FORMAT)
        .not_null(pointers...)
        .channel(SPIIndex, spi::kReadMaxChannel)
        .require(BlockNum != 0, KD_ERR_DATA_FORMAT);
}

// The checks of the Microwire transfers (channels up to 15, below the description's 32: intended)
// and the head of their payloads: channel, memory address and word count.
int32_t check_mw(int32_t DevType, int32_t DevIndex, int32_t MWIndex, const uint16_t* words) {
    return Check(kSpi, DevType, DevIndex).not_null(words).channel(MWIndex, spi::kMwMaxChannel);
}

proto::Writer& mw_head(Request& r, int32_t MWIndex, uint32_t MemAddr, uint16_t Len) {
    return r.payload().be32(static_cast<uint32_t>(MWIndex)).be32(MemAddr).be16(Len);
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t KSI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t KSI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kSpi, DevType, DevIndex);
}

int32_t KSI_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kSpi, DevType, DevIndex);
}

int32_t KSI_ReadBoardInfo(int32_t DevIndex, PKSI_BOARD_INFO pInfo) {
    return read_board_info(DevIndex, pInfo);
}

// ---- Configuration -----------------------------------------------------------------------------

int32_t KSI_InitSPI(int32_t DevType, int32_t DevIndex, PKSI_INIT_CONFIG pInitConfig) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pInitConfig); r != 0) return r;
    if (const int32_t r = check_config(*pInitConfig, spi::kMaxClockHz); r != 0) return r;
    Request request(MSG_KD_REQUEST_SET_SPI_INFORMATION);
    put_config(request.payload(), *pInitConfig);
    return locked_status(DevIndex, request, MSG_SPI_NINT_OK);
}

// The clock ceiling is 36 MHz here, not 42 MHz, and SPIIndex goes out unchecked: both intended.
int32_t KSI_InitSPIEx(int32_t DevType, int32_t DevIndex, PKSI_INIT_CONFIG_EX pInitConfig) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pInitConfig); r != 0) return r;
    if (const int32_t r = check_config(*pInitConfig, spi::kMaxClockHzEx); r != 0) return r;
    Request request(MSG_KD_REQUEST_SET_SPI_INFORMATION_EX);
    put_config(request.payload().u8(pInitConfig->SPIIndex), *pInitConfig);
    return locked_status(DevIndex, request, MSG_SPI_NINT_OK);
}

// ---- Byte transfers ----------------------------------------------------------------------------
// Writes and write-reads take channels up to 15, reads only up to 4: intended.

int32_t KSI_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pData, uint16_t Len) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pData).channel(SPIIndex, spi::kMaxChannel);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_DATAS_TRAN);
    request.payload().bytes(pData, Len).u8(low_byte(SPIIndex));
    return locked_status(DevIndex, request, MSG_SPI_WRITE_DATA_OK);
}

// A data-fetch message that did not go out is -5 here.
int32_t KSI_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pData, uint16_t Len) {
    if (const int32_t r =
            Check(kSpi, DevType, DevIndex).not_null(pData).channel(SPIIndex, spi::kReadMaxChannel);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_DATAS_READ);
    request.payload().be16(Len).u8(low_byte(SPIIndex));
    return locked_read(DevIndex, request, MSG_SPI_READ_DATA_OK, FetchSend::Checked, pData, Len);
}

int32_t KSI_WriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteData,
                           uint16_t WriteLen, uint8_t* pReadData, uint16_t ReadLen) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex)
                              .not_null(pWriteData, pReadData)
                              .channel(SPIIndex, spi::kMaxChannel);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_DATAS_TRAN_REC);
    request.payload().bytes(pWriteData, WriteLen).be16(ReadLen).u8(low_byte(SPIIndex));
    return write_read(DevIndex, request, MSG_KD_REQUEST_SPI_DATAS_REC, pReadData, ReadLen);
}

// More than 102790 write bytes are cut to 102790 without a word (intended); ReadLen is not limited.
// The code 32768 gives the frame its 9-byte header; the data-fetch message 32770 still goes with
// the short header of the bare messages.
int32_t KSI_WriteReadBytesEx(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteData,
                             uint32_t WriteLen, uint8_t* pReadData, uint32_t ReadLen) {
    WriteLen = std::min(WriteLen, spi::kLongWriteMax);
    if (const int32_t r = Check(kSpi, DevType, DevIndex)
                              .not_null(pWriteData, pReadData)
                              .channel(SPIIndex, spi::kMaxChannel);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_REC);
    request.payload().bytes(pWriteData, WriteLen).be32(ReadLen).u8(low_byte(SPIIndex));
    return write_read(DevIndex, request, MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_READ_REQUEST, pReadData, ReadLen);
}

// ---- Bit transfers -----------------------------------------------------------------------------

int32_t KSI_WriteBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteBitStr) {
    if (const int32_t r =
            Check(kSpi, DevType, DevIndex).not_null(pWriteBitStr).channel(SPIIndex, spi::kReadMaxChannel);
        r != 0)
        return r;
    const auto bits = write_bits(pWriteBitStr);
    if (!bits::is_bit_text(bits)) return KD_ERR_DATA_FORMAT;
    Request request(MSG_KD_REQUEST_SPI_BIN_DATAS_TRAN);
    put_packed(request.payload(), bits);
    request.payload().be32(static_cast<uint32_t>(bits.size())).u8(low_byte(SPIIndex));
    return locked_status(DevIndex, request, MSG_SPI_WRITE_DATA_OK);
}

int32_t KSI_ReadBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pReadBitStr,
                     int32_t ReadBitsNum) {
    if (const int32_t r =
            Check(kSpi, DevType, DevIndex).not_null(pReadBitStr).channel(SPIIndex, spi::kReadMaxChannel);
        r != 0)
        return r;
    const int32_t nbits = read_bit_count(ReadBitsNum);
    Request request(MSG_KD_REQUEST_SPI_BIN_DATAS_READ);
    request.payload().be32(static_cast<uint32_t>(nbits)).u8(low_byte(SPIIndex));
    return read_bits(DevIndex, request, MSG_SPI_READ_DATA_OK, pReadBitStr, nbits);
}

int32_t KSI_WriteReadBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteBitStr,
                          uint8_t* pReadBitStr, int32_t ReadBitsNum) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex)
                              .not_null(pWriteBitStr, pReadBitStr)
                              .channel(SPIIndex, spi::kReadMaxChannel);
        r != 0)
        return r;
    const auto bits = write_bits(pWriteBitStr);
    const int32_t nbits = read_bit_count(ReadBitsNum);
    if (!bits::is_bit_text(bits)) return KD_ERR_DATA_FORMAT;
    Request request(MSG_KD_REQUEST_SPI_BIN_TRAN_REC);
    put_packed(request.payload(), bits);
    request.payload()
        .be32(static_cast<uint32_t>(bits.size()))
        .be32(static_cast<uint32_t>(nbits))
        .u8(low_byte(SPIIndex));
    return read_bits(DevIndex, request, MSG_SPI_WRITE_READ_DATA_OK, pReadBitStr, nbits);
}

// ---- Slave mode --------------------------------------------------------------------------------

// Accepted and without effect: 0 at once, no checks, no traffic. Intended.
int32_t KSI_SlaveModeSet(int32_t, int32_t, uint8_t, uint16_t, uint16_t) {
    return KD_SUCCESS;
}

// Accepted and without effect: 0 at once, no checks, no traffic. Intended.
int32_t KSI_SlaveCmdTableSet(int32_t, int32_t, uint8_t*, uint16_t, uint8_t*, uint16_t) {
    return KD_SUCCESS;
}

// One read attempt with the caller's time-out on the current board handle, for up to 10240 bytes.
// Its result (the count, or the negative USB result) goes to *pBytesNum and the call returns 0
// whatever it was: intended, callers look at the count.
int32_t KSI_SlaveReadBytes(int32_t DevType, int32_t DevIndex, uint8_t* pReadData, int32_t* pBytesNum,
                           int32_t WaitTime) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pReadData); r != 0) return r;
    BoardLock hold(DevIndex);
    if (const int32_t r = send_bare(DevIndex, MSG_KD_SLAVE_GET_SPI_DATA); r != 0) return r;
    const int32_t got =
        USB_ReadRaw(DevIndex, pReadData, static_cast<int32_t>(spi::kSlaveReadMax), WaitTime, ReadMode::Fast);
    if (pBytesNum != nullptr) *pBytesNum = got;
    return KD_SUCCESS;
}

// A count below 1 is -1, as a missing pointer. A request that did not go out returns the message
// layer's own failure value, 1, instead of -5: intended, callers test for it.
int32_t KSI_SlaveWriteBytes(int32_t DevType, int32_t DevIndex, uint8_t* pWriteData, int32_t WriteBytesNum) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex)
                              .not_null(pWriteData)
                              .require(WriteBytesNum > 0, KD_ERR_PARAMETER_NULL);
        r != 0)
        return r;
    Request request(MSG_KD_SLAVE_SEND_SPI_DATA);
    request.payload().bytes(pWriteData, static_cast<std::size_t>(WriteBytesNum));
    BoardLock hold(DevIndex);
    if (const uint8_t failed = request.send(DevIndex); failed != 0) return failed;
    return USB_GetStatus(DevIndex) == MSG_SPI_WRITE_DATA_OK ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

// ---- Block transfers ---------------------------------------------------------------------------
// The three total limits differ (102784, 102800, and 102782 for the written part of the
// write-read, whose read part is not limited): intended. A data-fetch message that did not go out
// is let pass (intended).

// The channel comes first in this payload and last in the other two: intended.
int32_t KSI_BlockWriteBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteData,
                            uint16_t BlockSize, uint16_t BlockNum, uint32_t IntervalTime) {
    const int64_t total = block_total(BlockSize, BlockNum);
    if (const int32_t r =
            check_block(DevType, DevIndex, SPIIndex, total, spi::kBlockWriteMax, BlockNum, pWriteData);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_BLOCK_WRITE);
    request.payload()
        .u8(low_byte(SPIIndex))
        .be16(BlockSize)
        .be16(BlockNum)
        .be32(IntervalTime)
        .bytes(pWriteData, static_cast<std::size_t>(total));
    return locked_status(DevIndex, request, MSG_SPI_WRITE_DATA_OK);
}

int32_t KSI_BlockReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pReadData,
                           uint16_t BlockSize, uint16_t BlockNum, uint32_t IntervalTime) {
    const int64_t total = block_total(BlockSize, BlockNum);
    if (const int32_t r =
            check_block(DevType, DevIndex, SPIIndex, total, spi::kBlockReadMax, BlockNum, pReadData);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_BLOCK_READ);
    request.payload().be16(BlockSize).be16(BlockNum).be32(IntervalTime).u8(low_byte(SPIIndex));
    return locked_read(DevIndex, request, MSG_SPI_READ_DATA_OK, FetchSend::Unchecked, pReadData,
                       static_cast<std::size_t>(total));
}

int32_t KSI_BlockWriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteData,
                                uint16_t WriteBlockSize, uint8_t* pReadData, uint16_t ReadBlockSize,
                                uint16_t BlockNum, uint32_t IntervalTime) {
    const int64_t written = block_total(WriteBlockSize, BlockNum);
    if (const int32_t r = check_block(DevType, DevIndex, SPIIndex, written, spi::kBlockWriteReadMax, BlockNum,
                                      pWriteData, pReadData);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SPI_BLOCK_WRITE_READ);
    request.payload()
        .be16(WriteBlockSize)
        .be16(ReadBlockSize)
        .be16(BlockNum)
        .be32(IntervalTime)
        .u8(low_byte(SPIIndex))
        .bytes(pWriteData, static_cast<std::size_t>(written));
    return locked_read(DevIndex, request, MSG_SPI_WRITE_READ_DATA_OK, FetchSend::Unchecked, pReadData,
                       static_cast<std::size_t>(block_total(ReadBlockSize, BlockNum)));
}

// ---- Flash engine ------------------------------------------------------------------------------

// Each command sequence goes as its count byte, as it stands, and at most 7 command bytes, so the
// entries have variable lengths and a count above 7 is followed by the 7 stored bytes: intended.
int32_t KSI_FlashInit(int32_t DevType, int32_t DevIndex, PKSI_FLASH_INIT_CONFIG pFlashInitConfig) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pFlashInitConfig); r != 0) return r;
    const KSI_FLASH_INIT_CONFIG& c = *pFlashInitConfig;
    Request request(MSG_KD_FLASH_INIT);
    proto::Writer& w = request.payload().be32(c.page_size).be32(c.page_num);
    for (const uint8_t* sequence :
         {c.write_enable, c.read_status, c.chip_erase, c.write_data, c.read_data, c.first_cmd})
        w.u8(sequence[0]).bytes(sequence + 1, std::min<std::size_t>(sequence[0], spi::kFlashCommandBytes));
    w.u8(c.busy_bit).u8(c.busy_mask).u8(c.addr_bytes).u8(c.addr_shift);
    return locked_status(DevIndex, request, MSG_SPI_NINT_OK);
}

int32_t KSI_FlashWriteBytes(int32_t DevType, int32_t DevIndex, int32_t PageAddr, uint8_t* pWriteData,
                            uint16_t WriteLen) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pWriteData); r != 0) return r;
    Request request(MSG_KD_FLASH_WRITE_DATA);
    request.payload().be32(static_cast<uint32_t>(PageAddr)).bytes(pWriteData, WriteLen);
    return locked_status(DevIndex, request, MSG_SPI_WRITE_DATA_OK);
}

// The data read waits 2000 ms, not the 5000 ms of the other reads; a data-fetch message that did not
// go out is let pass. Both intended.
int32_t KSI_FlashReadBytes(int32_t DevType, int32_t DevIndex, int32_t PageAddr, uint8_t* pReadData,
                           uint16_t ReadLen) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pReadData); r != 0) return r;
    Request request(MSG_KD_FLASH_READ_DATA);
    request.payload().be32(static_cast<uint32_t>(PageAddr)).be16(0).be16(ReadLen);
    return locked_read(DevIndex, request, MSG_SPI_READ_DATA_OK, FetchSend::Unchecked, pReadData, ReadLen,
                       spi::kFlashReadTimeoutMs);
}

// ---- Microwire ---------------------------------------------------------------------------------
// The description takes channels up to 32, the transfers up to 15: intended.

// The opcodes go interleaved, not in their records' order: intended.
int32_t KSI_MW_Init(int32_t DevType, int32_t DevIndex, PKSI_MW_INIT_CONFIG pInitConfig) {
    if (const int32_t r = Check(kSpi, DevType, DevIndex).not_null(pInitConfig); r != 0) return r;
    const KSI_MW_INIT_CONFIG& c = *pInitConfig;
    if (const int32_t r = Check::ranges().channel(c.MWIndex, spi::kMwInitMaxChannel); r != 0) return r;
    Request request(MSG_KD_REQUEST_MW_INIT);
    request.payload()
        .u8(low_byte(c.CC_CMD.ERASE_ALL))
        .u8(low_byte(c.CC_CMD.EW_DISABLE))
        .u8(low_byte(c.CC_CMD.EW_ENABLE))
        .u8(low_byte(c.CC_CMD.WRITE_ALL))
        .u8(low_byte(c.OP_CMD.CONTROL))
        .u8(low_byte(c.OP_CMD.ERASE))
        .u8(low_byte(c.OP_CMD.READ))
        .u8(low_byte(c.OP_CMD.WRITE))
        .u8(low_byte(c.MWAddr))
        .u8(low_byte(c.MWIndex))
        .be32(static_cast<uint32_t>(c.SIZE))
        .u8(low_byte(c.MW_START))
        .u8(low_byte(c.ORG));
    return locked_status(DevIndex, request, MSG_SPI_NINT_OK);
}

// Words go most significant byte first. More words than one frame holds (51395) cannot go out: -5.
int32_t KSI_MW_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t MWIndex, uint32_t MemAddr,
                          uint16_t* pWriteData, uint16_t Len) {
    if (const int32_t r = check_mw(DevType, DevIndex, MWIndex, pWriteData); r != 0) return r;
    Request request(MSG_KD_REQUEST_MW_WRITE_DATA);
    proto::Writer& w = mw_head(request, MWIndex, MemAddr, Len);
    for (uint16_t i = 0; i < Len; ++i) w.be16(pWriteData[i]);
    return locked_status(DevIndex, request, MSG_SPI_WRITE_DATA_OK);
}

// 2 x Len bytes are asked for, and all 2 x Len words of the caller's buffer are filled: the words
// read, then zeros. The caller's buffer is the receive buffer: once the handshake got this far it
// is zeroed, the raw bytes land in its front, and each word is turned from big-endian in place (a
// word sits on its own two bytes either way). The count read is compared with Len, the word
// count, not with the bytes asked for, so an adapter that sends all 2 x Len bytes gives -6 with
// the words in place. Both intended.
int32_t KSI_MW_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t MWIndex, uint32_t MemAddr,
                         uint16_t* pReadData, uint16_t Len) {
    if (const int32_t r = check_mw(DevType, DevIndex, MWIndex, pReadData); r != 0) return r;
    Request request(MSG_KD_REQUEST_MW_READ_DATA);
    mw_head(request, MWIndex, MemAddr, Len);
    const std::size_t words = 2 * std::size_t{Len};
    auto* bytes = reinterpret_cast<uint8_t*>(pReadData);
    int32_t got = 0;
    {
        BoardLock hold(DevIndex);
        if (const int32_t r = request_fetch(DevIndex, request, MSG_SPI_READ_DATA_OK,
                                            MSG_KD_REQUEST_MW_DATAS_REC, FetchSend::Checked);
            r != 0)
            return r;
        std::memset(bytes, 0, 2 * words);
        if (Len > 0) got = USB_ReadRaw(DevIndex, bytes, static_cast<int32_t>(words), spi::kDataTimeoutMs);
    }
    for (std::size_t i = 0; i < words; ++i) pReadData[i] = proto::get_be16(bytes + 2 * i);
    return got == Len ? KD_SUCCESS : KD_ERR_USB_READ_FAIL;
}
