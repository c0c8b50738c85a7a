// seed.h: the seed of a randomised test: a new one for each run, printed, and replayable by setting
// NIM_TEST_SEED, or the variable named, to the number that a failing run has printed.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

inline uint64_t TestSeed(const char* variable = "NIM_TEST_SEED")
{
    uint64_t seed;
    if (const char* given = std::getenv(variable)) {
        seed = std::strtoull(given, nullptr, 0);
    } else {
        std::random_device random;
        seed = (static_cast<uint64_t>(random()) << 32) | random();
    }
    std::cout << "seed: " << variable << "=" << seed << std::endl;
    testing::Test::RecordProperty("seed", std::to_string(seed));
    return seed;
}
