#include "control/commands/save_change.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "control/config/config_save.h"
#include "control/site/reload.h"
#include "control/text/failure.h"

namespace control {

void require_writable(const std::string& path) {
  if (::access(path.c_str(), W_OK) != 0)
    throw failure("this user may not write " + path + ", so nothing was changed");
}

applied save_text(const session& here, std::chrono::milliseconds limit, const config_bytes& before,
                  const std::string& text) {
  const std::string path = here.place.config_file();
  if (text == before.text) return applied::unchanged;
  const daemon_search search = find_daemon(here.proc, process_table(here.proc), here.place);
  require_visible(here, search);
  if (!search.daemon) {
    save_config(path, text, before);
    return applied::saved;
  }
  if (save_and_load(here.proc, *search.daemon, here.place, text, before, limit))
    return applied::loaded;
  throw failure("the change is saved in " + path + ", and keelmond (PID " +
                std::to_string(search.daemon->pid) +
                ") was not seen to load it in time. `keelmondctl reload` asks it again");
}

applied save_change(const session& here, std::chrono::milliseconds limit,
                    const std::function<std::string(const std::string&)>& change) {
  const std::string path = here.place.config_file();
  const config_lock alone(path);
  const auto config = read_config(path);
  if (!config) {
    throw failure("cannot read " + path + ": " + std::strerror(errno) +
                  ". `keelmondctl init` makes one");
  }
  require_writable(path);
  return save_text(here, limit, *config, change(config->text));
}

}  // namespace control
