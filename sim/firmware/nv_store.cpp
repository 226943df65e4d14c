#include "firmware/nv_store.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace corvel::sim::fw {

namespace fs = std::filesystem;

NvStore::~NvStore() {
    close();
}

void NvStore::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    unusable_ = false;
    file_size_ = 0;
}

void NvStore::bind(std::string path) {
    close();
    path_ = std::move(path);
    dirty_begin_ = dirty_end_ = 0;
    std::fill(bytes_.begin(), bytes_.end(), erased_);
    if (path_.empty()) return;
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    // A shorter file covers only its own length; the rest stays erased.
    std::size_t got = 0;
    while (got < bytes_.size()) {
        const ssize_t n = ::pread(fd, bytes_.data() + got, bytes_.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
}

bool NvStore::open_file() {
    if (fd_ >= 0) return true;
    if (path_.empty() || unusable_) return false;
    std::error_code ec;
    fs::create_directories(fs::path(path_).parent_path(), ec);
    fd_ = ec ? -1 : ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    struct stat st {};
    if (fd_ < 0 || ::fstat(fd_, &st) != 0) {
        close();
        unusable_ = true;
        return false;
    }
    file_size_ = static_cast<std::size_t>(st.st_size);
    return true;
}

// Writes bytes_[offset, offset + count) to the same place of the file.
bool NvStore::put(std::size_t offset, std::size_t count) {
    while (count > 0) {
        const ssize_t n = ::pwrite(fd_, bytes_.data() + offset, count, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written_ += static_cast<uint64_t>(n);
        offset += static_cast<std::size_t>(n);
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

void NvStore::write_through(std::size_t offset, std::size_t count) {
    if (count == 0 || !open_file()) return;
    // A new or short file first gets the whole tail it lacks (erased, or as changed in memory),
    // so that nothing past its end reads as the zeros of a hole.
    if (file_size_ < bytes_.size()) {
        if (!put(file_size_, bytes_.size() - file_size_)) return;
        const std::size_t covered = file_size_;
        file_size_ = bytes_.size();
        if (offset >= covered) return;
        count = std::min(count, covered - offset);
    }
    put(offset, count);
}

std::size_t NvStore::write(std::size_t offset, std::span<const uint8_t> data) {
    if (offset >= bytes_.size()) return 0;
    const std::size_t n = std::min(data.size(), bytes_.size() - offset);
    std::copy_n(data.begin(), n, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    write_through(offset, n);
    return n;
}

Bytes NvStore::read(std::size_t offset, std::size_t count) const {
    Bytes out(count, erased_);
    if (offset < bytes_.size()) {
        const std::size_t n = std::min(count, bytes_.size() - offset);
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), n, out.begin());
    }
    return out;
}

std::span<uint8_t> NvStore::edit(std::size_t offset, std::size_t count) {
    if (offset >= bytes_.size()) return {};
    const std::size_t n = std::min(count, bytes_.size() - offset);
    if (n == 0) return {};
    if (dirty_begin_ == dirty_end_) {
        dirty_begin_ = offset;
        dirty_end_ = offset + n;
    } else {
        dirty_begin_ = std::min(dirty_begin_, offset);
        dirty_end_ = std::max(dirty_end_, offset + n);
    }
    return std::span<uint8_t>(bytes_).subspan(offset, n);
}

void NvStore::commit() {
    const std::size_t begin = dirty_begin_, end = dirty_end_;
    dirty_begin_ = dirty_end_ = 0;
    write_through(begin, end - begin);
}

}  // namespace corvel::sim::fw
