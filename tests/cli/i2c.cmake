# The I2C family: `corvel i2c` and the I2C example.

list(APPEND CORVEL_CLI_UNIT_TESTS i2c_format_test.cpp)

# --- corvel i2c ----------------------------------------------------------------------------
# Channel 0 of the virtual I2C adapter: a 24C02-type EEPROM at 0x50, an LM75-type sensor at 0x48.

# Bytes written by one process are read back by the next: the EEPROM keeps them in the state
# directory. A fresh state reads erased.
corvel_cli_test(i2c.write_then_read_in_two_processes
  CHECK --out "de ad" --out-lines 1 --no-err
        -- sh -c [["$0" --sim i2c write 0x50 0x10 0xde 0xad && "$0" --sim i2c read 0x50 0x10 2]] ${CORVEL})
corvel_cli_test(i2c.read_erased
  CHECK --out "ff ff" --out-lines 1 --no-err -- ${CORVEL} --sim i2c read 0x50 0x10 2)
corvel_cli_test(i2c.read_sensor
  CHECK --out "19 00" --out-lines 1 --no-err -- ${CORVEL} i2c read 0x48 0 2 --sim)
# With no register bytes (-w 0) the first data byte is the EEPROM's word address.
corvel_cli_test(i2c.write_without_register_bytes
  CHECK --out "ab" --out-lines 1 --no-err
        -- sh -c [["$0" --sim i2c write -w 0 0x50 0 0x10 0xab && "$0" --sim i2c read 0x50 0x10 1]] ${CORVEL})
corvel_cli_test(i2c.read_nobody_there
  CHECK --status 1 --err "corvel: read from 0x51: Execute the command failed \\(-10\\)" --out-lines 0
        -- ${CORVEL} --sim i2c read 0x51 0 1)
corvel_cli_test(i2c.write_nobody_there
  CHECK --status 1 --err "corvel: write to 0x30: Execute the command failed \\(-10\\)" --out-lines 0
        -- ${CORVEL} --sim i2c write 0x30 0 1)
corvel_cli_test(i2c.read_other_channel
  CHECK --status 1 --err "corvel: read from 0x50: Execute the command failed \\(-10\\)" --out-lines 0
        -- ${CORVEL} --sim i2c read -c 1 0x50 0 1)
corvel_cli_test(i2c.no_such_adapter
  CHECK --status 1 --err "corvel: open adapter 4: Open device failed \\(-8\\)" --out-lines 0
        -- ${CORVEL} --sim i2c read -d 4 0x50 0 1)
# An SPI-type adapter has no I2C channels: setting one up gets no answer.
corvel_cli_test(i2c.spi_adapter
  CHECK --env CORVEL_SIM=type=2 --status 1
        --err "corvel: set up I2C channel 0: Execute the command failed \\(-10\\)" --out-lines 0
        -- ${CORVEL} --sim i2c scan)

# The whole grid, line by line; nine lines in all, so nothing else answers.
set(NONE_ROW "-- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- ")
corvel_cli_test(i2c.scan
  CHECK --out "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f"
        --out "00:          -- -- -- -- -- -- -- -- -- -- -- -- -- "
        --out "10: ${NONE_ROW}" --out "20: ${NONE_ROW}" --out "30: ${NONE_ROW}"
        --out "40: -- -- -- -- -- -- -- -- 48 -- -- -- -- -- -- -- "
        --out "50: 50 -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- "
        --out "60: ${NONE_ROW}"
        --out "70: -- -- -- -- -- -- -- --                         "
        --out-lines 9 --no-err -- ${CORVEL} --sim i2c scan)
corvel_cli_test(i2c.scan_empty_channel
  CHECK --out "40: ${NONE_ROW}" --out "50: ${NONE_ROW}" --out-lines 9 --no-err
        -- ${CORVEL} --sim i2c scan -c 3 --clock 400000)

# The dump reads in chunks: bytes in the first and the last chunk land at their offsets, and the
# erased rest collapses into one "*".
corvel_cli_test(i2c.dump
  CHECK --out "00000000  43 6f 72 76 ff ff ff ff  ff ff ff ff ff ff ff ff  \\|Corv\\.\\.\\.\\.\\.\\.\\.\\.\\.\\.\\.\\.\\|"
        --out "00000010  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  \\|\\.{16}\\|"
        --out "\\*"
        --out "000000f0  ff ff ff ff ff ff ff ff  7a ff ff ff ff ff ff ff  \\|\\.{8}z\\.{7}\\|"
        --out "00000100" --out-lines 5 --no-err
        -- sh -c [["$0" --sim i2c write 0x50 0 0x43 0x6f 0x72 0x76 && "$0" --sim i2c write 0x50 0xf8 0x7a &&
                   "$0" --sim i2c dump 0x50]] ${CORVEL})
corvel_cli_test(i2c.dump_nobody_there
  CHECK --status 1 --err "corvel: read from 0x52 at register 0x00: Execute the command failed \\(-10\\)"
        --out-lines 0 -- ${CORVEL} --sim i2c dump 0x52)

# Command lines that cannot be used: exit status 2, a message naming the argument, and the adapter
# never reached. Each case: name | arguments after `corvel --sim` | the message line.
set(I2C_USAGE_CASES
  "address_too_high|i2c read 0x78 0 1|ADDR: 0x78 is out of range \\(0x03 to 0x77\\)"
  "address_too_low|i2c write 2 0 1|ADDR: 2 is out of range \\(0x03 to 0x77\\)"
  "address_not_a_number|i2c dump 5O|ADDR: 5O is not a number .*"
  "count_zero|i2c read 0x50 0 0|COUNT: 0 is out of range \\(1 to 10233\\)"
  "count_too_large|i2c read 0x50 0 10234|COUNT: 10234 is out of range \\(1 to 10233\\)"
  "register_too_large|i2c read 0x50 0x100 1|REG: 0x100 is too large for 1 register byte\\(s\\) \\(-w 1\\)"
  "register_without_width|i2c write -w 0 0x50 1 0|REG: 0x1 is too large for 0 register byte\\(s\\) \\(-w 0\\)"
  "byte_too_large|i2c write 0x50 0 0x100|BYTE: 0x100 is out of range \\(0x00 to 0xff\\)"
  "no_bytes|i2c write 0x50 0|BYTE is required"
  "channel|i2c scan -c 21|--channel: 21 is out of range \\(0 to 20\\)"
  "clock_too_low|i2c read --clock 999 0x50 0 1|--clock: 999 is out of range \\(1000 to 5000000\\)"
  "clock_too_high|i2c dump --clock 5000001 0x50|--clock: 5000001 is out of range \\(1000 to 5000000\\)"
  "reg_width|i2c dump -w 5 0x50|--reg-width: 5 is out of range \\(0 to 4\\)"
  "scan_takes_no_reg_width|i2c scan -w 1|The following arguments were not expected: .*"
  "no_i2c_subcommand|i2c|A subcommand is required")
foreach(case IN LISTS I2C_USAGE_CASES)
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 name)
  list(GET fields 1 args)
  list(GET fields 2 message)
  separate_arguments(args UNIX_COMMAND "${args}")
  corvel_cli_test(i2c.usage.${name}
    CHECK --status 2 --err "${message}" --out-lines 0 -- ${CORVEL} --sim ${args})
endforeach()

# --- the I2C example ------------------------------------------------------------------------
corvel_cli_test(corvel_sim.example_i2c_eeprom
  CHECK --out "adapters found: 3" --out "read back at 0x10: de ad be ef 43 6f 72 76" --out "page verified"
        --out-lines 3 --no-err -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:i2c_eeprom>)
