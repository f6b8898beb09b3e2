#ifndef OSTRELLED_TESTS_FUZZ_FUZZINPUT_H
#define OSTRELLED_TESTS_FUZZ_FUZZINPUT_H

// What the fuzz targets share: the public interface, reading the fuzzer's bytes, the check that crashes.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <ostrelled/Ostrelled.h>

namespace fuzz {

inline void check(bool holds, const char* what, const std::string& detail = std::string()) {
  if (holds) return;
  fprintf(stderr, "mismatch: %s [%s]\n", what, detail.c_str());
  abort();
}

// The fuzzer's bytes, taken from the front; an exhausted input reads zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  bool empty() const { return m_size == 0; }

  // A bool is made from one byte's low bit: other byte values are no bool.
  template <typename T>
  T take() {
    if constexpr (std::is_same_v<T, bool>) return (byte() & 1) != 0;
    T value{};
    const size_t n = m_size < sizeof(T) ? m_size : sizeof(T);
    memcpy(&value, m_data, n);
    m_data += n;
    m_size -= n;
    return value;
  }

  uint8_t byte() { return take<uint8_t>(); }

  // Up to max bytes, stopping after a zero byte (not kept): a C string's text.
  std::string text(size_t max = 64) {
    std::string out;
    while (m_size > 0 && out.size() < max) {
      const char c = static_cast<char>(byte());
      if (c == '\0') break;
      out += c;
    }
    return out;
  }

  // Everything left, up to the first zero byte.
  std::string rest() { return text(m_size); }

 private:
  const uint8_t* m_data;
  size_t m_size;
};

// A caller's counted-string block (a 32-bit length word, then the bytes); freed with freeUnit.
inline LPBSTRUNIT newUnit(const std::string& bytes) {
  char* unit = new char[bytes.size() + 4];
  const int length = static_cast<int>(bytes.size());
  memcpy(unit, &length, 4);
  memcpy(unit + 4, bytes.data(), bytes.size());
  return reinterpret_cast<LPBSTRUNIT>(unit);
}

inline void freeUnit(LPBSTRUNIT unit) { delete[] reinterpret_cast<char*>(unit); }

}  // namespace fuzz

#endif
