# GPIO, ADC, PWM and counters: `corvel gpio|adc|pwm|counter` and the GPIO and ADC examples.
#
# Pin, PWM and counter state does not outlive a corvel process on the virtual adapter, so each
# case is one run with its actions chained. The virtual bench's adapter 0 (I2C type) wires pin n to
# pin n+8 and drives the ADC channels with fixed signals (ch0 1.65 V = 2048, ch7 3.3 V = 4095).

list(APPEND CORVEL_CLI_UNIT_TESTS io_format_test.cpp)

# --- corvel gpio -----------------------------------------------------------------------------
corvel_cli_test(gpio.set_read_through_wiring
  CHECK --out "^8=1 0=1 9=0$" --out-lines 1 --no-err -- ${CORVEL} --sim gpio mode 0,1 out set 0 get 8,0,9)
corvel_cli_test(gpio.clear_on_the_spi_adapter
  CHECK --out "^8=0$" --out-lines 1 --no-err -- ${CORVEL} --sim gpio -d 1 mode 0 out clear 0 get 8)
# A toggling pin 0 seen on pin 8: rising at 100 ms, falling at 200 ms of (virtual) time.
corvel_cli_test(gpio.watch_a_toggled_pin
  CHECK --out "^0\\.1[0-9]{5} 8=1 rising$" --out "^0\\.2[0-9]{5} 8=0 falling$" --out-lines 2 --no-err
        -- ${CORVEL} --sim gpio mode 0 out watch 8 --toggle 0 -n 2)
corvel_cli_test(gpio.get_of_a_pin_above_15_is_refused
  CHECK --status 2 --err "PINS: the adapter's read returns pins 0 to 15 only" -- ${CORVEL} --sim gpio get 16)
corvel_cli_test(gpio.bad_pin_list
  CHECK --status 2 --err "PINS: '8-3' is not a pin or a range of pins from 0 to 23" -- ${CORVEL} --sim gpio set 0,8-3)
corvel_cli_test(gpio.no_adapter_hint ENV CORVEL_SIM=0
  CHECK --status 1 --err "^corvel: no adapter found" -- ${CORVEL} --sim gpio get)

# --- corvel adc ------------------------------------------------------------------------------
corvel_cli_test(adc.dc_channel_in_volts
  CHECK --out "^1\\.650 3\\.300$" --out-lines 4 --no-err -- ${CORVEL} --sim adc read -c 0x81 -n 4)
corvel_cli_test(adc.raw_csv
  CHECK --out "^ch0,ch7$" --out "^2048,4095$" --out-lines 3 --no-err -- ${CORVEL} --sim adc read -c 0x81 -n 2 --raw --csv)
corvel_cli_test(adc.plot_of_the_sine ENV COLUMNS=60
  CHECK --out "^ *⣿ ch2$" --out "^ *[0-9.]+V ┤.*" --out-lines 16 --no-err
        -- ${CORVEL} --sim adc read -c 0x04 -n 100 --period 500 --plot)

# --- corvel pwm, counter ---------------------------------------------------------------------
corvel_cli_test(counter.counts_a_pwm_for_a_second
  CHECK --out "^counter 0: 1000$" --out-lines 1 --no-err -- ${CORVEL} --sim counter measure -c 1 --pwm 1000 --seconds 1)
corvel_cli_test(counter.chained_set_get
  CHECK --out "^counter 0: 7$" --out "^counter 1: 9$" --out-lines 2 --no-err
        -- ${CORVEL} --sim counter init -c 3 set -c 3 7 9 get -c 3)
corvel_cli_test(pwm.start_duty_freq_stop
  CHECK --out-lines 0 --no-err -- ${CORVEL} --sim pwm start -c 5 --freq 1000 --duty 50 duty -c 5 25 freq -c 5 2000 stop -c 5)
corvel_cli_test(pwm.bad_duty
  CHECK --status 2 --err "PCT: 101 is out of range \\(0 to 100\\)" -- ${CORVEL} --sim pwm duty -c 1 101)

# --- examples --------------------------------------------------------------------------------
corvel_cli_test(corvel_sim.example_gpio_blink
  CHECK --out "^pin 0 = 1, pin 8 = 1$" --out "^pin 0 = 0, pin 8 = 0$" --out-lines 6 --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:gpio_blink>)
corvel_cli_test(corvel_sim.example_adc_sample
  CHECK --out "^ 0  ch0 1\\.650 V  ch2 [0-9]\\.[0-9]{3} V$" --out-lines 16 --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:adc_sample>)
