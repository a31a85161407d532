// Letter case and hex digits as the device and Windows paths use them: ASCII
// only, the same under every locale.
#pragma once

#include <cstddef>
#include <string>

namespace ferrolt::platform {

inline char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

inline char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

inline std::string AsciiLowered(std::string text) {
  for (char& c : text) c = AsciiLower(c);
  return text;
}

// The value of a hex digit in either case; -1 for any other character.
inline int HexDigitValue(char c) {
  constexpr int kDecimalDigits = 10;
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + kDecimalDigits;
  if (c >= 'A' && c <= 'F') return c - 'A' + kDecimalDigits;
  return -1;
}

// Reads up to maxDigits hex digits from text into value, stopping at the
// first other character (the terminating zero included). Returns how many
// digits it read.
inline size_t ReadHexDigits(const char* text, size_t maxDigits, unsigned& value) {
  constexpr unsigned kHexRadix = 16;
  value = 0;
  size_t read = 0;
  for (; read < maxDigits && HexDigitValue(text[read]) >= 0; ++read)
    value = value * kHexRadix + static_cast<unsigned>(HexDigitValue(text[read]));
  return read;
}

}  // namespace ferrolt::platform
