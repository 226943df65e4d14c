# The CAN family: `corvel can` and the CAN loopback example.

list(APPEND CORVEL_CLI_UNIT_TESTS can_format_test.cpp)
