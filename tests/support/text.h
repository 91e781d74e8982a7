#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// How often `part` occurs in `text`, without overlaps.
std::size_t count(std::string_view text, std::string_view part);

/// Whether `part` occurs in `text`.
bool contains(std::string_view text, std::string_view part);

/// The lines of a text, without their ends.
std::vector<std::string> lines_of(const std::string& text);
