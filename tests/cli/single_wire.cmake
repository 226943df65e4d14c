# SDI-12, 1-Wire and EasyScale: `corvel sdi12`, `corvel onewire`, `corvel easyscale`, and the
# SDI-12 example.
#
# The virtual bench's adapter 0 has an SDI-12 sensor at address 0 on port 0 (measurement ready 1 s
# after aM!, values +3.14 +2.718 +1.414), a DS18B20-style sensor at 21.5 C on 1-Wire port 0 pin 0,
# and an EasyScale LED driver at 0x72 on channel 0. The virtual clock makes the waits instant.

# --- corvel sdi12 ----------------------------------------------------------------------------
corvel_cli_test(sdi12.measurement_with_crc
  CHECK --out "^00013$" --out "^waiting 1 s for 3 values$" --out "^0\\+3\\.14\\+2\\.718\\+1\\.414Ipz$" --out "^CRC ok$"
        --out-lines 4 --no-err -- ${CORVEL} --sim sdi12 --crc 0MC! 0D0!)
corvel_cli_test(sdi12.identification_on_port_1
  CHECK --out "^114CORVEL  SDI12S100SN0001$" --out-lines 1 --no-err -- ${CORVEL} --sim sdi12 -p 1 1I!)
# Without a CRC in the answer, --crc reports the mismatch and stops.
corvel_cli_test(sdi12.crc_mismatch
  CHECK --status 1 --out "^0\\+3\\.14\\+2\\.718\\+1\\.414$" --err "^corvel: 0D0!: CRC mismatch in the answer .*$"
        -- ${CORVEL} --sim sdi12 --crc 0M! 0D0!)
corvel_cli_test(sdi12.no_sensor_at_that_address
  CHECK --status 1 --err "^corvel: 5I! on port 0: no sensor answered \\(-10\\)$" -- ${CORVEL} --sim sdi12 5I!)
corvel_cli_test(sdi12.command_without_its_bang
  CHECK --status 2 --err "CMD: '0M' is not an SDI-12 command .*" -- ${CORVEL} --sim sdi12 0M)

# --- corvel onewire --------------------------------------------------------------------------
corvel_cli_test(onewire.temp
  CHECK --out "^21\\.5 C$" --out-lines 1 --no-err -- ${CORVEL} --sim onewire temp)
corvel_cli_test(onewire.temp_verbose
  CHECK --out "^scratchpad 58 01 .*$" --out "^21\\.5 C$" --out-lines 2 --no-err -- ${CORVEL} --sim onewire temp -v)
corvel_cli_test(onewire.rom
  CHECK --out "^28-[0-9a-f]{12}$" --out "^family 0x28 \\(DS18B20 temperature sensor\\)$" --out "^crc +0x[0-9a-f]{2} ok$"
        --out-lines 4 --no-err -- ${CORVEL} --sim onewire rom)
corvel_cli_test(onewire.empty_bus
  CHECK --status 1 --err "^corvel: no device answered the reset on port 0 pin 3$" -- ${CORVEL} --sim onewire temp --pin 3)

# --- corvel easyscale ------------------------------------------------------------------------
corvel_cli_test(easyscale.acknowledged
  CHECK --out "^sent 0x72 0x9f: register 0, value 31, acknowledge requested$" --out "^acknowledged$" --out-lines 2
        --no-err -- ${CORVEL} --sim easyscale 0x72 0 31)
corvel_cli_test(easyscale.wrong_address_refused
  CHECK --status 1 --out-lines 0 --err "^corvel: no acknowledge from 0x73 on channel 0$" -- ${CORVEL} --sim easyscale 0x73 0 31)
corvel_cli_test(easyscale.wrong_address_without_acknowledge
  CHECK --out "^sent 0x73 0x1f: register 0, value 31, no acknowledge requested$" --out-lines 1 --no-err
        -- ${CORVEL} --sim easyscale --no-ack 0x73 0 31)
corvel_cli_test(easyscale.value_out_of_range
  CHECK --status 2 --err "VALUE: 32 is out of range \\(0 to 31\\)" -- ${CORVEL} --sim easyscale 0x72 0 32)

# --- example ---------------------------------------------------------------------------------
corvel_cli_test(corvel_sim.example_sdi12_measure
  CHECK --out "^value 1: 3\\.14$" --out "^value 3: 1\\.414$" --out-lines 6 --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:sdi12_measure>)
