// What the properties draw their cases by. With rapidcheck a case that fails is shrunk; it comes in
// one width only, and in the other the cases are those of a seed (DATAMORPH_PROPERTY_SEED).
#ifndef TESTS_PROPERTY_DRAWS_H
#define TESTS_PROPERTY_DRAWS_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace draws {

constexpr int cases = 1000; // of each property

} // namespace draws

#ifdef DATAMORPH_RAPIDCHECK

#include <rapidcheck.h>

#define HOLDS(...) RC_ASSERT(__VA_ARGS__)

namespace draws {

inline int in_range(int first, int end) {
  return *rc::gen::inRange(first, end);
}

inline uint32_t any_number() {
  return *rc::gen::arbitrary<uint32_t>();
}

// Two of three times below `usual`, else from there to before `end`.
inline int mostly_below(int usual, int end) {
  return *rc::gen::weightedOneOf<int>(
      {{2, rc::gen::inRange(0, usual)}, {1, rc::gen::inRange(usual, end)}});
}

// Whether the property holds for all cases.
template <typename property> bool check(const char *name, property &&holds) {
  setenv("RC_PARAMS", ("max_success=" + std::to_string(cases)).c_str(), 0);
  return rc::check(name, std::forward<property>(holds));
}

} // namespace draws

#else

#define HOLDS(...)                                                                                 \
  do {                                                                                             \
    if (!(__VA_ARGS__)) {                                                                          \
      throw draws::broken{#__VA_ARGS__, __LINE__};                                                 \
    }                                                                                              \
  } while (false)

namespace draws {

struct broken {
  const char *what;
  int line;
};

inline std::mt19937 &source() {
  static std::mt19937 random;
  return random;
}

inline uint32_t any_number() {
  return static_cast<uint32_t>(source()());
}

inline int in_range(int first, int end) {
  return first + static_cast<int>(any_number() % static_cast<uint32_t>(end - first));
}

inline int mostly_below(int usual, int end) {
  return in_range(0, 3) < 2 ? in_range(0, usual) : in_range(usual, end);
}

template <typename property> bool check(const char *name, property &&holds) {
  const char *const wanted = std::getenv("DATAMORPH_PROPERTY_SEED");
  const unsigned long seed = wanted == nullptr ? 1 : std::strtoul(wanted, nullptr, 10);
  source().seed(static_cast<uint32_t>(seed));
  for (int number = 1; number <= cases; ++number) {
    try {
      holds();
    } catch (const broken &found) {
      std::printf("%s: case %d of seed %lu: line %d: %s\n", name, number, seed, found.line,
                  found.what);
      return false;
    }
  }
  std::printf("%s: %d cases of seed %lu hold\n", name, cases, seed);
  return true;
}

} // namespace draws

#endif

#endif
