#pragma once

namespace runner {

/// Writes the last `count` decimal digits of `value`, with leading zeros, to `out`.
/// @return what is behind them.
inline char* put_digits(char* out, unsigned long value, int count) noexcept {
  for (int i = count - 1; i >= 0; --i, value /= 10)
    out[i] = static_cast<char>('0' + value % 10);
  return out + count;
}

}  // namespace runner
