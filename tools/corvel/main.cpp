// corvel: command-line tool for Corvel USB interface adapters.
#include <CLI/CLI.hpp>

#include "context.hpp"
#include "output.hpp"
#include "virtual_adapter.hpp"

int main(int argc, char** argv) {
    using namespace corvel::cli;

    CLI::App app{"Command-line tool for Corvel USB interface adapters.", "corvel"};
    app.fallthrough();  // global options are accepted after the subcommand too
    app.require_subcommand(1);

    Context ctx;
    app.add_flag("--sim", ctx.sim, "Run on the virtual adapter instead of USB hardware");
    add_board_commands(app, ctx);
    add_info_commands(app, ctx);
    add_i2c_commands(app, ctx);
    add_spi_commands(app, ctx);
    add_flash_commands(app, ctx);
    add_can_commands(app, ctx);
    add_gpio_commands(app, ctx);
    add_adc_commands(app, ctx);
    add_pwm_counter_commands(app, ctx);
    add_smbus_commands(app, ctx);
    add_single_wire_commands(app, ctx);
    app.footer("Run any other program on the virtual adapter with: corvel-sim PROGRAM [ARGS...]");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitUsage;
    }

    if (ctx.sim) {
        if (int status = enter_virtual_adapter(argv, ctx.sim_clock); status != 0) return status;
    }
    return ctx.run();
}
