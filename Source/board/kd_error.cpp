// The English texts of the return codes, spelled as applications have always seen them.
#include <array>
#include <cstring>
#include <string_view>

#include "CorvelBoard.h"

namespace {

// Index i holds the text of code -i.
constexpr std::array<std::string_view, 19> kErrorTexts = {
    "No error",
    "Parameter pointer is NULL",
    "Input data too much",
    "Input data too less",
    "Data formatting error",
    "USB write data failed",
    "USB read data faild",
    "There are no data",
    "Open device failed",
    "Close device failed",
    "Execute the command failed",
    "Select equipment failure",
    "Equipment already open",
    "Equipment did not open",
    "Buffer overflow",
    "Device Not Available",
    "Load the dynamic library failed",
    "Execute the command failed",
    "Run out of memory",
};
constexpr std::string_view kUnknownText = "Unknow runtime error";

constexpr std::size_t kErrorBufferSize = 32;
static_assert([] {
    for (auto t : kErrorTexts)
        if (t.size() >= kErrorBufferSize) return false;
    return kUnknownText.size() < kErrorBufferSize;
}());

}  // namespace

void KDI_GetErrorString(int32_t ErrorValue, char* pErrorString) {
    if (pErrorString == nullptr) return;
    const std::string_view text = ErrorValue <= 0 && ErrorValue > -static_cast<int32_t>(kErrorTexts.size())
                                      ? kErrorTexts[static_cast<std::size_t>(-ErrorValue)]
                                      : kUnknownText;
    std::memcpy(pErrorString, text.data(), text.size());
    pErrorString[text.size()] = '\0';
}
