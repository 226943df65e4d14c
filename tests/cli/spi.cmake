# The SPI family: `corvel spi`, `corvel flash` and the SPI flash example.

list(APPEND CORVEL_CLI_UNIT_TESTS flash_chip_test.cpp)

# --- corvel flash --------------------------------------------------------------------------
# Adapter 1 of the virtual bench is the SPI adapter, found without -d; channel 0 has a 4 MiB
# W25Q32-type flash. Every case below counts its stdout lines, so a stray "ReadLen" line of the
# library's write-reads would fail it.
corvel_cli_test(flash.id
  CHECK --out "jedec id:     ef 40 16" --out "manufacturer: Winbond" --out "part:         W25Q32"
        --out "size:         4 MiB" --out-lines 4 --no-err -- ${CORVEL} --sim flash id)

# A random file from the middle of a sector across a whole 64 KiB block (erased as one) into the
# middle of another sector, written and verified over an earlier one, read back raw by the next
# process: the flash keeps it in the state directory.
corvel_cli_test(flash.write_then_read_in_two_processes
  CHECK --out-lines 0 --no-err
        -- sh -c [[cd "$CORVEL_SIM_STATE" && head -c 80000 /dev/urandom >old.bin && head -c 80000 /dev/urandom >in.bin &&
                   "$0" --sim flash write 0xff80 old.bin && "$0" --sim flash write 0xff80 in.bin --verify &&
                   "$0" --sim flash read 0xff80 80000 -o out.bin && cmp in.bin out.bin]] ${CORVEL})
# Writing into a sector keeps what the sector held around the new bytes; an erase clears it.
corvel_cli_test(flash.write_keeps_the_rest_of_the_sector
  CHECK --out "00000ff0  ff ff ff ff ff ff ff ff  ff ff ff ff 61 62 63 64  \\|\\.{12}abcd\\|"
        --out "00001000  65 66 67 58 59 6a 6b 6c  6d 0a ff ff ff ff ff ff  \\|efgXYjklm\\.\\.{6}\\|"
        --out "00001010" --out-lines 3 --no-err
        -- sh -c [[cd "$CORVEL_SIM_STATE" && printf abcdefghijklm\\n >a.bin && printf XY >b.bin &&
                   "$0" --sim flash write 0xffc a.bin && "$0" --sim flash write 0x1003 b.bin &&
                   "$0" --sim flash read 0xff0 32]] ${CORVEL})
corvel_cli_test(flash.erase_range
  CHECK --out "00001000  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  \\|\\.{16}\\|" --out "\\*"
        --out "00002000  61 62 ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  \\|ab\\.{14}\\|" --out-lines 4 --no-err
        -- sh -c [[cd "$CORVEL_SIM_STATE" && printf ab >a.bin && "$0" --sim flash write 0x1000 a.bin &&
                   "$0" --sim flash write 0x2000 a.bin && "$0" --sim flash erase 0x1000 0x1000 &&
                   "$0" --sim flash read 0x1000 0x1010]] ${CORVEL})
corvel_cli_test(flash.erase_chip
  CHECK --out "003ffff0  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  \\|\\.{16}\\|" --out-lines 2 --no-err
        -- sh -c [[cd "$CORVEL_SIM_STATE" && printf ab >a.bin && "$0" --sim flash write 0x3ffffe a.bin &&
                   "$0" --sim flash erase && "$0" --sim flash read 0x3ffff0 16]] ${CORVEL})

corvel_cli_test(flash.read_past_the_end
  CHECK --status 2 --err "corvel: 0x3ffff0 \\+ 32 bytes runs past the end of the flash \\(4 MiB\\)" --out-lines 0
        -- ${CORVEL} --sim flash read 0x3ffff0 32)
corvel_cli_test(flash.write_past_the_end
  CHECK --status 2 --err "corvel: 0x3fffff \\+ 2 bytes runs past the end of the flash \\(4 MiB\\)" --out-lines 0
        -- sh -c [[cd "$CORVEL_SIM_STATE" && printf ab >a.bin && "$0" --sim flash write 0x3fffff a.bin]] ${CORVEL})
# An I2C-type adapter has no SPI channels: setting one up gets no answer.
corvel_cli_test(flash.i2c_adapter
  CHECK --status 1 --err "corvel: set up SPI channel 0: Execute the command failed \\(-10\\)" --out-lines 0
        -- ${CORVEL} --sim flash id -d 0)
# Channel 2 has no part: MISO floats high and the id reads all ones.
corvel_cli_test(flash.no_chip
  CHECK --status 1 --err "corvel: no flash answers on SPI channel 2 \\(JEDEC id ff ff ff\\)" --out-lines 0
        -- ${CORVEL} --sim flash read -c 2 0 16)
corvel_cli_test(flash.no_adapter ENV CORVEL_SIM=0
  CHECK --status 1 --err "corvel: no adapter found" --out-lines 0 -- ${CORVEL} --sim flash id)

# --- corvel spi ----------------------------------------------------------------------------
# Channel 1 of the SPI adapter is a loopback.
corvel_cli_test(spi.xfer_loopback
  CHECK --out "de ad be ef" --out-lines 1 --no-err -- ${CORVEL} --sim spi xfer -c 1 0xde 0xad 0xbe 0xef --read 4)
corvel_cli_test(spi.init
  CHECK --out-lines 0 --no-err -- ${CORVEL} --sim spi init -c 1 --mode 3 --speed 0x100000 --bits 16 --lsb-first --cs-high)

# Command lines that cannot be used: exit status 2 and a message naming the argument.
set(SPI_USAGE_CASES
  "erase_unaligned|flash erase 0x800 0x1000|ADDR: 0x800 \\+ 0x1000 is not a range of whole 4 KiB sectors .*"
  "erase_length_unaligned|flash erase 0 100|ADDR: 0x0 \\+ 0x64 is not a range of whole 4 KiB sectors .*"
  "erase_address_only|flash erase 0x1000|LEN: give both ADDR and LEN, or neither"
  "address_too_high|flash read 0x1000000 1|ADDR: 0x1000000 is out of range \\(0x00 to 0xffffff\\)"
  "length_zero|flash read 0 0|LEN: 0 is out of range \\(1 to 16777216\\)"
  "no_such_file|flash write 0 /nonexistent/file|FILE: File does not exist: /nonexistent/file"
  "channel|flash id -c 16|--channel: 16 is out of range \\(0 to 15\\)"
  "speed|flash id --speed 36000001|--speed: 36000001 is out of range \\(1000 to 36000000\\)"
  "mode|spi init --mode 4|--mode: 4 is out of range \\(0 to 3\\)"
  "bits|spi init --bits 17|--bits: 17 is out of range \\(1 to 16\\)"
  "xfer_nothing|spi xfer|BYTE: give bytes to clock out, --read N, or both"
  "xfer_byte_too_large|spi xfer 0x100|BYTE: 0x100 is out of range \\(0x00 to 0xff\\)")
foreach(case IN LISTS SPI_USAGE_CASES)
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 name)
  list(GET fields 1 args)
  list(GET fields 2 message)
  separate_arguments(args UNIX_COMMAND "${args}")
  corvel_cli_test(spi.usage.${name}
    CHECK --status 2 --err "${message}" --out-lines 0 -- ${CORVEL} --sim ${args})
endforeach()

# --- the SPI flash example ----------------------------------------------------------------
corvel_cli_test(corvel_sim.example_spi_flash
  CHECK --out "adapters found: 3" --out "SPI adapter: 1 \\(Corvel SPI Adapter\\)" --out "JEDEC id: ef 40 16"
        --out "page verified" --no-err -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:spi_flash>)
