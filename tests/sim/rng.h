// The one source of chance of a history.
#ifndef ORV_TESTS_SIM_RNG_H_
#define ORV_TESTS_SIM_RNG_H_

#include <cstdint>
#include <span>

namespace orv::sim {

class Rng {  // splitmix64
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = state_ += 0x9e3779b97f4a7c15U;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
    return z ^ (z >> 31);
  }
  // 0 .. limit-1.
  std::uint64_t below(std::uint64_t limit) { return limit == 0 ? 0 : next() % limit; }
  std::int64_t between(std::int64_t low, std::int64_t high) {
    return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low + 1)));
  }
  bool one_in(std::uint64_t n) { return below(n) == 0; }
  template <class T>
  const T& pick(std::span<const T> of) {
    return of[below(of.size())];
  }

 private:
  std::uint64_t state_;
};

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_RNG_H_
