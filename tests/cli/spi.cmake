# The SPI family: `corvel spi`, `corvel flash` and the SPI flash example.

list(APPEND CORVEL_CLI_UNIT_TESTS flash_chip_test.cpp)
