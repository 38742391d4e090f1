/// Words to and from the byte order of the wire, in one memory access each: compilers do not reliably combine accesses
/// to single bytes (docs/development/performance.md: double bodies).
#pragma once

#include <cstdint>
#include <cstring>

namespace VORN {
namespace PROTO {

/// The bytes of a word in reverse.
/// @{
inline uint16_t swap_bytes(uint16_t word) {
  return __builtin_bswap16(word);
}
inline uint32_t swap_bytes(uint32_t word) {
  return __builtin_bswap32(word);
}
inline uint64_t swap_bytes(uint64_t word) {
  return __builtin_bswap64(word);
}
/// @}

/// From the machine's order to the one that is named, or back.
/// @{
template <typename Word>
inline Word big_endian(Word word) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return swap_bytes(word);
#else
  return word;
#endif
}

template <typename Word>
inline Word little_endian(Word word) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return word;
#else
  return swap_bytes(word);
#endif
}
/// @}

/// Store a word at an address of any alignment, and load one from there.
/// REQUIRES: `sizeof(Word)` bytes there.
/// @{
template <typename Word>
inline void store_little_endian(void* at, Word word) {
  word = little_endian(word);
  std::memcpy(at, &word, sizeof word);
}

template <typename Word>
inline void store_big_endian(void* at, Word word) {
  word = big_endian(word);
  std::memcpy(at, &word, sizeof word);
}

template <typename Word>
inline Word load_big_endian(const void* at) {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return big_endian(word);
}
/// @}

}  // namespace PROTO
}  // namespace VORN
