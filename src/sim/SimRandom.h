// A small, fast, seedable random generator for the simulated card's noise.
//
// The card draws a few hundred normal deviates per record (peak position jitter, detector noise
// on the full-spectrum samples), up to tens of thousands of records per second in free-running
// mode, so the generator must be cheap. It must also be deterministic for a given seed, so that
// unit tests stepping the card see the same records on every run. xoshiro256** seeded through
// splitmix64 gives both; normals come from the polar Box-Muller method, two per draw.
#pragma once

#include <cmath>
#include <cstdint>

namespace sim {

class CSimRandom {
 public:
  explicit CSimRandom(uint64_t seed = 1) { Seed(seed); }

  void Seed(uint64_t seed) {
    for (uint64_t& s : State) {
      seed += 0x9E3779B97F4A7C15ull;  // splitmix64 spreads any seed (even 0) over the state
      uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      s = z ^ (z >> 31);
    }
    bSpare = false;
  }

  uint64_t Next() {
    const uint64_t result = Rotl(State[1] * 5, 7) * 9;
    const uint64_t t = State[1] << 17;
    State[2] ^= State[0];
    State[3] ^= State[1];
    State[1] ^= State[2];
    State[0] ^= State[3];
    State[2] ^= t;
    State[3] = Rotl(State[3], 45);
    return result;
  }

  // Uniform in [0, 1).
  double Uniform() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

  // Normal deviate limited to two standard deviations: a detector's peak-centre estimate
  // scatters like a normal deviate but never by more than a couple of sigma (it would not
  // have found the peak). Deviates beyond the limit are drawn again.
  double BoundedNormal(double sigma) {
    for (;;) {
      const double x = Normal(1.0);
      if (x >= -2.0 && x <= 2.0) return x * sigma;
    }
  }

  // Normal deviate with mean 0 and the given standard deviation.
  double Normal(double sigma) {
    if (bSpare) {
      bSpare = false;
      return Spare * sigma;
    }
    double u, v, s;
    do {
      u = 2.0 * Uniform() - 1.0;
      v = 2.0 * Uniform() - 1.0;
      s = u * u + v * v;
    } while (s >= 1.0 || s == 0.0);
    const double f = std::sqrt(-2.0 * std::log(s) / s);
    Spare = v * f;
    bSpare = true;
    return u * f * sigma;
  }

 private:
  static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  uint64_t State[4];
  double Spare = 0.0;   // second deviate of the last polar draw
  bool bSpare = false;  // Spare is unused
};

}  // namespace sim
