// Adapters of the GPIO, ADC, PWM and counter families (I2C- and SPI-type adapters), opened for the
// length of one command, and the chaining of a group's actions in that one run.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace CLI {
class App;
}

namespace corvel::cli {

struct Context;

enum class IoFamily { gpio, adc, pwm, counter };

struct IoTarget {
    int32_t dev = 0;
    int32_t type = 0;  // 1 I2C, 2 SPI; 0: the type the adapter's product name tells
};

// A family's scan, open and close functions.
struct FamilyCalls {
    int32_t (*scan)(uint8_t);
    int32_t (*open)(int32_t, int32_t, int32_t);
    int32_t (*close)(int32_t, int32_t);
};

// Scans with the family's scan function, settles the device type, opens the adapter with the
// family's open function, runs `body` with the type and closes the adapter again. No adapter, a
// failed open or close: an error line (with the --sim hint where it helps). Returns the body's
// exit status, or kExitFailure.
int with_family_adapter(const FamilyCalls& calls, const IoTarget& target,
                        const std::function<int(int32_t type)>& body);
int with_io_adapter(IoFamily family, const IoTarget& target, const std::function<int(int32_t type)>& body);

// A command group whose subcommands are actions run one after another in one process, on one open
// adapter, in the order they are written: `corvel gpio mode 0 out set 0 get 8`. Every corvel run
// is a new process with an adapter of its own on the virtual bus, where nothing of the pins'
// state outlives the process, so a sequence has to be one run. Each action may come once per run.
// The group takes -d and -t (before or after its actions).
class ActionGroup {
  public:
    using Action = std::function<int(const IoTarget& adapter)>;  // its type settled

    ActionGroup(CLI::App& group, Context& ctx, IoFamily family);
    // Adds `action` to the run; called from a subcommand's callback.
    void add(Action action);
    // Makes the clock of the virtual adapter the real one for this run.
    void use_real_clock();

  private:
    struct State {
        IoTarget target;
        std::vector<Action> actions;
    };
    Context& ctx_;
    IoFamily family_;
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace corvel::cli
