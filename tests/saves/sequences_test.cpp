#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include "tests/e2e/support/installation.h"
#include "tests/saves/support/random_changes.h"
#include "tests/saves/support/saving.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

using std::chrono::milliseconds;
using layout = random_changes::layout;

namespace {

/// How long the supervisor may take, once nothing changes any more, and how long on a machine that
/// is busy for a moment.
constexpr milliseconds kCalm{3000};
constexpr milliseconds kBusy{10000};
/// A file may be absent for half a second. Where a busy machine has made it longer, nothing can be
/// said.
constexpr milliseconds kLongestAbsence{350};
/// How near to a pause a change is that may have been in it: the supervisor notes the end of one a
/// little before it watches.
constexpr milliseconds kNear{5};

struct layout_case {
  std::string name;
  layout how;
};

std::ostream& operator<<(std::ostream& out, const layout_case& one) {
  return out << one.name;
}

/// Where a change lies, seen from the pauses.
enum class lies { outside, near, within };

lies position(const installation& place, const random_changes& changes) {
  lies found = lies::outside;
  for (const stress::pause& one : stress::noted_pauses(place)) {
    if (changes.changed_to() < one.begin) continue;
    if (changes.changed_from() <= one.end) return lies::within;
    if (changes.changed_from() - kNear <= one.end) found = lies::near;
  }
  return found;
}

/// The last pauses, as times since the change.
std::string pauses_from(const installation& place, const random_changes& changes) {
  std::ostringstream text;
  const auto since = [&](stress::pause::clock::time_point moment) {
    return std::chrono::duration<double, std::milli>(moment - changes.changed_to()).count();
  };
  const auto pauses = stress::noted_pauses(place);
  for (std::size_t i = pauses.size() - std::min<std::size_t>(pauses.size(), 3); i < pauses.size();
       ++i) {
    text << "pause from " << since(pauses[i].begin) << " ms to " << since(pauses[i].end)
         << " ms after the last change\n";
  }
  return text.str();
}

/// What the last load has read, as far as it has got.
bool has_loaded(const installation& place, const std::string& name) {
  const std::string console = place.console();
  const std::size_t load = console.rfind("loadServerConfig : ");
  return load != std::string::npos &&
         console.find("read ini file " + name + " \r\n", load) != std::string::npos;
}

/// An installation whose configuration changes at random.
class changing_installation final {
 public:
  changing_installation(layout how, std::mt19937& random) : changes_(place_.site(), how, random) {
    place_.start(stress::fast());
  }

  /// Changes it, and lets the supervisor become calm.
  /// @return whether what is there then has been loaded.
  bool change() {
    changes_.make();
    const std::string name = changes_.standing();
    const auto settled = [&] { return has_loaded(place_, name) || position() == lies::within; };
    is_late_ = !wait_until(settled, kCalm) && wait_until(settled, kBusy);
    return has_loaded(place_, name);
  }
  /// Whether that took longer than it should on a machine with nothing else to do.
  [[nodiscard]] bool is_late() const { return is_late_; }
  [[nodiscard]] bool is_legal() const { return changes_.longest_absence() < kLongestAbsence; }
  [[nodiscard]] bool is_supervised() const { return process_table::is_alive(place_.daemon()); }
  [[nodiscard]] lies position() const { return ::position(place_, changes_); }
  [[nodiscard]] std::string story() const {
    const std::string console = place_.console();
    return changes_.story() + "There is " + changes_.standing() + "; the last loads:\n" +
           console.substr(console.size() - std::min<std::size_t>(console.size(), 300)) +
           pauses_from(place_, changes_) + place_.errors();
  }

 private:
  installation place_;
  random_changes changes_;
  bool is_late_ = false;
};

class sequences : public testing::TestWithParam<layout_case> {};

}  // namespace

TEST_P(sequences, of_changes_end_with_what_is_there) {
  auto random = stress::random_numbers();
  const int wanted = stress::rounds(200, 8);
  std::unique_ptr<changing_installation> place;
  int made = 0;
  int taken = 0;
  int near = 0;
  int missed = 0;
  int late = 0;
  // About every third ends within a pause, and does not count.
  for (; taken + missed < wanted && made < 10 * wanted; ++made) {
    if (!place) place = std::make_unique<changing_installation>(GetParam().how, random);
    stress::sleep_ms(stress::between(random, 0, 60));
    const bool loaded = place->change();
    const bool lives = place->is_supervised();
    if (place->is_late()) ++late;
    if (loaded && lives) {
      ++taken;
    } else if (!place->is_legal()) {
      place.reset();
    } else if (!lives || place->position() == lies::outside) {
      ++missed;
      std::printf("missed, sequence %d%s:\n%s\n", made,
                  lives ? "" : ", and the supervisor has ended", place->story().c_str());
      place.reset();
    } else if (place->position() == lies::near) {
      ++near;
    }
  }
  std::printf(
      "of %d sequences: %d taken, %d of them late, %d missed, %d near a pause, the others within "
      "one\n",
      made, taken, late, missed, near);
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(taken + missed, wanted) << "the machine is too busy";
  EXPECT_LE(near, 2 + made / 50);
  // Beside other tests the machine may be busy for longer.
  EXPECT_LE(late, stress::rounds(1 + made / 20, made));
}

INSTANTIATE_TEST_SUITE_P(of, sequences,
                         testing::Values(layout_case{"a_file", layout::file},
                                         layout_case{"a_link", layout::link},
                                         layout_case{"a_directory_link", layout::directory_link},
                                         layout_case{"a_config_link", layout::config_link},
                                         layout_case{"a_chain", layout::chain}),
                         saving::by_name{});
