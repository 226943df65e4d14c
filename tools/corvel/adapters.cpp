#include "adapters.hpp"

#include <map>

namespace corvel::cli {

std::vector<int> scan_indices(const std::vector<std::string>& serials) {
    std::map<std::string, int> index_of;
    std::vector<int> indices;
    indices.reserve(serials.size());
    for (const auto& serial : serials) {
        auto [it, added] = index_of.try_emplace(serial, static_cast<int>(index_of.size()));
        indices.push_back(it->second);
    }
    return indices;
}

}  // namespace corvel::cli
