// workload.h: the records of the benchmark. Record n is a function of n, so that any key can be
// made again for a find without a copy of the table in memory; names and hashes come in random
// order.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "nim/unique.h"

// SplitMix64: a counter, well mixed.
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}

    uint64_t Next()
    {
        uint64_t z = (state_ += 0x9e3779b97f4a7c15u);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
        return z ^ (z >> 31);
    }

    uint32_t Below(uint32_t n) { return uint32_t((Next() >> 32) * n >> 32); }

  private:
    uint64_t state_;
};

struct Sample {
    std::string name; // 8 to 24 bytes
    int32_t size = 0; // 50,000 different ones
    int64_t stamp = 0;
    UniqueId hash = {};
    std::string note; // 20 to 60 bytes
};

inline void FillText(std::string& text, uint32_t length, const char (&letters)[65], Random& random)
{
    text.resize(length);
    for (char& c : text)
        c = letters[random.Next() >> 58];
}

inline void MakeSample(Sample& sample, uint64_t n)
{
    static constexpr char NAME_LETTERS[] =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-";
    static constexpr char NOTE_LETTERS[] =
        "the quick brown fox jumps over a lazy dog; pack my box with five";
    Random random(n * 0xd1342543de82ef95u + 0x5eed);
    FillText(sample.name, 8 + random.Below(17), NAME_LETTERS, random);
    sample.size = int32_t(random.Below(50000));
    sample.stamp = int64_t(random.Next() >> 1);
    for (size_t i = 0; i < sizeof sample.hash.b; i += 8) {
        uint64_t part = random.Next();
        std::memcpy(sample.hash.b + i, &part, 8);
    }
    FillText(sample.note, 20 + random.Below(41), NOTE_LETTERS, random);
}
