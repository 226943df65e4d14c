// A part on one of the adapter's I2C buses, as the bus master sees it.
//
// The engine drives a part condition by condition: a START (or repeated START) addressed to it,
// the bytes the master writes, the bytes it reads, and the STOP that ends the transaction. The part
// answers with ACK (true) or NACK (false) where the bus has an acknowledge bit. Parts are found by
// address on their channel; a part never sees conditions addressed to another.
#pragma once

#include <cstdint>

namespace corvel::sim::fw {

class I2cTarget {
  public:
    virtual ~I2cTarget() = default;

    // The part's address went out with the R/W bit `read`; false is a NACK of the address.
    virtual bool start(bool read) = 0;
    // A byte from the master, after START with the write bit; false is a NACK of that byte.
    virtual bool write(uint8_t byte) = 0;
    // A byte to the master, after START with the read bit.
    virtual uint8_t read() = 0;
    // The end of the transaction.
    virtual void stop() {}
};

}  // namespace corvel::sim::fw
