# The tool as a whole and the board-level commands: list, version, info, finding the drop-in,
# corvel-sim, the board example, and usage errors common to every command.

list(APPEND CORVEL_CLI_UNIT_TESTS output_test.cpp adapters_test.cpp numbers_test.cpp)

# --- corvel list ---------------------------------------------------------------------------
# Without CORVEL_SIM, --sim puts an I2C-type, an SPI-type and a two-channel CAN adapter on the bus;
# the product names tell them apart.
corvel_cli_test(list.virtual_bench
  CHECK --out "0  CV0000000001  Corvel I2C Adapter" --out "1  CV0000000002  Corvel SPI Adapter"
        --out "2  CV0000000003  Corvel Dual CAN Adapter" --out-lines 3 --no-err -- ${CORVEL} --sim list)
corvel_cli_test(list.two_adapters ENV CORVEL_SIM=2
  CHECK --out "0  CV[0-9A-Z]+  Corvel I2C Adapter" --out "1  CV[0-9A-Z]+  Corvel I2C Adapter" --out-lines 2
        --no-err -- ${CORVEL} --sim list)
corvel_cli_test(list.no_adapter ENV CORVEL_SIM=0
  CHECK --status 1 --err "corvel: no adapter found" --out-lines 0 -- ${CORVEL} --sim list)
# Without --sim (here: the drop-in preloaded by hand, so no adapter is certain), the error lines
# point at --sim. In an ASan build the preloaded drop-in comes before the ASan runtime, which must
# then be told that this is fine.
set(NO_SIM_FLAG CORVEL_SIM=0 LD_PRELOAD=${CORVEL_SIM_DIR}/libusb-0.1.so.4 ASAN_OPTIONS=verify_asan_link_order=0)
corvel_cli_test(list.no_adapter_hints_at_sim ENV ${NO_SIM_FLAG}
  CHECK --status 1 --err "corvel: no adapter found \\(corvel --sim \\.\\.\\. runs on the virtual adapter\\)"
        --out-lines 0 -- ${CORVEL} list)
corvel_cli_test(version.open_failure_hints_at_sim ENV ${NO_SIM_FLAG}
  CHECK --status 1 --err "corvel: open adapter 0: Open device failed \\(-8\\) \\(corvel --sim .* virtual adapter\\)"
        -- ${CORVEL} version)
# Other USB devices on the bus are not adapters; an adapter without a serial string shows "-", and
# the serial column is as wide as its longest entry.
corvel_cli_test(list.skips_other_devices
  CHECK --env "CORVEL_SIM=vid=0x1234$<SEMICOLON>serial=-$<SEMICOLON>serial=CV7"
        --out "0  -    Corvel I2C Adapter" --out "1  CV7  Corvel I2C Adapter" --out-lines 2 --no-err
        -- ${CORVEL} --sim list)
corvel_cli_test(list.index_width ENV CORVEL_SIM=11
  CHECK --out " 0  CV0000000001  .*" --out "10  CV0000000011  .*" --out-lines 11 -- ${CORVEL} --sim list)

# Two adapters with one serial share the library's list entry, hence one index; the next adapter
# gets index 1, which `version -d 1` reaches, and there is no index 2.
set(SHARED_SERIAL "CORVEL_SIM=serial=A1$<SEMICOLON>serial=A1$<SEMICOLON>serial=B2")
corvel_cli_test(list.shared_serial
  CHECK --env ${SHARED_SERIAL} --out "0  A1  .*" --out "1  B2  .*" --out-lines 3 --no-err -- ${CORVEL} --sim list)
corvel_cli_test(version.shared_serial_next_index
  CHECK --env ${SHARED_SERIAL} --out "firmware 2\\.1\\.0\\.5" -- ${CORVEL} --sim version -d 1)
corvel_cli_test(version.shared_serial_no_third_index
  CHECK --env ${SHARED_SERIAL} --status 1 --err "corvel: open adapter 2: Open device failed \\(-8\\)"
        -- ${CORVEL} --sim version -d 2)

# --- corvel version ------------------------------------------------------------------------
corvel_cli_test(version.first_adapter
  CHECK --out "firmware 2\\.1\\.0\\.5" --out "answer: 00 00 0b 00 02 01 00 05" --out-lines 2 --no-err
        -- ${CORVEL} --sim version)
# The index printed by `list` is the one `version -d` reaches in a fresh process.
corvel_cli_test(version.second_adapter ENV CORVEL_SIM=2
  CHECK --out "firmware 2\\.1\\.0\\.5" --no-err -- ${CORVEL} --sim version -d 1)
# --sim after the subcommand is a global option all the same.
corvel_cli_test(version.no_such_adapter
  CHECK --status 1 --err "corvel: open adapter 5: Open device failed \\(-8\\)" --out-lines 0
        -- ${CORVEL} version -d 5 --sim)

# --- finding the drop-in -------------------------------------------------------------------
corvel_cli_test(sim.library_beside_program UNSET CORVEL_SIM_LIBRARY
  CHECK --out "0  CV0000000001  Corvel I2C Adapter" -- ${CORVEL} --sim list)
corvel_cli_test(sim.library_missing ENV CORVEL_SIM_LIBRARY=/nonexistent/libusb-0.1.so.4
  CHECK --status 2 --err "corvel: virtual adapter library .* does not exist" --out-lines 0
        -- ${CORVEL} --sim list)

# --- corvel-sim ----------------------------------------------------------------------------
# corvel-sim puts the same three adapters on the bus as --sim does.
corvel_cli_test(corvel_sim.list
  CHECK --out "0  CV0000000001  Corvel I2C Adapter" --out "1  CV0000000002  Corvel SPI Adapter"
        --out "2  CV0000000003  Corvel Dual CAN Adapter" --out-lines 3 --no-err -- ${CORVEL_SIM_SCRIPT} ${CORVEL} list)
# A program started under corvel-sim with --sim is not preloaded twice.
corvel_cli_test(corvel_sim.with_sim_flag
  CHECK --out "firmware 2\\.1\\.0\\.5" --no-err -- ${CORVEL_SIM_SCRIPT} ${CORVEL} --sim version)
corvel_cli_test(corvel_sim.usage
  CHECK --status 2 --err "usage: corvel-sim PROGRAM \\[ARGS\\.\\.\\.\\]" -- ${CORVEL_SIM_SCRIPT})
corvel_cli_test(corvel_sim.example_board_info
  CHECK --out "adapters found: 3" --out "firmware version: 2\\.1\\.0\\.5" --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:board_info>)

# --- corvel info ---------------------------------------------------------------------------
corvel_cli_test(info.first_adapter
  CHECK --out "product:  Corvel I2C Adapter" --out "firmware: 2\\.1\\.0\\.5" --out "hardware: 1\\.0\\.0\\.0"
        --out "serial:   CV0000000001" --out-lines 4 --no-err -- ${CORVEL} --sim info)
corvel_cli_test(info.second_adapter ENV CORVEL_SIM=2
  CHECK --out "serial:   CV0000000002" --out-lines 4 --no-err -- ${CORVEL} --sim info -d 1)
# The adapter reports 12 bytes of serial: a longer one is cut, with no NUL after it.
corvel_cli_test(info.long_serial
  CHECK --env CORVEL_SIM=serial=ABCDEFGHIJKLMNOP --out "serial:   ABCDEFGHIJKL" --no-err -- ${CORVEL} --sim info)
corvel_cli_test(info.no_such_adapter
  CHECK --status 1 --err "corvel: open adapter 3: Open device failed \\(-8\\)" --out-lines 0
        -- ${CORVEL} --sim info -d 3)

# --- usage errors --------------------------------------------------------------------------
corvel_cli_test(usage.no_subcommand
  CHECK --status 2 --err "A subcommand is required" -- ${CORVEL})
corvel_cli_test(usage.unknown_option
  CHECK --status 2 --out-lines 0 -- ${CORVEL} --sim list --bogus)
