#include "PelmoLib/encodings/NSNumber+Random.h"

#include <cmath>
#include <random>

#include "platform/base/Date.h"
#include "platform/base/Exception.h"

namespace velkor {

namespace {

std::mt19937& generator() {
    static std::mt19937 state;
    return state;
}

}  // namespace

void seedRandomNumberGenerator() {
    seedRandomNumberGenerator(
        static_cast<std::uint32_t>(static_cast<std::int64_t>(std::floor(NS::Date::now().timeIntervalSince1970()))));
}

void seedRandomNumberGenerator(std::uint32_t seed) { generator().seed(seed); }

std::int64_t numberWithRandomValueBetweenStart(std::int32_t start, std::int32_t end) {
    NS::assertThat(start != end, "start != end");
    return std::int64_t{nextRandomNumber()} % (std::int64_t{end} - start) + start;
}

std::uint32_t nextRandomNumber() { return static_cast<std::uint32_t>(generator()()); }
double nextRandomRealClosed() { return nextRandomNumber() * (1.0 / 4294967295.0); }
double nextRandomRealHalfOpen() { return nextRandomNumber() * (1.0 / 4294967296.0); }
double nextRandomRealOpen() { return (nextRandomNumber() + 0.5) * (1.0 / 4294967296.0); }
double nextRandomReal53() {
    const std::uint32_t high = nextRandomNumber() >> 5;
    const std::uint32_t low = nextRandomNumber() >> 6;
    return (high * 67108864.0 + low) * (1.0 / 9007199254740992.0);
}

}  // namespace velkor
