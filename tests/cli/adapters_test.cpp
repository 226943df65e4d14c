#include <gtest/gtest.h>

#include "adapters.hpp"

namespace corvel::cli {
namespace {

struct IndexCase {
    const char* name;
    std::vector<std::string> serials;  // as found on the buses, in order
    std::vector<int> indices;          // what the library's first scan assigns
    friend void PrintTo(const IndexCase& c, std::ostream* os) { *os << c.name; }
};

class ScanIndices : public testing::TestWithParam<IndexCase> {};

TEST_P(ScanIndices, FollowsTheLibrarysMergeBySerial) {
    EXPECT_EQ(scan_indices(GetParam().serials), GetParam().indices);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ScanIndices,
    testing::Values(IndexCase{"none", {}, {}}, IndexCase{"distinct", {"CV1", "CV2", "CV3"}, {0, 1, 2}},
                    // A repeated serial reuses the first entry, so later adapters move down.
                    IndexCase{"repeat_adjacent", {"A", "A", "B"}, {0, 0, 1}},
                    IndexCase{"repeat_apart", {"A", "B", "A", "C"}, {0, 1, 0, 2}},
                    // Adapters without a serial all share the empty one.
                    IndexCase{"no_serials", {"", "X", ""}, {0, 1, 0}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvel::cli
