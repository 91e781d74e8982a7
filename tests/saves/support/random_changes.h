#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

/// Makes changes to a configuration file and its neighbours, step by step and at random, as tools
/// and people make them: writes, renames, links. Never is the file absent for long.
///
/// Written for one thread; throws std::system_error and std::runtime_error.
class random_changes final {
 public:
  using clock = std::chrono::steady_clock;

  /// How server.ini is reached.
  enum class layout { file, link, directory_link, config_link, chain };

  /// @param site the directory that "config" is in. The file is put there at once.
  random_changes(std::filesystem::path site, layout how, std::mt19937& random);

  /// Makes a few changes. Afterwards a whole file is there.
  void make();

  /// The last word of the file that is there.
  [[nodiscard]] std::string standing() const;
  /// When what is there became so: the step took from one to the other.
  [[nodiscard]] clock::time_point changed_from() const { return changed_from_; }
  [[nodiscard]] clock::time_point changed_to() const { return changed_to_; }
  /// For how long the file was absent in the last `make`, at most.
  [[nodiscard]] clock::duration longest_absence() const { return longest_absence_; }
  /// The steps of the last `make`.
  [[nodiscard]] const std::string& story() const { return story_; }

 private:
  using path = std::filesystem::path;

  void lay_out(layout how);
  void step(const std::string& what, bool changes, const std::function<void()>& act);
  void rest();
  int random(int low, int high);
  [[nodiscard]] path config(const std::string& name) const { return site_ / "config" / name; }
  [[nodiscard]] std::string fresh_text();
  /// Another file beside `target`, with new text.
  path draft_beside(const path& target);

  void move();
  void write(const path& target, const std::string& what);
  void overwrite();
  void replace(const path& target);
  void take_away();
  void put_there(bool old_is_kept);
  void note_absence();
  void turn_file_link();
  void turn_link_ahead();
  void turn_directory_link();
  void write_by_other_name();
  void disturb();

  path site_;
  layout layout_;
  std::mt19937& random_;
  int files_ = 0;
  clock::time_point changed_from_;
  clock::time_point changed_to_;
  clock::time_point absent_since_;
  clock::duration longest_absence_{};
  std::string story_;
};
