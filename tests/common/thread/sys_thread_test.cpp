#include "common/thread/sys_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/fault.h"
#include "tests/support/wait_until.h"

namespace {

using std::chrono::milliseconds;

static_assert(std::is_abstract_v<Tsys_thread>);
static_assert(std::has_virtual_destructor_v<Tsys_thread>);

/// Runs a function as its body.
class test_thread final : public Tsys_thread {
 public:
  explicit test_thread(std::function<void(test_thread&)> body) : body_(std::move(body)) {}

 private:
  void virtual_thread_proc() override { body_(*this); }

  std::function<void(test_thread&)> body_;
};

/// A body that counts its runs and each time waits to be let go.
class held_thread final : public Tsys_thread {
 public:
  ~held_thread() override { Stop(); }
  [[nodiscard]] int runs() const { return runs_; }
  void let_go() { ++tickets_; }
  bool wait_for_runs(int count) const {
    return wait_until([&] { return runs_ == count && IsRunning(); });
  }

 private:
  void virtual_thread_proc() override {
    const int ticket = ++runs_;
    wait_until([&] { return tickets_ >= ticket || IsAbort(); });
  }

  std::atomic<int> runs_{0};
  std::atomic<int> tickets_{0};
};

/// Notes every thread that is created and joins them all in the end.
class joined_at_the_end final {
 public:
  joined_at_the_end() {
    faults.pthread_create = [this](pthread_t* thread, const pthread_attr_t* attributes,
                                   void* (*body)(void*), void* argument) {
      const int error = real::pthread_create(thread, attributes, body, argument);
      if (error == 0) threads_.push_back(*thread);
      return error;
    };
  }
  joined_at_the_end(const joined_at_the_end&) = delete;
  joined_at_the_end& operator=(const joined_at_the_end&) = delete;
  ~joined_at_the_end() {
    faults.pthread_create = nullptr;
    for (const pthread_t thread : threads_)
      ::pthread_join(thread, nullptr);
  }
  [[nodiscard]] std::size_t count() const { return threads_.size(); }

 private:
  std::vector<pthread_t> threads_;
};

class sys_thread : public testing::Test {
 protected:
  no_faults_afterwards clean_up_;
};

TEST_F(sys_thread, a_fresh_object_is_aborted_and_does_not_run) {
  test_thread thread([](test_thread&) {});
  EXPECT_TRUE(thread.IsAbort());
  EXPECT_FALSE(thread.IsRunning());
}

TEST_F(sys_thread, stop_before_any_start_returns_at_once) {
  test_thread thread([](test_thread&) {});
  thread.Stop();
  EXPECT_TRUE(thread.IsAbort());
  EXPECT_FALSE(thread.IsRunning());
}

TEST_F(sys_thread, start_clears_the_abort_flag_and_runs_the_body_on_a_thread_of_its_own) {
  std::atomic<bool> done{false};
  bool aborted = true;
  bool running = false;
  pthread_t runner = ::pthread_self();
  test_thread thread([&](test_thread& self) {
    aborted = self.IsAbort();
    running = self.IsRunning();
    runner = ::pthread_self();
    done = true;
  });
  thread.Start();
  EXPECT_FALSE(thread.IsAbort());
  ASSERT_TRUE(wait_until([&] { return done.load(); }));
  EXPECT_FALSE(aborted);
  EXPECT_TRUE(running);
  EXPECT_FALSE(::pthread_equal(runner, ::pthread_self()));
  thread.Stop();
}

TEST_F(sys_thread, runs_only_from_the_thread_s_own_first_step_on) {
  // The thread is created, but does not come to its first step before it is let go.
  std::atomic<bool> created{false};
  void* (*body)(void*) = nullptr;
  void* argument = nullptr;
  faults.pthread_create = [&](pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* object) {
    body = start;
    argument = object;
    created = true;
    return real::pthread_create(
        thread, attributes, [](void*) -> void* { return nullptr; }, nullptr);
  };
  std::atomic<int> runs{0};
  test_thread thread([&](test_thread&) { ++runs; });
  thread.Start();
  ASSERT_TRUE(created);
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_FALSE(thread.IsAbort());

  // A second Start meanwhile is a second thread.
  created = false;
  thread.Stop();
  thread.Start();
  EXPECT_TRUE(created);

  faults.pthread_create = nullptr;
  thread.Stop();
  pthread_t late{};
  ASSERT_EQ(::pthread_create(&late, nullptr, body, argument), 0);
  ASSERT_EQ(::pthread_join(late, nullptr), 0);
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(thread.IsRunning());
}

TEST_F(sys_thread, start_while_the_body_runs_has_no_effect) {
  held_thread thread;
  thread.Start();
  ASSERT_TRUE(thread.wait_for_runs(1));
  int created = 0;
  faults.pthread_create = [&](auto...) {
    ++created;
    return EAGAIN;
  };
  thread.Start();
  EXPECT_EQ(created, 0);
  faults.pthread_create = nullptr;
  thread.let_go();
  thread.Stop();
  EXPECT_EQ(thread.runs(), 1);
}

TEST_F(sys_thread, start_does_not_touch_the_abort_flag_while_the_body_runs) {
  std::atomic<bool> let_go{false};
  test_thread thread([&](test_thread&) { wait_until([&] { return let_go.load(); }); });
  thread.Start();
  ASSERT_TRUE(wait_until([&] { return thread.IsRunning(); }));
  pthread_t stopper{};
  ASSERT_EQ(::pthread_create(
                &stopper, nullptr,
                [](void* object) -> void* {
                  static_cast<test_thread*>(object)->Stop();
                  return nullptr;
                },
                &thread),
            0);
  ASSERT_TRUE(wait_until([&] { return thread.IsAbort(); }));
  thread.Start();
  EXPECT_TRUE(thread.IsAbort());
  let_go = true;
  ::pthread_join(stopper, nullptr);
}

TEST_F(sys_thread, after_the_body_it_does_not_run_any_more) {
  held_thread thread;
  thread.Start();
  ASSERT_TRUE(thread.wait_for_runs(1));
  thread.let_go();
  EXPECT_TRUE(wait_until([&] { return !thread.IsRunning(); }));
  EXPECT_FALSE(thread.IsAbort()) << "nobody asked it to end";
}

TEST_F(sys_thread, may_be_started_again_when_the_body_has_returned) {
  held_thread thread;
  thread.Start();
  ASSERT_TRUE(thread.wait_for_runs(1));
  thread.let_go();
  thread.Stop();
  EXPECT_TRUE(thread.IsAbort());
  EXPECT_FALSE(thread.IsRunning());
  thread.Start();
  EXPECT_FALSE(thread.IsAbort());
  ASSERT_TRUE(thread.wait_for_runs(2));
  thread.let_go();
  thread.Stop();
  EXPECT_EQ(thread.runs(), 2);
}

TEST_F(sys_thread, whoever_sees_that_the_body_is_over_can_start_it_again) {
  const joined_at_the_end threads;
  std::atomic<int> runs{0};
  test_thread thread([&](test_thread&) { ++runs; });
  for (int round = 1; round <= 50; ++round) {
    thread.Start();
    ASSERT_TRUE(wait_until([&] { return runs == round && !thread.IsRunning(); }));
  }
  EXPECT_EQ(threads.count(), 50U);
}

TEST_F(sys_thread, stop_asks_the_body_to_end_and_waits_for_it) {
  std::atomic<bool> ended{false};
  test_thread thread([&](test_thread& self) {
    wait_until([&] { return self.IsAbort(); });
    std::this_thread::sleep_for(milliseconds(3));
    ended = true;
  });
  thread.Start();
  thread.Stop();
  EXPECT_TRUE(ended);
  EXPECT_FALSE(thread.IsRunning());
}

TEST_F(sys_thread, stop_does_not_interrupt_a_body_that_does_not_ask) {
  std::atomic<bool> finished{false};
  test_thread thread([&](test_thread&) {
    std::this_thread::sleep_for(milliseconds(10));
    finished = true;
  });
  thread.Start();
  thread.Stop();
  EXPECT_TRUE(finished);
}

TEST_F(sys_thread, stop_joins_a_thread_once) {
  int joins = 0;
  faults.pthread_join = [&](pthread_t thread, void** result) {
    ++joins;
    return real::pthread_join(thread, result);
  };
  std::atomic<int> runs{0};
  test_thread thread([&](test_thread&) { ++runs; });
  thread.Start();
  thread.Stop();
  thread.Stop();
  EXPECT_EQ(joins, 1) << "the handle of a joined thread may belong to another one by now";
  thread.Start();
  thread.Stop();
  EXPECT_EQ(joins, 2);
  EXPECT_EQ(runs, 2);
}

TEST_F(sys_thread, set_running_stores_the_flag_and_keeps_a_start_away) {
  std::atomic<int> runs{0};
  test_thread thread([&](test_thread&) { ++runs; });
  thread.SetRunning(true);
  EXPECT_TRUE(thread.IsRunning());
  thread.Start();
  EXPECT_TRUE(thread.IsAbort());
  thread.SetRunning(false);
  EXPECT_FALSE(thread.IsRunning());
  thread.Start();
  thread.Stop();
  EXPECT_EQ(runs, 1);
}

TEST_F(sys_thread, the_thread_is_created_joinable) {
  int detach_state = -1;
  faults.pthread_create = [&](pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) {
    ::pthread_attr_getdetachstate(attributes, &detach_state);
    return real::pthread_create(thread, attributes, body, argument);
  };
  test_thread thread([](test_thread&) {});
  thread.Start();
  thread.Stop();
  EXPECT_EQ(detach_state, PTHREAD_CREATE_JOINABLE);
}

TEST_F(sys_thread, without_a_thread_only_the_abort_flag_changes_and_a_later_start_tries_again) {
  int attempts = 0;
  faults.pthread_create = [&](auto...) {
    ++attempts;
    return EAGAIN;
  };
  std::atomic<int> runs{0};
  test_thread thread([&](test_thread&) { ++runs; });
  thread.Start();
  thread.Start();
  EXPECT_EQ(attempts, 2);
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_FALSE(thread.IsAbort());
  thread.Stop();
  faults.pthread_create = nullptr;
  thread.Start();
  thread.Stop();
  EXPECT_EQ(runs, 1);
}

TEST_F(sys_thread, start_routine_without_an_object_only_ends) {
  void* (*body)(void*) = nullptr;
  faults.pthread_create = [&](pthread_t*, const pthread_attr_t*, void* (*start)(void*), void*) {
    body = start;
    return EAGAIN;
  };
  test_thread thread([](test_thread&) {});
  thread.Start();
  ASSERT_NE(body, nullptr);
  pthread_t alone{};
  ASSERT_EQ(real::pthread_create(&alone, nullptr, body, nullptr), 0);
  void* result = &alone;
  ASSERT_EQ(::pthread_join(alone, &result), 0);
  EXPECT_EQ(result, nullptr);
}

}  // namespace
