#pragma once

#include <cstddef>
#include <span>

namespace runner {

/// Memory that can be given back to the system and taken anew without asking.
class page_buffer final {
 public:
  /// There is none, and `space` is empty, when the system has none.
  explicit page_buffer(std::size_t size) noexcept;
  page_buffer(const page_buffer&) = delete;
  page_buffer& operator=(const page_buffer&) = delete;
  ~page_buffer();

  [[nodiscard]] std::span<char> space() const noexcept { return space_; }
  /// Forgets what is in it: until it is written again, it takes no memory.
  void give_back() noexcept;

 private:
  std::span<char> space_;
};

}  // namespace runner
