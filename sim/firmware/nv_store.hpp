// Non-volatile memory of an adapter: user data, EEPROM contents, and later flash images of several
// MiB.
//
// A fixed-size block kept in one file of the adapter's state folder. The file is read when the
// store is bound to it; each change then writes only the bytes it changed, in place, through a
// descriptor kept open, so programming one page of a large flash image costs one page of I/O. The
// file is created at the first change, at the store's full size and erased beyond what was
// written; a file shorter than the store reads as erased beyond its end (and is filled up with
// the erased value at the first change). A store bound to no file, or whose folder or file cannot
// be created, keeps its contents in memory only, silently: the model must work on a read-only
// machine too.
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
    ~NvStore();
    NvStore(const NvStore&) = delete;
    NvStore& operator=(const NvStore&) = delete;

    // Binds the store to `path` ("" for memory only) and loads the file's contents; what the file
    // does not cover reads as erased.
    void bind(std::string path);
    const std::string& path() const { return path_; }

    std::size_t size() const { return bytes_.size(); }
    uint8_t erased() const { return erased_; }
    const Bytes& bytes() const { return bytes_; }

    // Copies what fits of `data` at `offset` and writes it through. Returns the count stored.
    std::size_t write(std::size_t offset, std::span<const uint8_t> data);
    // `count` bytes from `offset`; positions past the end read as the erased value.
    Bytes read(std::size_t offset, std::size_t count) const;

    // For edits made a byte at a time: edit() gives the bytes of a range (what of it lies inside
    // the store) and marks them changed; commit() writes every changed range through, once.
    std::span<uint8_t> edit(std::size_t offset, std::size_t count);
    void commit();

    // Bytes written to the file since the store was made: what a change costs.
    uint64_t bytes_written() const { return written_; }

  private:
    void close();
    bool open_file();  // the descriptor to write through, opened (and the file created) on first use
    void write_through(std::size_t offset, std::size_t count);
    bool put(std::size_t offset, std::size_t count);

    uint8_t erased_;
    Bytes bytes_;
    std::string path_;
    int fd_ = -1;
    bool unusable_ = false;      // the folder or the file could not be made: memory only
    std::size_t file_size_ = 0;  // what the open file covers
    std::size_t dirty_begin_ = 0, dirty_end_ = 0;
    uint64_t written_ = 0;
};

}  // namespace corvel::sim::fw
