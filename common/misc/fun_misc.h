#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <vector>

/// The utility class: paths, files and processes; dates and times; texts and file names.
///
/// Texts are NUL-terminated bytes in buffers of the caller, paths have "/" as their only separator,
/// and nothing is printed or logged. Results tell of failures; `linux_exec` alone throws, and what
/// makes string lists when there is no memory.
///
/// Every member but the constructor, the destructor and `get_thread_size` is static and uses no
/// object: the shutdown calls some of them after the object is gone and `g_fun_misc` is null. They
/// may be called from any thread unless a comment says otherwise.
///
/// A null text or buffer does no harm. A file member then does nothing and returns its
/// failure result, unless its comment names another one. For the other members a null text counts
/// as an empty one, and nothing is written to a null buffer.
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

  /// A hint how many worker threads to use: for n cores (n + 1) * 2, but 18 on fewer than four
  /// cores. The first call computes it, so it must be over before another thread calls.
  int get_thread_size() noexcept;

  // ---------------------------------------------------------------------------------------------
  // Dates and times (fun_misc_datetime.cpp)
  //
  // A date-time text is "year-month-day hour:minute:second" with at most 9 characters in each
  // field; what follows the seconds is ignored. A field that breaks off without its separator takes
  // the rest of the text, the fields after it are 0, and of a longer field the first 9 characters
  // count.

  /// Weekday of a date, 0 = Monday to 6 = Sunday: Julian calendar until 2 September 1752, Gregorian
  /// from the day after, though 3 to 13 September never were. A date that no calendar has gets some
  /// number from -6 to 6. The spelling is part of the interface.
  static int CaculateWeekDay(int year, int month, int day) noexcept;

  /// Splits a date-time text into its fields. Nothing is checked against the calendar.
  static void split_datetime(const char* text, int& year, int& month, int& day, int& hour,
                             int& minute, int& second) noexcept;

  /// Whether a time stamp belongs between two date-time texts: 1 when they differ in the hour or
  /// above, or when `later` is `threshold` seconds or more behind `earlier`; otherwise 0.
  static int CheckIfNeedToShowTime(const char* earlier, const char* later, int threshold) noexcept;

  /// Writes first minus second as "hours:minutes:seconds", with "days " before it when the day of
  /// the month is later. Year and month do not count, nor do the hours of a text whose minutes are
  /// not 0. `out` needs 64 bytes.
  static void calc_date_time_for_subtract(const char* first, const char* second,
                                          char* out) noexcept;

  /// Milliseconds since 1970 of the wall clock, which can be set back; 0 when it cannot be
  /// read.
  static std::uint64_t GetTickCount() noexcept;
  /// The same in whole seconds.
  static std::uint64_t GetTickSecond() noexcept;

  /// Writes "2026-11-15 09:58:00\n": the time in UTC less the offset of the local time zone, which
  /// is UTC itself only where that offset is 0. `out` needs 21 bytes; for years beyond 9999, 32.
  static void get_utc_time(char* out) noexcept;

  /// 1 when what stands before the first blank begins the text of `get_utc_time`, otherwise 0.
  /// Texts are compared: a date without leading zeros is never today's.
  static int checkup_use_small_time(const char* datetime) noexcept;

  /// Writes a date-time text as short as it can be understood today, which `get_utc_time` tells.
  /// For the last 6 days of this month, and for days of it still to come, the hour and the minute
  /// are appended to the text in `out` instead. `out` needs 64 bytes and a terminated text.
  /// @return the label that belongs to it: 10 to 13 for 1 to 4 days ago, the weekday for 5 or 6
  /// days ago, 100 for none.
  static int ConvertTimeToHuman(const char* datetime, char* out) noexcept;

  /// Writes the local time as "2026-11-15 09:58:00". `out` needs 20 bytes; for years beyond 9999,
  /// 32.
  static void get_local_time(char* out) noexcept;

  /// Writes a duration as "hh:mm:ss" to `whole`, or nothing for 0. From 60 seconds on, and when
  /// `secs` is not null, the parts that are not 0 are written too. Each buffer needs 32 bytes.
  static void calc_time_view_times(unsigned long seconds, char* whole, char* hours, char* minutes,
                                   char* secs) noexcept;

  /// Writes a duration with the words given for its units, as in "1 h 5 m 7 s", to whichever of
  /// `out1` and `out2` is not null. Each needs the words and 64 bytes.
  /// @return the length of the text; 0 when both are null.
  static long SecondToTimeStr(long seconds, const char* hour_unit, const char* minute_unit,
                              const char* second_unit, char* out1, char* out2) noexcept;

  // ---------------------------------------------------------------------------------------------
  // Texts and file names (fun_misc_text.cpp)
  //
  // What changes a text in place never makes it longer, and takes a text of any length. A string
  // list is a vector of texts that were allocated with array new, which the list owns until
  // `del_string_list`; it must not be used by two threads at once.

  /// A number from a to b when a < b, from b + 1 to a - 1 when a > b, and a + 1 (at most INT_MAX)
  /// when a = b; a when a = b + 1, which leaves nothing between them. Seeds `rand` from the second,
  /// so calls within one second agree and every other user of `rand` is disturbed.
  static int random(int a, int b) noexcept;

  /// Replaces the first character of each occurrence of `find` by the first character of `repl`. An
  /// empty `repl` ends the text there. Does nothing when `find` is empty or both begin alike.
  static void ReplaceLetter(char* text, const char* find, const char* repl) noexcept;

  /// Appends 32 random digits and lower-case letters to the text in `out`; a digit is three times
  /// as likely as a letter. Seeds `rand`. @return `out`.
  static char* create_guid(char* out) noexcept;

  /// Recognises an image by its first 4 bytes and writes its extension, ".bmp" for one, to the 5
  /// bytes at `ext`. @return 0 BMP, 1 GIF, 2 JPEG, 3 PNG, 4 TIFF (little-endian only), 5 for any
  /// other file and for none, with `ext` untouched.
  static int get_photo_ext_name(const char* path, char* ext) noexcept;

  /// 1 when the file begins with "GIF", otherwise 0.
  static int checkup_image_is_gif(const char* path) noexcept;

  /// 1 when version `a` is higher than version `b`, otherwise 0. A version is up to four numbers
  /// with "." between them; those that are missing are 0.
  static int compare_ver(const char* a, const char* b) noexcept;

  /// Copies what stands behind the last "/" of `path`. With `strip_ext` it ends before the last "."
  /// and is not terminated: pass a zero-filled buffer. When there is no "." behind the last "/" to
  /// end before, the whole name is copied, without a terminator too. @return `out`.
  static char* get_filename_name(const char* path, char* out, bool strip_ext) noexcept;
  /// The same under a second name, for web addresses.
  static char* get_filename_name_for_url(const char* path, char* out, bool strip_ext) noexcept;

  /// Copies what stands behind the last "." of `path`, in a directory's name too, or begins with
  /// it. `out` stays untouched when there is none or it is the first character.
  static void get_filename_ext(const char* path, char* out, bool with_dot) noexcept;

  /// Writes `path` when it cannot be opened for reading, or else the first path of its kind with a
  /// number, "name(1).ext" and so on, that cannot. `out` needs 512 bytes, or room for `path`.
  /// @return 1 when `path` itself was free, otherwise 0: also when nothing was written because a
  /// "(" in `path` is not followed by a number and ")", because the number cannot be counted up, or
  /// because the path would reach 512 bytes. A path without "." is numbered at its end.
  static int create_new_filename(const char* path, char* out) noexcept;

  /// Writes a size as "1023 Byte", "1.00 KB", "1.00 MB" or "1.0000 GB"; appends " 0 Byte" to the
  /// text in `out` when there is none. `out` needs 32 bytes.
  static void calc_file_view_size(long size, char* out) noexcept;

  /// Removes every blank, or with `leading_only` those before the first other character. Only " "
  /// is a blank. @return `text`.
  static char* string_trim(char* text, bool leading_only) noexcept;

  /// 1 when any byte of the text is white space, otherwise 0.
  static int is_have_space(const char* text) noexcept;

  /// Index of the last occurrence of `sub`, or -1 when there is none or a text is empty.
  static int get_last_str_pos(const char* text, const char* sub) noexcept;

  /// Make each byte of the text lower or upper case. @return `text`.
  static char* strlwr(char* text) noexcept;
  static char* strupr(char* text) noexcept;
  static char* stoupper(char* text) noexcept;

  /// Replaces every "%lu" by "%u".
  static void AdjustPrintFormat(char* format) noexcept;

  /// Appends an array of `len` + 1 bytes to the list: the first `len` bytes of `src`, or all of it
  /// when it is shorter, and zeros. A negative `len` counts as 0.
  /// @throws std::bad_alloc, with the list as it was.
  static void add_string(const char* src, int len, std::vector<char*>& list);

  /// Appends the pieces of `text` between the occurrences of `delim` to the list; without a `delim`
  /// the text is one piece. Empty pieces are left out. `n` means nothing.
  /// @throws std::bad_alloc, with the list holding the pieces so far.
  static void split_string(const char* text, int n, const char* delim, std::vector<char*>& list);

  /// Releases every text of the list. The list keeps its size, and pointers that lead nowhere:
  /// clear it.
  static void del_string_list(const std::vector<char*>& list);

 private:
  int thread_size = 0;  ///< What `get_thread_size` found; 0 until it is called.
};

/// The one object: created when the program starts, null before that and after its shutdown.
extern Tfun_misc* g_fun_misc;
