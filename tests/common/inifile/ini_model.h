#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// What an INI file and an object that loaded it promise, said a second time and in another way.
///
/// Plain and slow, sharing no code with the product, so that the two can be compared.
class ini_model final {
 public:
  using properties = std::map<std::string, std::string>;

  /// @param text what the file holds.
  explicit ini_model(std::string text) : file_(std::move(text)) {
    std::string line;
    for (const char next : file_ + "\n") {
      if (next == '\n') {
        load(strip(strip(line, ' '), '\r'));
        line.clear();
      } else {
        line += next;
      }
    }
  }

  /// What the file holds now.
  [[nodiscard]] const std::string& file() const { return file_; }
  /// What reads find, by section.
  [[nodiscard]] const std::map<std::string, properties>& sections() const { return sections_; }

  void write_value(const std::string& section, const std::string& key, const std::string& value) {
    const std::string written = key + "=" + value;
    sections_[section][key] = value;
    bool found = false;
    std::string running;
    for (std::string& line : lines_) {
      if (is_header(line)) {
        running = name_of(line);
      } else if (has_property(line) && running == section &&
                 line.substr(0, line.find('=')) == key) {
        line = written;
        found = true;
      }
    }
    if (found) {
      save();
    } else {
      create_property(section, key, value);
    }
  }

  bool create_section(const std::string& name) {
    if (name.empty()) return false;
    lines_.push_back("\n[" + name + "]");
    save();
    return true;
  }

  bool create_property(const std::string& section, const std::string& key,
                       const std::string& value) {
    if (key.empty() || value.empty()) return false;
    return section.empty() ? create_property_no_section(key, value)
                           : create_property_in_section(section, key, value);
  }

  bool create_property_in_section(const std::string& section, const std::string& key,
                                  const std::string& value) {
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      if (is_header(lines_[i]) && name_of(lines_[i]) == section) {
        insert(i + 1, section, key, value);
        return true;
      }
    }
    return false;
  }

  bool create_property_no_section(const std::string& key, const std::string& value) {
    insert(0, "", key, value);
    return true;
  }

  void save() {
    file_.clear();
    for (const std::string& line : lines_)
      file_ += line + "\n";
  }

 private:
  static std::string strip(std::string text, char unwanted) {
    std::string stripped = text;
    while (!stripped.empty() && stripped.back() == unwanted)
      stripped.pop_back();
    // What is left of a text that is blank, or but for its first character: not worth stripping.
    if (stripped.size() < 2) return text;
    while (stripped.front() == unwanted)
      stripped.erase(0, 1);
    return stripped;
  }

  static bool is_header(const std::string& line) {
    if (line.ends_with("]\r")) return true;
    return line.starts_with("[") && line.ends_with("]");
  }

  static std::string name_of(std::string header) {
    while (header.starts_with('['))
      header.erase(0, 1);
    while (header.ends_with(']'))
      header.pop_back();
    return header;
  }

  static bool has_property(const std::string& line) {
    const std::size_t key = line.substr(0, line.find('=')).size();
    return key > 0 && key + 1 < line.size();
  }

  void load(const std::string& line) {
    if (line.size() < 2 || std::string("#%/;@").find(line[0]) != std::string::npos) return;
    lines_.push_back(line);
    if (is_header(line)) {
      std::string front = line;
      while (front.ends_with(']'))
        front.pop_back();
      if (front.size() >= 3) current_ = name_of(line);
    } else if (has_property(line)) {
      const std::size_t equals = line.find('=');
      const std::string key = strip(strip(line.substr(0, equals), ' '), '\r');
      sections_[current_][key] = strip(strip(line.substr(equals + 1), ' '), '\r');
    }
  }

  void insert(std::size_t index, const std::string& section, const std::string& key,
              const std::string& value) {
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(index), key + "=" + value);
    sections_[section][key] = value;
    save();
  }

  std::string file_;
  std::vector<std::string> lines_;
  std::map<std::string, properties> sections_;
  std::string current_;
};
