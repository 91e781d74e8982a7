#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstddef>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"

namespace fs = std::filesystem;

namespace {

using nlohmann::json;

/// The paths of all that is no object: "daemon.pid", "programs[].name".
void add_fields(const json& value, const std::string& path, std::set<std::string>& out) {
  if (value.is_array() && !value.empty() && value.front().is_object()) {
    for (const json& one : value)
      add_fields(one, path + "[]", out);
  } else if (value.is_object()) {
    for (const auto& [key, below] : value.items())
      add_fields(below, path.empty() ? key : path + "." + key, out);
  } else {
    out.insert(path);
  }
}

/// The texts between backticks in the first column of the table below `heading`. One that begins
/// with a dot lies where the one before it does.
std::set<std::string> documented_fields(const std::string& heading) {
  const std::string text = read_file(fs::path(KEELMOND_SOURCE_DIR) / "docs" / "keelmondctl.md");
  std::istringstream table(text.substr(text.find("| Field |", text.find(heading))));
  std::set<std::string> fields;
  for (std::string line; std::getline(table, line) && line.starts_with("|");) {
    const std::string column = line.substr(0, line.find('|', 1));
    std::string last;
    for (std::size_t at = column.find('`'); at != std::string::npos; at = column.find('`', at)) {
      const std::size_t end = column.find('`', at + 1);
      const std::string field = column.substr(at + 1, end - at - 1);
      last = field.starts_with('.') ? last.substr(0, last.rfind('.')) + field : field;
      fields.insert(last);
      at = end + 1;
    }
  }
  return fields;
}

}  // namespace

TEST(control_json, of_status_has_the_fields_that_are_documented) {
  installation place;
  place.start_with(place.add_steady());
  std::set<std::string> fields;
  add_fields(json::parse(control(place, {"status", "--json"}).output), "", fields);
  EXPECT_EQ(fields, documented_fields("`--json` gives this"));
}
