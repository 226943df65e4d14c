// Non-volatile memory of an adapter (user data now; EEPROM contents and flash images later).
//
// A fixed-size block kept in one file of the adapter's state folder. The file is read when the
// store is bound to it; every change is written through at once (to a temporary file that is then
// renamed over the old one, so a crash never leaves half a file). A store bound to no file, or
// whose folder cannot be created, keeps its contents in memory only, silently: the model must work
// on a read-only machine too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "firmware/bytes.hpp"

namespace corvel::sim::fw {

class NvStore {
  public:
    NvStore(std::size_t size, uint8_t erased) : erased_(erased), bytes_(size, erased) {}

    // Binds the store to `path` ("" for memory only) and loads the file's contents; what the file
    // does not cover reads as erased.
    void bind(std::string path);
    const std::string& path() const { return path_; }

    std::size_t size() const { return bytes_.size(); }
    uint8_t erased() const { return erased_; }
    const Bytes& bytes() const { return bytes_; }

    // Copies what fits of `data` at `offset` and writes through. Returns the count stored.
    std::size_t write(std::size_t offset, std::span<const uint8_t> data);
    // `count` bytes from `offset`; positions past the end read as the erased value.
    Bytes read(std::size_t offset, std::size_t count) const;

    // For larger edits: change mutable_bytes(), then commit() once.
    Bytes& mutable_bytes() { return bytes_; }
    void commit();

  private:
    uint8_t erased_;
    Bytes bytes_;
    std::string path_;
};

}  // namespace corvel::sim::fw
