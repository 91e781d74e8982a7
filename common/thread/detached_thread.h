#pragma once

#include <cstddef>

/// Starts a thread that lives as long as the process and that nobody joins, with `stack_size` bytes
/// of stack.
/// @return whether it could be created.
bool start_detached_thread(void* (*body)(void*), std::size_t stack_size) noexcept;
