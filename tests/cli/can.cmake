# The CAN family: `corvel can` and the CAN loopback example.
#
# Every corvel process starts a virtual adapter of its own, so what one process sends no other sees:
# the dumps below read the traffic generator of the virtual bench (adapter 2, both channels on one
# bus, identifier 100 with 8 bytes counting the frames, 10 frames a second), and sending and
# receiving in one process is the example's case. Dumps run on the real clock, as `can dump` does
# unless CORVEL_SIM_CLOCK is set: with the virtual one a read thread kept off the processor falls
# behind the other channel's, whose sleeps move the clock on. They stop after a count (-n), which
# at 10 frames a second takes a fraction of a second.

list(APPEND CORVEL_CLI_UNIT_TESTS can_format_test.cpp)

# --- corvel can dump -----------------------------------------------------------------------
set(GEN_FRAME "100   \\[8\\]  [0-9A-F]{2} 00 00 00 00 00 00 00")
corvel_cli_test(can.dump_one_channel UNSET CORVEL_SIM_CLOCK
  CHECK --out "  can2  100   \\[8\\]  01 00 00 00 00 00 00 00" --out "  can2  100   \\[8\\]  03 00 00 00 00 00 00 00"
        --out-lines 3 --no-err -- ${CORVEL} --sim can dump 2 -n 3)
# Both channels hear the generator; time stamps from the first frame on, 100 ms apart.
corvel_cli_test(can.dump_both_channels_zero_based_times UNSET CORVEL_SIM_CLOCK
  CHECK --out " \\(000\\.000000\\)  can1  ${GEN_FRAME}" --out " \\(000\\.000000\\)  can2  ${GEN_FRAME}"
        --out " \\(000\\.100000\\)  can[12]  ${GEN_FRAME}" --out-lines 6 --no-err -- ${CORVEL} --sim can dump -n 6 -t z)
# A generator counting identifiers 100 to 10F: the filter keeps 104 alone.
corvel_cli_test(can.dump_filter UNSET CORVEL_SIM_CLOCK ENV CORVEL_SIM=type=4,gen=1000,gen_id=0x100-0x10F,gen_dlc=2
  CHECK --out "  can1  104   \\[2\\]  05 00" --out "  can1  104   \\[2\\]  15 00" --out-lines 2 --no-err
        -- ${CORVEL} --sim can dump 1,104:7FF -n 2)
# The generator sends at 500 kbit/s: a channel set up at 250 kbit/s receives nothing, one set up
# at 500 kbit/s again receives.
corvel_cli_test(can.dump_other_bitrate_sees_nothing UNSET CORVEL_SIM_CLOCK
  CHECK --out-lines 0 --no-err -- ${CORVEL} --sim can dump 1 -b 250k -T 500)
corvel_cli_test(can.dump_same_bitrate UNSET CORVEL_SIM_CLOCK
  CHECK --out "  can1  ${GEN_FRAME}" --out-lines 1 --no-err -- ${CORVEL} --sim can dump 1 --bitrate 500000 -n 1)
# The log is candump's: can-utils' log2asc converts it, python-can's log reader reads it.
corvel_cli_test(can.dump_log_read_by_log2asc_and_python_can UNSET CORVEL_SIM_CLOCK
  CHECK --out "lines: 20" --out "asc frames: 20"
        --out "python-can: 20 frames, identifiers 100, channels can1 can2" --no-err
        -- sh -c [[cd "$CORVEL_SIM_STATE" && "$0" --sim can dump -n 20 -l can.log && echo "lines: $(wc -l <can.log)" &&
                   log2asc -I can.log -O can.asc can1 can2 &&
                   echo "asc frames: $(grep -Ec '^ +[0-9]+\.[0-9]{6} [12] +100 +Rx +d 8( [0-9A-F]{2}){8}$' can.asc)" &&
                   /usr/bin/python3 -c 'import can, sys
m = list(can.LogReader(sys.argv[1]))
print("python-can: %d frames, identifiers %s, channels %s" % (len(m),
      " ".join(sorted({"%X" % x.arbitration_id for x in m if not x.is_extended_id})),
      " ".join(sorted({x.channel for x in m}))))' can.log]] ${CORVEL})

# --- corvel can send, gen, init, status ----------------------------------------------------
corvel_cli_test(can.send
  CHECK --out-lines 0 --no-err -- ${CORVEL} --sim can send 1 "123#DEADBEEF" "12345678#00" "123#R4")
corvel_cli_test(can.gen
  CHECK --out-lines 0 --no-err -- ${CORVEL} --sim can gen 2 -n 5 -g 10 -I i -L 4 -D i)
# Each channel on a bus of its own and no generator: nobody acknowledges channel 1's frames, each
# adds 8 to its transmit error count, and the 32nd puts it bus-off, after which the adapter refuses.
corvel_cli_test(can.gen_until_bus_off ENV CORVEL_SIM=type=4,bus=split
  CHECK --status 1 --out-lines 0
        --err "corvel: send on CAN channel 1: the adapter refused the command \\(error record 0x4000\\)"
        -- ${CORVEL} --sim can gen 1 -g 0 -n 200)
corvel_cli_test(can.init
  CHECK --out-lines 0 --no-err
        -- sh -c [["$0" --sim can init 1 250k && "$0" --sim can init 2 83.333k --mode loopback]] ${CORVEL})
corvel_cli_test(can.status
  CHECK --out "state:       error active" --out "TEC:         0" --out "REC:         0" --out "last error:  none"
        --out "FIFO space:  4096" --out "errors:      none" --out "registers:   ESR 00000000  TSR 00000000 .*"
        --out-lines 7 --no-err -- ${CORVEL} --sim can status 2)

# --- adapters ------------------------------------------------------------------------------
corvel_cli_test(can.one_channel_adapter UNSET CORVEL_SIM_CLOCK ENV CORVEL_SIM=type=3,gen=10
  CHECK --out "  can1  ${GEN_FRAME}" --out-lines 2 --no-err -- ${CORVEL} --sim can dump -n 2)
corvel_cli_test(can.one_channel_adapter_has_no_channel_2 ENV CORVEL_SIM=type=3
  CHECK --status 1 --err "corvel: adapter 0 has one CAN channel: there is no channel 2" --out-lines 0
        -- ${CORVEL} --sim can status 2)
corvel_cli_test(can.no_can_adapter ENV CORVEL_SIM=type=1
  CHECK --status 1 --err "corvel: no CAN adapter found" --out-lines 0 -- ${CORVEL} --sim can status 1)
corvel_cli_test(can.no_adapter_hints_at_sim ENV ${NO_SIM_FLAG}
  CHECK --status 1 --err "corvel: no adapter found \\(corvel --sim \\.\\.\\. runs on the virtual adapter\\)"
        --out-lines 0 -- ${CORVEL} can dump)
corvel_cli_test(can.not_a_can_adapter
  CHECK --status 1 --err "corvel: adapter 0 is not a CAN adapter \\(Corvel I2C Adapter\\)" --out-lines 0
        -- ${CORVEL} --sim can send -d 0 1 "123#00")

# Command lines that cannot be used: exit status 2 and a message naming the argument.
set(CAN_USAGE_CASES
  "frame_without_hash|send 1 123|FRAME: '123' is not a frame: write ID#DATA \\(123#DEADBEEF\\), or ID#R for a remote frame"
  "frame_odd_digits|send 1 123#DEA|FRAME: '123#DEA': data 'DEA' has a byte with one hex digit"
  "frame_id_too_large|send 1 800#00|FRAME: '800#00': identifier 800 is above 7FF"
  "frame_too_long|send 1 123#000102030405060708|FRAME: .* has more than 8 bytes"
  "channel|status 3|CH: 3 is out of range \\(1 to 2\\)"
  "bitrate_unreachable|init 1 1000|BITRATE: no bit timing of the 36 MHz CAN clock comes within 1 % of 1000 bit/s"
  "bitrate_text|init 1 fast|BITRATE: 'fast' is not a bit rate up to 1M \\(500000, 500k, 1M\\)"
  "mode|init 1 500k --mode sleep|--mode: sleep not in \\{normal,silent,loopback\\}"
  "filter|dump 1,123|CH: filter '123' is not ID:MASK \\(hexadecimal, e.g. 123:7FF\\)"
  "channel_twice|dump 1 1|CH: channel 1 given twice"
  "time_mode|dump -t x|-t: x not in \\{a,d,z\\}"
  "gen_id|gen 1 -I 800|-I: '800' is not i, r or a hex identifier up to 7FF")
foreach(case IN LISTS CAN_USAGE_CASES)
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 name)
  list(GET fields 1 args)
  list(GET fields 2 message)
  separate_arguments(args UNIX_COMMAND "${args}")
  corvel_cli_test(can.usage.${name}
    CHECK --status 2 --err "${message}" --out-lines 0 -- ${CORVEL} --sim can ${args})
endforeach()

# --- the CAN loopback example --------------------------------------------------------------
# Channel 2 takes the example's identifiers only, so the generator's frames do not count. The
# example waits up to 100 sleeps of 10 ms for its frames; with the virtual clock those pass in a
# moment, before a read thread kept off the processor has polled, so these run on the real clock.
corvel_cli_test(corvel_sim.example_can_loopback ENV CORVEL_SIM_CLOCK=real
  CHECK --out "CAN adapter: 2 \\(Corvel Dual CAN Adapter\\)" --out "  709  \\[8\\]  11 22 33 44 55 66 77 09"
        --out "received 10 of 10 frames on channel 2" --no-err -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:can_loopback>)
corvel_cli_test(corvel_sim.example_can_loopback_different_rates ENV CORVEL_SIM_CLOCK=real
  CHECK --out "channel 1 at 500 kbit/s, channel 2 at 250 kbit/s" --out "received 0 of 10 frames on channel 2" --no-err
        -- ${CORVEL_SIM_SCRIPT} $<TARGET_FILE:can_loopback> 500 250)
