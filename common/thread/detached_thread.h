#pragma once

#include <cstddef>
#include <span>

/// Starts a thread that lives as long as the process and that nobody joins.
/// @param stack what it runs on, and nothing else ever uses.
/// @return whether it could be created.
bool start_detached_thread(void* (*body)(void*), std::span<std::byte> stack) noexcept;

/// The same, on a stack of `small_stack_size` that forked children do not get.
bool start_detached_thread(void* (*body)(void*)) noexcept;
