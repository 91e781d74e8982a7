#pragma once

#include <poll.h>

#include <string>

#include "common/misc/unique_fd.h"
#include "runner/file/program_file.h"

namespace runner {

enum class probe_answer { pending, yes, no };

/// One question to a program whether it answers: a connection, a request, a file. Commands are
/// asked by whoever runs them.
///
/// Never waits; whoever asks gives up by `cancel` when it takes too long.
class probe final {
 public:
  /// Begins to ask.
  probe_answer begin(const probe_settings& what);
  /// What to poll for; descriptor -1 when nothing is being asked.
  [[nodiscard]] pollfd request() const { return {socket_.get(), events_, 0}; }
  /// To be called when that descriptor is ready.
  probe_answer go_on();
  void cancel() { socket_.reset(); }

 private:
  probe_answer begin_connection(const probe_settings& what);
  probe_answer finish(probe_answer answer);
  probe_answer send_request();
  probe_answer read_answer();

  unique_fd socket_;
  short events_ = 0;
  std::string request_;  ///< What is still to be sent over HTTP; empty otherwise.
  std::string answer_;
  bool is_http_ = false;
};

}  // namespace runner
