#include "targets/can_nodes.hpp"

#include <algorithm>

namespace corvel::sim::fw {
namespace {

constexpr uint64_t kMicro = 1000000;

// A well-mixed 64-bit value of (seed, k, salt): the pseudo-random identifiers and data.
uint64_t mix(uint64_t seed, uint64_t k, uint64_t salt) {
    uint64_t z = seed * 0x9E3779B97F4A7C15u + k * 0xBF58476D1CE4E5B9u + salt;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

uint32_t id_mask(bool extended) {
    return extended ? proto::can::kExtIdMask : proto::can::kStdIdMask;
}

}  // namespace

uint64_t CanGenerator::due(uint64_t k) const {
    const uint64_t r = spec_.rate;
    // ceil(k * 10^6 / rate), without overflow for any k.
    return start_ + k / r * kMicro + ((k % r) * kMicro + r - 1) / r;
}

uint64_t CanGenerator::last_due(uint64_t t) const {
    if (t < start_ || spec_.rate == 0) return 0;
    const uint64_t d = t - start_;
    return d / kMicro * spec_.rate + d % kMicro * spec_.rate / kMicro;
}

CanFrame CanGenerator::frame(uint64_t k) const {
    CanFrame f;
    f.extended = spec_.extended;
    const uint32_t mask = id_mask(f.extended);
    const uint32_t first = std::min(spec_.id_first & mask, spec_.id_last & mask);
    const uint64_t span = uint64_t{std::max(spec_.id_first & mask, spec_.id_last & mask)} - first + 1;
    switch (spec_.ids) {
        case CanGeneratorSpec::Ids::Fixed:
            f.id = spec_.id_first & mask;
            break;
        case CanGeneratorSpec::Ids::Increment:
            f.id = static_cast<uint32_t>(first + (k - 1) % span);
            break;
        case CanGeneratorSpec::Ids::Random:
            f.id = static_cast<uint32_t>(first + mix(spec_.seed, k, 1) % span);
            break;
    }
    f.dlc = std::min<uint8_t>(spec_.dlc, proto::can::kMaxDataLength);
    const uint64_t word = spec_.data == CanGeneratorSpec::Data::Random ? mix(spec_.seed, k, 2) : k;
    for (std::size_t i = 0; i < f.dlc; ++i)
        f.data[i] = spec_.data == CanGeneratorSpec::Data::Fixed ? spec_.fixed[i]
                                                                : static_cast<uint8_t>(word >> (8 * i));
    return f;
}

CanFrame echo_answer(const CanFrame& f) {
    CanFrame answer = f;
    answer.id = (f.id + 1) & id_mask(f.extended);
    return answer;
}

}  // namespace corvel::sim::fw
