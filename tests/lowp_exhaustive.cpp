// Every float32 input through the bulk conversion and the scalar encode, for
// the named encodings of at most 16 bits (or those given), in one direction:
// each pattern must agree, and the flags of each block of 2^16 inputs.
//
//   lowp_exhaustive [--round 0..5] [--non-finite] [--threads N] [NAME...]
//
// About 2^32 scalar conversions per encoding: minutes with a few threads.
// Exit status 0 when everything agrees, 1 at the first disagreement.

#include "tarn/lowp/lowp.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

bool check_block(const tarn::encoding& e, std::uint64_t first, tarn::rounding r, tarn::overflow o) {
    constexpr std::size_t block = 1 << 16;
    std::vector<float> in(block);
    std::vector<std::uint16_t> out(block);
    for (std::size_t i = 0; i < block; ++i) {
        const auto u = static_cast<std::uint32_t>(first + i);
        std::memcpy(&in[i], &u, 4);
    }
    tarn::clear_ieee_flags();
    tarn::quantize(in.data(), block, out.data(), e, r, o);
    const unsigned raised = tarn::ieee_flags();
    tarn::clear_ieee_flags();
    tarn::IEEEFloat x;
    for (std::size_t i = 0; i < block; ++i) {
        const auto u = static_cast<std::uint32_t>(first + i);
        // from_bits makes every NaN the library's NaN: the bulk side reads the
        // payload, so NaNs are compared by pattern only, and kept out of the flags.
        const bool nan = (u & 0x7fffffffu) > 0x7f800000u;
        const unsigned before = tarn::ieee_flags();
        x = tarn::IEEEFloat::from_bits(tarn::QNumber(static_cast<long>(u)), {8, 23});
        const std::uint64_t want = tarn::encode(x, e, r, o);
        if (nan) tarn::clear_ieee_flags(~before & 0x1f);
        if (out[i] != want) {
            std::printf("input 0x%08x: bulk 0x%x, scalar 0x%llx\n", u, out[i],
                        static_cast<unsigned long long>(want));
            return false;
        }
    }
    const unsigned nan_free = tarn::ieee_flags();
    if ((raised & ~tarn::FLAG_INVALID) != (nan_free & ~tarn::FLAG_INVALID)) {
        std::printf("block 0x%08llx: flags %u, scalar %u\n", static_cast<unsigned long long>(first),
                    raised, nan_free);
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    auto r = tarn::rounding::nearest_even;
    auto o = tarn::overflow::saturate;
    unsigned threads = std::thread::hardware_concurrency();
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--round" && i + 1 < argc)
            r = static_cast<tarn::rounding>(std::stoi(argv[++i]));
        else if (arg == "--threads" && i + 1 < argc)
            threads = static_cast<unsigned>(std::stoul(argv[++i]));
        else if (arg == "--non-finite")
            o = tarn::overflow::non_finite;
        else
            names.push_back(arg);
    }
    if (names.empty())
        for (const auto name : tarn::encoding::known_names())
            if (tarn::encoding::by_name(name)->width() <= 16) names.emplace_back(name);
    for (const std::string& name : names) {
        const auto e = tarn::encoding::by_name(name);
        if (!e || e->width() > 16) {
            std::printf("%s: not a named encoding of at most 16 bits\n", name.c_str());
            return 1;
        }
        std::atomic<std::uint64_t> next{0};
        std::atomic<bool> ok{true};
        std::vector<std::thread> workers;
        for (unsigned t = 0; t < (threads ? threads : 1); ++t)
            workers.emplace_back([&] {
                for (std::uint64_t b; ok && (b = next.fetch_add(1)) < (1u << 16);)
                    if (!check_block(*e, b << 16, r, o)) ok = false;
            });
        for (std::thread& w : workers)
            w.join();
        std::printf("%s: %s\n", name.c_str(), ok ? "every float32 input agrees" : "DISAGREES");
        if (!ok) return 1;
    }
    return 0;
}
