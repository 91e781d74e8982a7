#include "runner/file/accounts.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/scratch_dir.h"

using runner::accounts;

namespace {

class accounts_of_a_machine : public testing::Test {
 protected:
  accounts_of_a_machine() {
    etc_.write("passwd",
               "root:x:0:0:root:/root:/bin/bash\n"
               "broken:x:seven:7::/:\n"
               "redis:x:104:112::/var/lib/redis:/usr/sbin/nologin\n"
               "104x:x:900:900::/:/bin/sh\n");
    etc_.write("group", "root:x:0:\nredis:x:112:\nssl:x:113:web,redis\nlog:x:114:redis\n");
  }

  [[nodiscard]] accounts read() const { return accounts(etc_.path().string()); }

  scratch_dir etc_;
};

}  // namespace

TEST_F(accounts_of_a_machine, users_are_found_by_name_and_number) {
  const auto user = read().find_user("redis");
  ASSERT_TRUE(user);
  EXPECT_EQ(user->uid, 104U);
  EXPECT_EQ(user->gid, 112U);
  EXPECT_EQ(user->home, "/var/lib/redis");
  EXPECT_EQ(user->shell, "/usr/sbin/nologin");
  EXPECT_EQ(read().find_user("104")->name, "redis");
  EXPECT_EQ(read().find_user("104x")->uid, 900U);
}

TEST_F(accounts_of_a_machine, a_number_needs_no_line) {
  const auto user = read().find_user("4711");
  ASSERT_TRUE(user);
  EXPECT_EQ(user->uid, 4711U);
  EXPECT_FALSE(user->listed);
  EXPECT_EQ(read().find_group("4711"), 4711U);
}

TEST_F(accounts_of_a_machine, whoever_is_not_there_is_not_found) {
  for (const char* const none : {"redi", "broken", "", "-1", "4294967295", "redis "})
    EXPECT_FALSE(read().find_user(none)) << none;
  EXPECT_FALSE(read().find_group("nobody"));
  EXPECT_FALSE(accounts(etc_.file("missing")).find_user("root"));
}

TEST_F(accounts_of_a_machine, groups_are_those_that_list_the_user) {
  EXPECT_EQ(read().groups_of("redis", 112), (std::vector<gid_t>{112, 113, 114}));
  EXPECT_EQ(read().groups_of("web", 5), (std::vector<gid_t>{5, 113}));
  EXPECT_EQ(read().groups_of("", 5), std::vector<gid_t>{5});
}
