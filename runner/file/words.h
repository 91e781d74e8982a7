#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace runner {

/// Splits a command into words as a shell does, and expands nothing: "$HOME", "*" and "~" are what
/// they look like.
///
/// Blanks and tabs separate words. Within '...' every character stands for itself. Within "..." a
/// backslash takes the special meaning from ", \, $ and `; outside of quotes it does so for any
/// character. Characters with which a shell would do more than split (| & ; < > ( ) and #) are
/// refused where they stand unquoted: whoever writes them wants a shell.
/// @param out the words; meaningless when there is an error.
/// @return what is wrong; empty when nothing is.
std::string split_words(std::string_view text, std::vector<std::string>& out);

/// Splits a list of names with blanks, tabs or commas between them.
std::vector<std::string> split_names(std::string_view text);

}  // namespace runner
