# SMBus and PMBus: `corvel smbus` and `corvel pmbus`, and the PMBus example.
#
# The virtual bench's adapter 0 (I2C type) has an LM75-style sensor (25.0 C) and an EEPROM on
# channel 0, and two PMBus supplies on channel 1 at 0x40 (12.000 V, 2.500 A, 35.0 C on page 0;
# 5.000 V on page 1) and 0x41 (1.8 V on page 1: 1.801 V in LINEAR16). Nothing of a supply's state
# outlives a corvel process, so a case that switches a supply and reads its status is one run.

list(APPEND CORVEL_CLI_UNIT_TESTS bus_format_test.cpp)

# --- corvel smbus ----------------------------------------------------------------------------
# An SMBus word is low byte first on the bus; the LM75 sends its temperature MSB first.
corvel_cli_test(smbus.get_word_of_the_temperature_sensor
  CHECK --out "^0x0019$" --out-lines 1 --no-err -- ${CORVEL} --sim smbus get 0 0x48 0 w)
corvel_cli_test(smbus.get_of_a_missing_address
  CHECK --status 1 --out-lines 0
        --err "^corvel: read byte 0x00 from 0x49 on bus 0: address not acknowledged \\(status 1\\)$"
        -- ${CORVEL} --sim smbus get 0 0x49 0)
corvel_cli_test(smbus.detect_bus_1
  CHECK --out "^40: 40 41 -- -- -- -- -- -- -- -- -- -- -- -- -- -- $" --out-lines 9 --no-err
        -- ${CORVEL} --sim smbus detect 1)
corvel_cli_test(smbus.block_read_with_pec
  CHECK --out "^0x43 0x4f 0x52 0x56 0x45 0x4c$" --out-lines 1 --no-err -- ${CORVEL} --sim smbus --pec get 1 0x40 0x99 s)
corvel_cli_test(smbus.set_needs_a_value_or_a_block
  CHECK --status 2 --err "VALUE: give either VALUE or --block BYTE..." -- ${CORVEL} --sim smbus set 0 0x48 1)
corvel_cli_test(smbus.address_out_of_range
  CHECK --status 2 --err "ADDR: 0x78 is out of range \\(0x03 to 0x77\\)" -- ${CORVEL} --sim smbus get 0 0x78)
corvel_cli_test(smbus.bus_out_of_range
  CHECK --status 2 --err "BUS: 2 is out of range \\(0 to 1\\)" -- ${CORVEL} --sim smbus detect 2)

# --- corvel pmbus ----------------------------------------------------------------------------
corvel_cli_test(pmbus.read_vout
  CHECK --out "^12\\.000 V$" --out-lines 1 --no-err -- ${CORVEL} --sim pmbus read vout)
corvel_cli_test(pmbus.read_all_of_page_1_of_the_second_supply
  CHECK --out "^vout 1\\.801 V$" --out "^iout 0\\.500 A$" --out "^temp 38\\.0 C$" --out-lines 3 --no-err
        -- ${CORVEL} --sim pmbus -a 0x41 --page 1 read all)
corvel_cli_test(pmbus.off_then_status_and_reading
  CHECK --out "^STATUS_WORD +0x[0-9a-f]{4} .*\\bOFF\\b.*$" --out "^0\\.000 V$" --no-err
        -- ${CORVEL} --sim pmbus off status read vout)
# 14 V is above the supply's over-voltage limit (13.8 V): the fault latches the output off, shows
# in STATUS_WORD and STATUS_VOUT, and asserts SMBALERT#, which the supply answers on the ARA.
corvel_cli_test(pmbus.over_voltage_status_and_alert
  CHECK --out "^STATUS_WORD +0x8860  VOUT POWER_GOOD# OFF VOUT_OV_FAULT$" --out "^STATUS_VOUT +0x80  VOUT_OV_FAULT$"
        --out "^SMBALERT# asserted by 0x40$" --out-lines 4 --no-err -- ${CORVEL} --sim pmbus vout 14 status alert)
corvel_cli_test(pmbus.status_of_a_running_supply
  CHECK --out "^STATUS_WORD +0x0000$" --out-lines 1 --no-err -- ${CORVEL} --sim pmbus status)
corvel_cli_test(pmbus.vout_set_and_read_back
  CHECK --out "^VOUT_COMMAND 0x069a \\(3\\.301 V\\)$" --out "^3\\.301 V$" --out-lines 2 --no-err
        -- ${CORVEL} --sim pmbus vout 3.3 read vout)
corvel_cli_test(pmbus.info
  CHECK --out "^MFR_ID +CORVEL$" --out "^MFR_MODEL +SIM-PSU$" --out-lines 4 --no-err -- ${CORVEL} --sim pmbus info)
corvel_cli_test(pmbus.group_off_both_supplies
  CHECK --out "^0\\.000 V$" --out-lines 1 --no-err -- ${CORVEL} --sim pmbus -a 0x41 group off 0x40 0x41 read vout)
corvel_cli_test(pmbus.unknown_reading
  CHECK --status 2 --err "WHAT: .*" -- ${CORVEL} --sim pmbus read power)

# --- example ---------------------------------------------------------------------------------
corvel_cli_test(corvel_sim.example_pmbus_monitor
  CHECK --out "^0x40 page 0: +12\\.000 V +2\\.500 A +35\\.0 C$" --out "^0x40 page 1: +5\\.000 V +1\\.250 A +33\\.0 C$"
        --out-lines 6 --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:pmbus_monitor>)
corvel_cli_test(pmbus.no_adapter_hint ENV CORVEL_SIM=0
  CHECK --status 1 --err "^corvel: no adapter found$" -- ${CORVEL} --sim pmbus read vout)
