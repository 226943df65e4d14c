#include "virtual_adapter.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include <fmt/core.h>

#include "output.hpp"

namespace corvel::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSelf = "/proc/self/exe";

bool is_file(const fs::path& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

// Where the drop-in is, or nothing (after an error line) when it cannot be found.
std::optional<fs::path> find_drop_in() {
    if (const char* chosen = std::getenv("CORVEL_SIM_LIBRARY"); chosen != nullptr && *chosen != '\0') {
        if (is_file(chosen)) return fs::absolute(chosen);
        fail(fmt::format("virtual adapter library {} (from CORVEL_SIM_LIBRARY) does not exist", chosen));
        return std::nullopt;
    }
    std::error_code ec;
    fs::path self = fs::read_symlink(kSelf, ec);
    if (!ec) {
        fs::path beside = self.parent_path() / ".." / "sim" / "libusb-0.1.so.4";
        if (is_file(beside)) return beside.lexically_normal();
    }
    if (is_file(CORVEL_SIM_LIBRARY_PATH)) return fs::path(CORVEL_SIM_LIBRARY_PATH);
    fail(
        fmt::format("virtual adapter library not found (looked beside the program and at {}); "
                    "build the corvel_sim_usb target or set CORVEL_SIM_LIBRARY",
                    CORVEL_SIM_LIBRARY_PATH));
    return std::nullopt;
}

// VAR=<value>[<sep><old value>], keeping what the caller had set.
void prepend_env(const char* name, const std::string& value, char sep) {
    const char* old = std::getenv(name);
    std::string combined = (old != nullptr && *old != '\0') ? value + sep + old : value;
    setenv(name, combined.c_str(), 1);
}

#if defined(__SANITIZE_ADDRESS__)
void append_env(const char* name, const std::string& value, char sep) {
    const char* old = std::getenv(name);
    std::string combined = (old != nullptr && *old != '\0') ? std::string(old) + sep + value : value;
    setenv(name, combined.c_str(), 1);
}
#endif

}  // namespace

int enter_virtual_adapter(char** argv, const char* clock) {
    if (std::getenv(kVirtualAdapterMarker) != nullptr) return 0;
    auto drop_in = find_drop_in();
    if (!drop_in) return kExitUsage;

    prepend_env("LD_PRELOAD", drop_in->string(), ':');
#if defined(__SANITIZE_ADDRESS__)
    // ASan insists on being first in the initial library list; the preloaded drop-in comes first.
    append_env("ASAN_OPTIONS", "verify_asan_link_order=0", ':');
#endif
    // The bench the commands expect unless the user chose another, and the command's clock.
    setenv("CORVEL_SIM", kVirtualBench, 0);
    setenv("CORVEL_SIM_CLOCK", clock, 0);
    setenv(kVirtualAdapterMarker, "1", 1);
    execv(kSelf, argv);
    fail(fmt::format("cannot re-run {} on the virtual adapter: {}", kSelf, std::strerror(errno)));
    return kExitFailure;
}

}  // namespace corvel::cli
