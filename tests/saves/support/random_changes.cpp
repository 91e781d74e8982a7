#include "tests/saves/support/random_changes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "common/misc/unique_fd.h"
#include "tests/saves/support/saving.h"
#include "tests/support/scratch_dir.h"

namespace fs = std::filesystem;
using std::chrono::microseconds;

namespace {

/// Reading it takes some milliseconds, in which the next step can be made.
const std::string& padding() {
  static const std::string text = [] {
    std::string lines;
    while (lines.size() < 128 * 1024)
      lines += "; nothing to be seen here, and a lot of it, so that reading takes its time\n";
    return lines;
  }();
  return text;
}

unique_fd open_to_write(const fs::path& path, int flags) {
  unique_fd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644));
  if (!file.valid()) throw std::runtime_error("cannot open " + path.string());
  return file;
}

void write_part(const unique_fd& file, std::string_view part) {
  if (::write(file.get(), part.data(), part.size()) != static_cast<ssize_t>(part.size()))
    throw std::runtime_error("cannot write");
}

}  // namespace

random_changes::random_changes(path site, layout how, std::mt19937& random)
    : site_(std::move(site)), layout_(how), random_(random) {
  lay_out(how);
}

void random_changes::lay_out(layout how) {
  const path file = config("server.ini");
  fs::create_directories(site_ / "versions" / "first");
  if (how == layout::config_link) {
    fs::rename(site_ / "config", site_ / "first");
    fs::create_directory_symlink("first", site_ / "config");
  } else if (how != layout::file) {
    fs::remove(file);
    fs::create_directory_symlink("versions/first", site_ / "current");
    write_file(site_ / "current" / "server.ini", "");
    if (how == layout::chain) {
      fs::create_symlink("middle", file);
      fs::create_symlink(site_ / "current" / "server.ini", config("middle"));
    } else {
      fs::create_symlink(
          how == layout::link ? "../versions/first/server.ini" : "../current/server.ini", file);
    }
  }
  write_file(file, fresh_text());
}

void random_changes::make() {
  story_.clear();
  longest_absence_ = {};
  for (int moves = random(1, 4); moves > 0; --moves)
    move();
}

std::string random_changes::standing() const {
  const std::string text = read_file(config("server.ini"));
  const std::size_t name = text.rfind(' ') + 1;
  if (!text.ends_with('\n')) throw std::runtime_error("no whole file is there:\n" + story_);
  return text.substr(name, text.size() - name - 1);
}

int random_changes::random(int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(random_);
}

/// Tools go on at once, and people do not.
void random_changes::rest() {
  const int kind = random(0, 9);
  if (kind >= 6) std::this_thread::sleep_for(microseconds(random(0, kind == 9 ? 40000 : 3000)));
}

void random_changes::step(const std::string& what, bool changes, const std::function<void()>& act) {
  const auto from = clock::now();
  act();
  const auto to = clock::now();
  story_ += what + "\n";
  if (changes) {
    changed_from_ = from;
    changed_to_ = to;
  }
  rest();
}

std::string random_changes::fresh_text() {
  return padding() + "[keelmond]\nlinux = 1\nsvr1 = " + saving::name_of(++files_) + "\n";
}

random_changes::path random_changes::draft_beside(const path& target) {
  const path draft = target.parent_path() / ("draft" + std::to_string(files_ + 1));
  step("write " + draft.filename().string(), false, [&] { write_file(draft, fresh_text()); });
  return draft;
}

void random_changes::move() {
  const path file = config("server.ini");
  switch (random(0, 10)) {
    case 0:
      return write(file, "server.ini");
    case 1:
      return overwrite();
    case 2:
      return replace(file);
    case 3:
      return replace(fs::canonical(file));
    case 4:
    case 5:
      return take_away();
    case 6:
      return turn_file_link();
    case 7:
      return turn_directory_link();
    case 8:
      return write_by_other_name();
    case 9:
      return turn_link_ahead();
    default:
      return disturb();
  }
}

/// Empties the file, which may not be there yet, and writes it in up to three parts.
void random_changes::write(const path& target, const std::string& what) {
  unique_fd file;
  step("empty " + what, true, [&] { file = open_to_write(target, O_CREAT | O_TRUNC); });
  const std::string text = fresh_text();
  const int parts = random(1, 3);
  for (int part = 0; part < parts; ++part) {
    const auto at = [&](int number) {
      return text.size() * static_cast<std::size_t>(number) / static_cast<std::size_t>(parts);
    };
    const std::string_view all = text;
    step("write part " + std::to_string(part + 1) + " of " + std::to_string(parts), true,
         [&] { write_part(file, all.substr(at(part), at(part + 1) - at(part))); });
  }
}

/// Another name of the same length, and the file is never empty.
void random_changes::overwrite() {
  step("overwrite server.ini", true, [&] {
    const std::string text = fresh_text();
    const unique_fd file = open_to_write(config("server.ini"), 0);
    write_part(file, text);
  });
}

void random_changes::replace(const path& target) {
  const path draft = draft_beside(target);
  step("rename it to " + target.string(), true, [&] { fs::rename(draft, target); });
}

/// Moves the file away or deletes it, and puts one there soon.
void random_changes::take_away() {
  const path file = config("server.ini");
  const bool keep = random(0, 1) == 0;
  // A draft that is written while no file is there makes that take longer.
  absent_since_ = clock::now();
  if (keep) {
    step("rename server.ini to server.ini~", true,
         [&] { fs::rename(file, config("server.ini~")); });
  } else {
    step("unlink server.ini", true, [&] { fs::remove(file); });
  }
  put_there(keep);
}

void random_changes::put_there(bool old_is_kept) {
  const path file = config("server.ini");
  switch (random(0, old_is_kept ? 4 : 3)) {
    case 0:
      write(file, "server.ini");
      break;
    case 1:
      replace(file);
      break;
    case 2: {
      const path draft = draft_beside(file);
      step("link it to server.ini", true, [&] { fs::create_hard_link(draft, file); });
      step("unlink it", false, [&] { fs::remove(draft); });
      break;
    }
    case 3: {
      const path draft = draft_beside(site_ / "versions" / "any");
      step("symlink server.ini to it", true, [&] { fs::create_symlink(draft, file); });
      break;
    }
    default:
      step("rename server.ini~ back", true, [&] { fs::rename(config("server.ini~"), file); });
  }
  note_absence();
}

void random_changes::note_absence() {
  longest_absence_ = std::max(longest_absence_, clock::now() - absent_since_);
}

void random_changes::turn_file_link() {
  const path draft = draft_beside(site_ / "versions" / "any");
  const path link = config("next");
  step("symlink another name to it", false, [&] { fs::create_symlink(draft, link); });
  step("rename that to server.ini", true, [&] { fs::rename(link, config("server.ini")); });
}

/// Turns the link first, and then makes the file that it leads to.
void random_changes::turn_link_ahead() {
  const std::string target = "ahead" + std::to_string(files_ + 1);
  const path link = config("next");
  step("symlink another name to " + target, false,
       [&] { fs::create_symlink(site_ / "versions" / target, link); });
  absent_since_ = clock::now();
  step("rename that to server.ini", true, [&] { fs::rename(link, config("server.ini")); });
  write(site_ / "versions" / target, target);
  note_absence();
}

/// Turns the link to a directory on the way to the file, where there is one.
void random_changes::turn_directory_link() {
  if (layout_ == layout::file || layout_ == layout::link) return disturb();
  const path link = site_ / (layout_ == layout::config_link ? "config" : "current");
  // It is not any more when server.ini has become a file.
  const bool on_the_way =
      layout_ == layout::config_link ||
      fs::canonical(config("server.ini")) == fs::weakly_canonical(link / "server.ini");
  const std::string version = "version" + std::to_string(files_ + 1);
  const path directory = site_ / "versions" / version;
  step("write " + version + "/server.ini", false, [&] {
    fs::create_directory(directory);
    write_file(directory / "server.ini", fresh_text());
  });
  step("symlink next to it", false,
       [&] { fs::create_directory_symlink(directory, site_ / "next"); });
  step("rename that to " + link.filename().string(), on_the_way,
       [&] { fs::rename(site_ / "next", link); });
}

void random_changes::write_by_other_name() {
  const path other = site_ / "versions" / ("other" + std::to_string(files_ + 1));
  step("link server.ini to another name", false,
       [&] { fs::create_hard_link(fs::canonical(config("server.ini")), other); });
  write(other, "the other name");
}

/// What does not concern the file: its neighbours, and files that had its name.
void random_changes::disturb() {
  const path other = config("other");
  switch (random(0, 4)) {
    case 0:
      return step("write other", false, [&] { write_file(other, "other"); });
    case 1:
      return step("unlink other", false, [&] { fs::remove(other); });
    case 2:
      write_file(other, "other");
      return step("rename other to server.ini.swp", false,
                  [&] { fs::rename(other, config("server.ini.swp")); });
    case 3:
      return step("write server.ini~", false, [&] {
        // Not through a link, nor to a file that has the name again.
        fs::remove(config("server.ini~"));
        write_file(config("server.ini~"), "old");
      });
    default:
      return step("turn a link beside", false, [&] {
        fs::remove(config("link"));
        fs::create_symlink("server.ini", config("link"));
      });
  }
}
