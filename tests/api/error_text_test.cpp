// Error texts as applications see them, spellings included.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "CorvelBoard.h"

namespace {

std::string text(int32_t code) {
    char buf[32];
    std::memset(buf, 'x', sizeof buf);
    KDI_GetErrorString(code, buf);
    EXPECT_NE(std::memchr(buf, '\0', sizeof buf), nullptr) << code;
    return buf;
}

TEST(ErrorText, EveryCodeHasItsText) {
    const struct {
        int32_t code;
        const char* text;
    } cases[] = {
        {0, "No error"},
        {-1, "Parameter pointer is NULL"},
        {-2, "Input data too much"},
        {-3, "Input data too less"},
        {-4, "Data formatting error"},
        {-5, "USB write data failed"},
        {-6, "USB read data faild"},
        {-7, "There are no data"},
        {-8, "Open device failed"},
        {-9, "Close device failed"},
        {-10, "Execute the command failed"},
        {-11, "Select equipment failure"},
        {-12, "Equipment already open"},
        {-13, "Equipment did not open"},
        {-14, "Buffer overflow"},
        {-15, "Device Not Available"},
        {-16, "Load the dynamic library failed"},
        {-17, "Execute the command failed"},
        {-18, "Run out of memory"},
        {1, "Unknow runtime error"},
        {-19, "Unknow runtime error"},
        {INT_MIN, "Unknow runtime error"},
        {INT_MAX, "Unknow runtime error"},
    };
    for (const auto& c : cases) EXPECT_EQ(text(c.code), c.text) << c.code;
    KDI_GetErrorString(-1, nullptr);  // a null buffer is ignored rather than written
}

}  // namespace
