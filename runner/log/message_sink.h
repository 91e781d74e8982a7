#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/misc/unique_fd.h"
#include "runner/log/log_settings.h"
#include "runner/log/log_sink.h"
#include "runner/log/lost_lines.h"

namespace runner {

/// Sends each line as a datagram to the local syslog or to systemd's journal.
///
/// A line is kept until it is complete, and sent in parts when it is longer than a message may be.
/// A reader that is slow is waited for; one that takes nothing for a second, or is not there, loses
/// lines.
class message_sink final : public log_sink {
 public:
  /// @param target syslog or journal. @param name what it calls the program.
  message_sink(log_target target, std::string_view name, std::string socket);

  /// The socket of that target.
  static const char* usual_socket(log_target target);

  void take(std::string_view text) override;
  [[nodiscard]] bool is_line_open() const override { return is_line_open_; }
  [[nodiscard]] int waits_for() const override { return busy_until_ ? fd_.get() : -1; }
  void on_writable() override;
  [[nodiscard]] std::optional<time_point> next_deadline() const override { return busy_until_; }
  void on_deadline() override;

 private:
  enum class result { sent, busy, failed };

  void send_all();
  /// Sends the next message, or keeps what there is of it.
  /// @return false when there is nothing more to send, or not now.
  [[nodiscard]] bool send_next();
  [[nodiscard]] result send(std::string_view begin, std::string_view end);
  [[nodiscard]] result try_to_send(std::string_view begin, std::string_view end);
  void set_head();
  bool connect();
  void lose(int reason);

  log_target target_;
  std::string name_;
  std::string socket_;
  std::size_t most_;
  unique_fd fd_;
  std::string head_;
  std::int64_t head_second_ = -1;
  std::string_view waiting_;   ///< What has been taken and neither sent nor put into `begun_`.
  std::string begun_;          ///< The beginning of a line.
  bool is_part_sent_ = false;  ///< Of that line, which is too long for one message.
  bool is_line_open_ = false;
  lost_lines lost_;
  std::optional<time_point> busy_until_;
  time_point connected_at_;
};

}  // namespace runner
