// The delays of a back-off sequence. They are random: facts are asserted directly, and for
// assertions that hold with high probability the probability of a false alarm is given.

#include <gtest/gtest.h>
#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <algorithm>
#include <array>
#include <future>
#include <limits>
#include <set>
#include <vector>

namespace orvx::communication {
namespace {

using Sequence = QunaConnectionBackoffSequence;
using std::chrono::milliseconds;

constexpr std::uint64_t kLargestCount = std::numeric_limits<std::uint64_t>::max();

void expectSteps(Sequence& sequence, const std::vector<std::int64_t>& steps) {
    for (std::size_t n = 0; n < steps.size(); ++n) {
        const milliseconds delay = sequence.nextDelay();
        EXPECT_LE(delay.count(), steps[n]) << "delay " << n;
        EXPECT_GE(delay.count(), steps[n] - steps[n] / 2) << "delay " << n;
    }
}

TEST(TheBackoffSequence, DrawsEachDelayFromTheUpperHalfOfADoublingStep) {
    for (int i = 0; i < 1000; ++i) {
        Sequence sequence(4, 500);
        expectSteps(sequence, {500, 1000, 2000, 4000, 8000});
    }
}

TEST(TheBackoffSequence, StopsGrowingAfterItsDoublings) {
    for (int i = 0; i < 1000; ++i) {
        Sequence sequence(2, 500);
        expectSteps(sequence, {500, 1000, 2000, 2000, 2000, 2000, 2000, 2000});
    }
}

TEST(TheBackoffSequence, DoesNotGrowWithoutDoublings) {
    Sequence sequence(0, 1000);
    expectSteps(sequence, std::vector<std::int64_t>(1000, 1000));
}

TEST(TheBackoffSequence, PausesTenMillisecondsAtLeast) {
    for (const std::uint64_t interval : {0U, 1U, 10U}) {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(Sequence(4, interval).nextDelay(), milliseconds(10));
        }
    }
    Sequence sequence(4, 0);
    expectSteps(sequence, {10, 10, 10, 10, 10, 10});
}

TEST(TheBackoffSequence, GrowsBeyondTheLeastPauseAsItsStepsDo) {
    for (int i = 0; i < 100; ++i) {
        Sequence sequence(4, 5);
        EXPECT_EQ(sequence.nextDelay(), milliseconds(10));
        EXPECT_EQ(sequence.nextDelay(), milliseconds(10));
        expectSteps(sequence, {20, 40, 80, 80});
    }
}

TEST(TheBackoffSequence, TakesTheLargestDurationForAStepThatDoesNotFit) {
    Sequence sequence(kLargestCount, kLargestCount);
    expectSteps(sequence, std::vector<std::int64_t>(100, milliseconds::max().count()));
}

TEST(TheBackoffSequence, DoublesUpToTheLargestDurationAndNoFurther) {
    const std::int64_t largest = milliseconds::max().count();
    Sequence fromBelow(kLargestCount, static_cast<std::uint64_t>(largest / 2));
    expectSteps(fromBelow, {largest / 2, largest - 1, largest, largest});
    Sequence fromAbove(1, static_cast<std::uint64_t>(largest / 2) + 1);
    expectSteps(fromAbove, {largest / 2 + 1, largest, largest});
}

TEST(TheBackoffSequence, DoublesAsOftenAsASmallIntervalAllows) {
    Sequence sequence(kLargestCount, 1);
    std::vector<std::int64_t> steps;
    for (int n = 0; n < 63; ++n) {
        steps.push_back(std::max(std::int64_t{1} << n, std::int64_t{10}));
    }
    steps.insert(steps.end(), 100, milliseconds::max().count());
    expectSteps(sequence, steps);
}

// A false alarm: two out of 2^62 equally likely delays meet in one of 2500 pairs, less than 1e-14.
TEST(TheBackoffSequence, DiffersFromEveryOther) {
    Sequence left(0, kLargestCount);
    Sequence right(0, kLargestCount);
    std::set<milliseconds> delays;
    for (int i = 0; i < 50; ++i) {
        delays.insert(left.nextDelay());
        delays.insert(right.nextDelay());
    }
    EXPECT_EQ(delays.size(), 100U);
}

// A false alarm: as above with 8 million pairs, less than 1e-11.
TEST(TheBackoffSequence, DiffersFromThoseThatOtherThreadsMakeAtTheSameTime) {
    const auto makeMany = [] {
        std::vector<milliseconds> delays;
        std::generate_n(std::back_inserter(delays), 1000,
                        [] { return Sequence(0, kLargestCount).nextDelay(); });
        return delays;
    };
    std::vector<std::future<std::vector<milliseconds>>> makers;
    for (int i = 0; i < 4; ++i) {
        makers.push_back(std::async(std::launch::async, makeMany));
    }
    std::set<milliseconds> delays;
    for (auto& maker : makers) {
        for (milliseconds delay : maker.get()) {
            delays.insert(delay);
        }
    }
    EXPECT_EQ(delays.size(), 4000U);
}

/// The numbers of 10,000 delays in the ten tenths of [1000, 1999].
template <typename Draw>
std::array<int, 10> tenthsOf(Draw draw) {
    std::array<int, 10> tenths{};
    for (int i = 0; i < 10000; ++i) {
        ++tenths.at(static_cast<std::size_t>(draw() - 1000) / 100);
    }
    return tenths;
}

// The expected number is 1000 delays for each tenth. By Bernstein's inequality one of them differs
// by 250 with a probability below 2 exp(-250^2 / (2 (900 + 250 / 3))) < 1e-13: the probability of a
// false alarm of any of the ten, in either test, is below 1e-11.
void expectEvenSpread(const std::array<int, 10>& tenths) {
    for (int count : tenths) {
        EXPECT_NEAR(count, 1000, 250);
    }
}

TEST(TheBackoffSequence, SpreadsItsDelaysEvenlyOverTheUpperHalf) {
    Sequence sequence(0, 1999);
    expectEvenSpread(tenthsOf([&] { return sequence.nextDelay().count(); }));
}

TEST(TheBackoffSequence, SpreadsTheFirstDelaysOfManySequencesEvenly) {
    expectEvenSpread(tenthsOf([] { return Sequence(4, 1999).nextDelay().count(); }));
}

// A false alarm: 10,000 draws of eleven delays omit one, 11 (10/11)^10000 < 1e-400.
TEST(TheBackoffSequence, ReachesBothEndsOfAStep) {
    Sequence sequence(0, 20);
    std::set<milliseconds> delays;
    for (int i = 0; i < 10000; ++i) {
        delays.insert(sequence.nextDelay());
    }
    EXPECT_EQ(delays.size(), 11U);
    EXPECT_EQ(*delays.begin(), milliseconds(10));
    EXPECT_EQ(*delays.rbegin(), milliseconds(20));
}

}  // namespace
}  // namespace orvx::communication
