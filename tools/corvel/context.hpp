// State shared by every subcommand of the corvel tool.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace corvel::cli {

struct Context {
    bool sim = false;          // --sim: run on the virtual adapter instead of USB hardware
    std::function<int()> run;  // body of the chosen subcommand; returns the exit status
    // The virtual adapter's clock when the user has not set CORVEL_SIM_CLOCK: "virtual" lets waits on
    // busy parts cost no wall time; commands that watch or pace a bus for the user choose "real".
    const char* sim_clock = "virtual";
};

// One function per subcommand group; each adds its subcommands to `app`. A subcommand's callback
// only stores its body in `ctx.run`: main() runs it once the --sim re-exec has been decided, so
// that nothing reaches the library before the drop-in libusb is in place.
void add_board_commands(CLI::App& app, Context& ctx);
void add_info_commands(CLI::App& app, Context& ctx);
void add_i2c_commands(CLI::App& app, Context& ctx);
void add_spi_commands(CLI::App& app, Context& ctx);
void add_flash_commands(CLI::App& app, Context& ctx);
void add_can_commands(CLI::App& app, Context& ctx);
void add_gpio_commands(CLI::App& app, Context& ctx);
void add_adc_commands(CLI::App& app, Context& ctx);
void add_pwm_counter_commands(CLI::App& app, Context& ctx);
void add_smbus_commands(CLI::App& app, Context& ctx);        // smbus and pmbus
void add_single_wire_commands(CLI::App& app, Context& ctx);  // sdi12, onewire and easyscale

}  // namespace corvel::cli
