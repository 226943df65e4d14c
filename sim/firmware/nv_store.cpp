#include "firmware/nv_store.hpp"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace corvel::sim::fw {

namespace fs = std::filesystem;

void NvStore::bind(std::string path) {
    path_ = std::move(path);
    std::fill(bytes_.begin(), bytes_.end(), erased_);
    if (path_.empty()) return;
    std::ifstream in(path_, std::ios::binary);
    if (!in) return;
    in.read(reinterpret_cast<char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
    // A shorter file covers only its own length; the rest stays erased.
}

std::size_t NvStore::write(std::size_t offset, std::span<const uint8_t> data) {
    if (offset >= bytes_.size()) return 0;
    const std::size_t n = std::min(data.size(), bytes_.size() - offset);
    std::copy_n(data.begin(), n, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    if (n > 0) commit();
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

void NvStore::commit() {
    if (path_.empty()) return;
    std::error_code ec;
    const fs::path target(path_);
    fs::create_directories(target.parent_path(), ec);
    if (ec) return;
    const fs::path temp = target.string() + ".tmp" + std::to_string(getpid());
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) return;
        out.write(reinterpret_cast<const char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
        if (!out) {
            out.close();
            fs::remove(temp, ec);
            return;
        }
    }
    fs::rename(temp, target, ec);
    if (ec) fs::remove(temp, ec);
}

}  // namespace corvel::sim::fw
