#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

/// The utility class: paths, files and processes.
///
/// Texts are NUL-terminated bytes in buffers of the caller, paths have "/" as their only separator,
/// and nothing is printed or logged. Results tell of failures; `linux_exec` alone throws.
///
/// Every member but the constructor, the destructor and `get_thread_size` is static and uses no
/// object: the way out of the program calls some of them through `g_fun_misc` after the object is
/// gone and the pointer is null. They may be called from any thread unless a comment says
/// otherwise.
///
/// A null text or buffer is no error to die of: the member then does nothing and returns its
/// failure result, unless its comment names another one.
class Tfun_misc final {
 public:
  Tfun_misc() = default;
  ~Tfun_misc() = default;
  Tfun_misc(const Tfun_misc&) = delete;
  Tfun_misc& operator=(const Tfun_misc&) = delete;

  // ---------------------------------------------------------------------------------------------
  // Files and processes (fun_misc_files.cpp)

  /// Joins the working directory and `name` with one "/" between them, for a buffer whose size the
  /// compiler knows.
  /// @return false with `out` untouched when the working directory cannot be read, is 1024 bytes
  /// or longer, or when the joined path does not fit. A null `name` counts as empty.
  template <std::size_t N>
  static bool get_current_path(char (&out)[N], const char* name) noexcept {
    return get_current_path(out, N, name);
  }
  /// The same, for the `size` bytes at `out`.
  static bool get_current_path(char* out, std::size_t size, const char* name) noexcept;
  /// The same, for a buffer that the caller knows to be large enough. A template only so that an
  /// array takes the bounded form.
  template <std::same_as<char*> Pointer>
  static bool get_current_path(Pointer out, const char* name) noexcept {
    return get_current_path(out, SIZE_MAX, name);
  }

  /// Copies what stands before the last "/" of `full` over the beginning of `out`, without a
  /// terminator: pass a zero-filled buffer. `add_slash` then appends "/" to the text in `out`.
  /// Without a "/" after the first character of `full`, `out` stays untouched.
  static void get_filename_path(const char* full, char* out, bool add_slash) noexcept;

  /// Index of the last character of `str` that is the one-character text `ch`, or -1. A `ch` of any
  /// other length is never found.
  static int get_last_pos(const char* str, const char* ch) noexcept;

  /// Creates `path` and its missing parents with mode 0700, as the umask allows. Only the first 511
  /// bytes of `path` are created. @return whether `path` exists afterwards.
  static bool create_dir(const char* path) noexcept;

  /// Creates the directory that `filename` lies in. @return false, with nothing created, when
  /// `filename` has no "/" after its first character or 512 or more bytes before the last one.
  static bool create_dir_by_filename(const char* filename) noexcept;

  /// Whether anything, a directory or not, exists at `path`.
  static bool dir_exists(const char* path) noexcept;

  /// Whether `path` can be opened for reading, as a directory can. Never waits.
  static bool file_exists(const char* path) noexcept;

  /// Size of the file in bytes, or -1 when its status cannot be read.
  static long get_file_size(const char* path) noexcept;

  /// Makes `text` the content of the file. @return whether anything was written: false for an empty
  /// text, which truncates the file all the same.
  static bool save_file_data(const char* path, const char* text) noexcept;

  /// Reads the first 8192 bytes of the file, or fewer, into `buf` and adds no terminator: pass a
  /// zero-filled buffer of more than 8192 bytes for a text. @return whether anything was read.
  static bool load_file_data(const char* path, char* buf) noexcept;

  /// Copies a file. `to` is created or truncated even when `from` cannot be opened.
  /// @return 0, or -1 when one of the two could not be opened. Failed writes go unnoticed.
  static int copyFile(const char* from, const char* to) noexcept;

  /// Writes (`alive`) or removes notify/`name`.dat below the working directory, whose one byte "1"
  /// tells that the program `name` is running. Failures are silent, and so is a path of 512 bytes
  /// or more; the directory is never created. Threads may call it at once, each for its own name.
  static void UpdateProcessLiveFile(const char* name, bool alive) noexcept;

  /// Sleeps in `select`. @return its result: 0, or -1 when a signal ended the sleep early.
  static int select_sleep(int seconds, long microseconds) noexcept;

  /// Runs `command` in the shell, appends the lines that it prints to the text in `out`, each cut
  /// at a NUL, and stops after `max_lines` of them (0 or less: after the last). Nothing bounds
  /// `out`.
  /// @return whether a line was read that was not the one at which `max_lines` stopped it.
  /// @throws std::runtime_error "popen() failed!" when the command cannot be started.
  static bool linux_exec(const char* command, char* out, int max_lines);

  /// The cores of one processor, as /proc/cpuinfo tells; 8 when it does not, 0 when it cannot be
  /// asked. Each call leaves a descriptor open: see `get_thread_size`.
  static int get_cpu_core_count() noexcept;

  /// A hint how many worker threads to use: twice the cores and one more, 18 on fewer than four
  /// cores. The first call computes it, so it must be over before another thread calls.
  int get_thread_size() noexcept;

 private:
  int thread_size = 0;  ///< What `get_thread_size` found; 0 until it is called.
};

/// The one instance: created when the program starts, null before that and after its shutdown.
extern Tfun_misc* g_fun_misc;
