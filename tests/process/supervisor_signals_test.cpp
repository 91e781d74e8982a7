#include "process/supervisor_signals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/in_child.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using steady = std::chrono::steady_clock;

/// The signals whose handler has run, in that order, and how many.
std::vector<int> handled;
std::atomic<int> handled_count{0};

void note(int sig) {
  handled.push_back(sig);
  ++handled_count;
}

bool is_blocked(int sig) {
  sigset_t mask;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return ::sigismember(&mask, sig) == 1;
}

bool is_pending(int sig) {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, sig) == 1;
}

void handle_all_with(void (*handler)(int)) {
  for (const int sig : {SIGINT, SIGUSR1, SIGUSR2})
    supervisor_signals::handle(sig, handler);
}

/// A process whose signals are blocked as the supervisor's are, with handlers that note them.
void begin() {
  handled.clear();
  supervisor_signals::block();
  handle_all_with(note);
}

TEST(supervisor_signals, block_blocks_the_supervisor_s_signals_and_sigpipe) {
  in_child([] {
    ASSERT_FALSE(is_blocked(SIGUSR1));
    supervisor_signals::block();
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2, SIGPIPE})
      EXPECT_TRUE(is_blocked(sig)) << sig;
    for (const int sig : {SIGTERM, SIGCHLD, SIGHUP, SIGQUIT, SIGALRM})
      EXPECT_FALSE(is_blocked(sig)) << sig;
  });
}

TEST(supervisor_signals, a_write_to_a_broken_pipe_does_not_end_the_process_once_blocked) {
  in_child([] {
    supervisor_signals::block();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::close(ends[0]);
    EXPECT_EQ(::write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
  });
}

TEST(supervisor_signals, a_signal_outside_a_wait_stays_pending_until_the_next_one) {
  in_child([] {
    begin();
    ::raise(SIGUSR1);
    ::kill(::getpid(), SIGUSR2);
    EXPECT_TRUE(handled.empty());
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(-1, milliseconds(0)));
    EXPECT_EQ(handled.size(), 2U);
    EXPECT_FALSE(is_pending(SIGUSR1) || is_pending(SIGUSR2));
    EXPECT_TRUE(is_blocked(SIGUSR1)) << "the mask is as before";
  });
}

TEST(supervisor_signals, waiting_tells_whether_the_descriptor_can_be_read) {
  in_child([] {
    begin();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(ends[0], milliseconds(1)));
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    EXPECT_TRUE(supervisor_signals::wait_and_deliver(ends[0], milliseconds(0)));
    EXPECT_TRUE(supervisor_signals::wait_and_deliver(ends[0], std::nullopt));
    ::close(ends[0]);
    EXPECT_TRUE(supervisor_signals::wait_and_deliver(ends[0], std::nullopt))
        << "reading it tells what is wrong";
  });
}

/// Lets the process have `most` descriptors; those that are open stay so.
void limit_descriptors(rlim_t most) {
  rlimit limits{};
  ::getrlimit(RLIMIT_NOFILE, &limits);
  limits.rlim_cur = most;
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}

TEST(supervisor_signals, signals_are_handled_while_no_descriptor_may_be_waited_for) {
  in_child([] {
    begin();
    static std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    supervisor_signals::handle(SIGUSR2, [](int sig) {
      note(sig);
      limit_descriptors(64);
      if (::write(ends[1], "x", 1) != 1) handled.clear();
    });
    limit_descriptors(0);
    std::thread sender([] { ::kill(::getpid(), SIGUSR2); });
    EXPECT_TRUE(supervisor_signals::wait_and_deliver(ends[0], std::nullopt));
    sender.join();
    EXPECT_EQ(handled, std::vector<int>{SIGUSR2});
  });
}

TEST(supervisor_signals, a_time_is_waited_for_while_no_descriptor_may_be) {
  in_child([] {
    begin();
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    limit_descriptors(0);
    for (const int fd : {-1, ends[0]}) {
      const auto start = steady::now();
      EXPECT_FALSE(supervisor_signals::wait_and_deliver(fd, milliseconds(30)));
      EXPECT_GE(steady::now() - start, milliseconds(30));
    }
  });
}

TEST(supervisor_signals, a_handler_does_not_shorten_the_wait) {
  in_child([] {
    begin();
    ::raise(SIGUSR1);
    const auto start = steady::now();
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(-1, milliseconds(30)));
    EXPECT_GE(steady::now() - start, milliseconds(30));
    EXPECT_EQ(handled, std::vector<int>{SIGUSR1});
  });
}

TEST(supervisor_signals, a_handler_that_takes_longer_than_the_limit_ends_the_wait) {
  in_child([] {
    begin();
    supervisor_signals::handle(SIGUSR1, [](int) { std::this_thread::sleep_for(milliseconds(10)); });
    ::raise(SIGUSR1);
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(-1, milliseconds(2)));
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(-1, milliseconds(-5)));
  });
}

TEST(supervisor_signals, an_endless_wait_handles_signals_and_goes_on) {
  in_child([] {
    begin();
    static std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    supervisor_signals::handle(SIGUSR2, [](int sig) {
      note(sig);
      if (::write(ends[1], "x", 1) != 1) handled.clear();
    });
    std::thread sender([] {
      ::kill(::getpid(), SIGUSR1);
      while (handled_count == 0)
        std::this_thread::yield();
      ::kill(::getpid(), SIGUSR2);
    });
    EXPECT_TRUE(supervisor_signals::wait_and_deliver(ends[0], std::nullopt));
    sender.join();
    EXPECT_EQ(handled, (std::vector<int>{SIGUSR1, SIGUSR2}));
  });
}

TEST(supervisor_signals, deliver_returns_when_all_that_is_pending_has_been_handled) {
  in_child([] {
    begin();
    supervisor_signals::deliver();
    EXPECT_TRUE(handled.empty());
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2})
      ::raise(sig);
    supervisor_signals::deliver();
    EXPECT_EQ(handled.size(), 3U);
    EXPECT_TRUE(is_blocked(SIGINT));
  });
}

TEST(supervisor_signals, deliver_handles_what_a_handler_raises) {
  in_child([] {
    begin();
    supervisor_signals::handle(SIGUSR1, [](int sig) {
      ::raise(SIGUSR2);
      note(sig);
    });
    ::raise(SIGUSR1);
    supervisor_signals::deliver();
    EXPECT_EQ(handled, (std::vector<int>{SIGUSR1, SIGUSR2}))
        << "no handler interrupts another half-way";
  });
}

TEST(supervisor_signals, deliver_handles_a_signal_that_comes_again_while_it_is_handled) {
  in_child([] {
    begin();
    supervisor_signals::handle(SIGUSR1, [](int sig) {
      note(sig);
      if (handled.size() < 3) ::raise(SIGUSR1);
    });
    ::raise(SIGUSR1);
    supervisor_signals::deliver();
    EXPECT_EQ(handled, (std::vector<int>{SIGUSR1, SIGUSR1, SIGUSR1}));
    EXPECT_FALSE(is_pending(SIGUSR1));
  });
}

TEST(supervisor_signals, other_signals_of_the_caller_stay_blocked_in_a_wait) {
  in_child([] {
    begin();
    sigset_t more;
    ::sigemptyset(&more);
    ::sigaddset(&more, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &more, nullptr);
    ::signal(SIGTERM, note);
    ::raise(SIGTERM);
    supervisor_signals::deliver();
    EXPECT_FALSE(supervisor_signals::wait_and_deliver(-1, milliseconds(0)));
    EXPECT_TRUE(handled.empty());
  });
}

TEST(supervisor_signals, all_three_wait_while_one_is_handled) {
  in_child([] {
    begin();
    handle_all_with([](int sig) {
      for (const int other : {SIGINT, SIGUSR1, SIGUSR2})
        EXPECT_TRUE(is_blocked(other)) << other;
#ifndef __SANITIZE_THREAD__
      // ThreadSanitizer has every signal wait.
      EXPECT_FALSE(is_blocked(SIGTERM));
#endif
      note(sig);
    });
    for (const int sig : {SIGINT, SIGUSR1, SIGUSR2})
      ::raise(sig);
    supervisor_signals::deliver();
    EXPECT_EQ(handled.size(), 3U);
  });
}

TEST(supervisor_signals, a_handler_stays_installed) {
  in_child([] {
    begin();
    EXPECT_EQ(::signal(SIGUSR1, SIG_DFL), &note);
    supervisor_signals::handle(SIGUSR1, note);
    for (int time = 0; time < 2; ++time) {
      ::raise(SIGUSR1);
      supervisor_signals::deliver();
    }
    EXPECT_EQ(handled, (std::vector<int>{SIGUSR1, SIGUSR1}));
  });
}

TEST(supervisor_signals, what_sigquit_did_at_the_start_is_kept) {
  for (const auto before : {SIG_DFL, SIG_IGN}) {
    in_child([=] {
      ::signal(SIGQUIT, before);
      supervisor_signals::block();
      ::signal(SIGQUIT, before == SIG_DFL ? SIG_IGN : SIG_DFL);
      EXPECT_EQ(supervisor_signals::start_quit().sa_handler, before);
    });
  }
}

TEST(supervisor_signals, the_mask_of_the_start_is_kept_as_it_was) {
  in_child([] {
    sigset_t start;
    ::sigemptyset(&start);
    ::sigaddset(&start, SIGUSR2);
    ::sigaddset(&start, SIGTERM);
    ::pthread_sigmask(SIG_SETMASK, &start, nullptr);
    supervisor_signals::block();
    for (int sig = 1; sig < 32; ++sig) {
      EXPECT_EQ(::sigismember(&supervisor_signals::start_mask(), sig),
                sig == SIGUSR2 || sig == SIGTERM ? 1 : 0)
          << sig;
    }
  });
}

TEST(supervisor_signals, no_write_ends_the_process) {
  in_child([] {
    supervisor_signals::block();
    EXPECT_TRUE(is_blocked(SIGPIPE));
    EXPECT_TRUE(is_blocked(SIGXFSZ));
  });
}

TEST(supervisor_signals, a_request_to_shut_down_is_seen_while_it_is_pending) {
  for (const int sig : {SIGINT, SIGUSR2}) {
    in_child([=] {
      begin();
      EXPECT_FALSE(supervisor_signals::shutdown_is_pending());
      ::kill(::getpid(), SIGUSR1);
      EXPECT_FALSE(supervisor_signals::shutdown_is_pending());
      ::kill(::getpid(), sig);
      EXPECT_TRUE(supervisor_signals::shutdown_is_pending());
      supervisor_signals::deliver();
      EXPECT_FALSE(supervisor_signals::shutdown_is_pending());
    });
  }
}

/// How often a handler saw that another request to shut down waits.
int second_requests = 0;

void note_and_look(int sig) {
  handled.push_back(sig);
  if (supervisor_signals::shutdown_is_pending()) ++second_requests;
}

TEST(supervisor_signals, of_two_requests_to_shut_down_the_first_handler_sees_the_second) {
  in_child([] {
    begin();
    handle_all_with(note_and_look);
    ::raise(SIGINT);
    ::raise(SIGUSR2);
    supervisor_signals::deliver();
    EXPECT_EQ(handled, (std::vector<int>{SIGINT, SIGUSR2}));
    EXPECT_EQ(second_requests, 1);
  });
}

TEST(supervisor_signals, two_requests_to_shut_down_during_a_reload_are_let_in_one_by_one) {
  in_child([] {
    begin();
    handle_all_with(note_and_look);
    supervisor_signals::handle(SIGUSR1, [](int sig) {
      handled.push_back(sig);
      ::raise(SIGINT);
      ::raise(SIGUSR2);
    });
    ::raise(SIGUSR1);
    supervisor_signals::deliver();
    EXPECT_EQ(handled, (std::vector<int>{SIGUSR1, SIGINT, SIGUSR2}));
    EXPECT_EQ(second_requests, 1);
  });
}

}  // namespace
