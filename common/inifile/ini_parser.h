#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

/// One INI file in memory.
///
/// The constructor loads the file, once; from then on the object answers from memory and never
/// reads the file again. It keeps two views side by side: the significant lines in their order,
/// and a map section -> key -> value for queries. Comments and lines shorter than two characters
/// are in neither. Each successful change edits both views and at once rewrites the file whole:
/// what others changed in it since the load is lost, and so are its comments.
///
/// A line is "[name]", "key=value" with optional spaces around "=", or a comment that begins with
/// one of "#", "%", "/", ";", "@". Lines end in "\n" or "\r\n". There is no quoting, no escape, no
/// continuation and no comment behind a value. Names are compared byte by byte. Of a repeated key
/// the last value counts; a repeated header continues its section. Properties before the first
/// header belong to the section "". A header whose name has one character opens no section.
///
/// A file that cannot be opened for reading and writing counts as empty, and so does anything that
/// is not a regular file: a directory, a pipe, a device. Nothing is reported.
///
/// Not synchronised: an object is used by one thread at a time. It owns all its parts by value and
/// may be copied. The destructor writes nothing.
class Tini_parser final {
 public:
  /// Loads the file. Any content is accepted; memory grows in proportion to its size.
  /// @param memory where lines and properties are kept; it must outlive the object. A copy of the
  ///        object keeps its own in ordinary memory.
  explicit Tini_parser(const std::string& path,
                       std::pmr::memory_resource* memory = std::pmr::get_default_resource());

  /// Whether the section has the key. Nothing is created, in spite of the name.
  ///
  /// Section "" is special, here and in all reads below: when the model holds no property of that
  /// section, the standard out-of-range error "map::at" is thrown. An unknown section with a name
  /// is simply false.
  [[nodiscard]] bool ensure_property_exists(const std::string& section,
                                            const std::string& key) const;

  /// True for the value "1", false for "0", the default for any other or when there is none.
  [[nodiscard]] bool read_bool(const std::string& section, const std::string& key,
                               bool default_value) const;

  /// The value, or the default when there is none. A null default counts as empty.
  [[nodiscard]] std::string read_string(const std::string& section, const std::string& key,
                                        std::string default_value) const;
  [[nodiscard]] std::string read_string(const std::string& section, const std::string& key,
                                        const char* default_value) const;

  /// Copies the value and its terminating zero to `out`, which is left untouched when there is no
  /// value. The caller answers for `out` being large enough. A null `out` is left alone.
  ///
  /// A template so that an array goes to the overload below and not here.
  void read_string(const std::string& section, const std::string& key,
                   std::same_as<char*> auto out) const {
    copy_value(section, key, out, std::numeric_limits<std::size_t>::max());
  }
  /// The same for an array: a value that does not fit is cut at Size - 1 characters.
  template <std::size_t Size>
  void read_string(const std::string& section, const std::string& key, char (&out)[Size]) const {
    copy_value(section, key, out, Size);
  }

  /// The value as a decimal number, or the default when there is none.
  ///
  /// The longest beginning that is a number counts ("12abc" is 12), what is out of range becomes
  /// the nearest number of the type, and a value without a number is 0, not the default.
  [[nodiscard]] int read_int(const std::string& section, const std::string& key,
                             int default_value) const;
  [[nodiscard]] long read_long(const std::string& section, const std::string& key,
                               long default_value) const;
  /// As above. The default is a whole number, as part of the interface: a fraction is cut off.
  [[nodiscard]] float read_float(const std::string& section, const std::string& key,
                                 long default_value) const;
  [[nodiscard]] double read_double(const std::string& section, const std::string& key,
                                   double default_value) const;

  /// The keys of a section in byte order; none for an unknown section, "" included.
  [[nodiscard]] std::vector<std::string> section_keys(const std::string& section) const;

  /// Sets a property in memory, then in the file, as "key=value" without spaces.
  ///
  /// Every line of the section that begins with exactly key and "=" is rewritten. When there is
  /// none, a line is added as `create_property` does; so without a header of the section, and for
  /// an empty key or value, only later reads of this object see the value. A line "key = value" is
  /// not found, because of its space: the new line is put before it, and the old one wins again
  /// at the next load.
  ///
  /// Texts are written as they are. A newline in one divides the line at the next load. A null
  /// value counts as empty. Numbers are printed with 6 significant digits, truth values as "1" and
  /// "0".
  void write_value(const std::string& section, const std::string& key, const std::string& value);
  void write_value(const std::string& section, const std::string& key, const char* value);
  void write_value(const std::string& section, const std::string& key, int value);
  void write_value(const std::string& section, const std::string& key, long value);
  void write_value(const std::string& section, const std::string& key, float value);
  void write_value(const std::string& section, const std::string& key, double value);
  void write_value(const std::string& section, const std::string& key, bool value);

  /// Adds an empty line and the header "[name]" at the end of the file, even if there is one.
  ///
  /// This object does not find the new header, so properties can be added under it only by an
  /// object that loads the file anew.
  /// @return false when the name is empty.
  bool create_section(const std::string& name);
  /// Adds a line "key=value" as the first of the section, even if there is one with that key.
  /// @return false, with nothing changed, when key or value is empty or the section has no header.
  bool create_property(const std::string& section, const std::string& key,
                       const std::string& value);
  /// The same for a section that has a header, the first of which counts; takes empty texts.
  /// @return false, with nothing changed, when the section has no header.
  bool create_property_in_section(const std::string& section, const std::string& key,
                                  const std::string& value);
  /// The same at the top of the file, before any header; takes empty texts.
  /// @return true.
  bool create_property_no_section(const std::string& key, const std::string& value);

  /// Rewrites the file with all kept lines, each ended by "\n"; creates it when it is missing.
  ///
  /// A file that cannot be opened or written is given up without a report; memory keeps the lines.
  void write_input_to_file() const;

 private:
  using text = std::pmr::string;
  /// Looked up by texts of any kind.
  using properties = std::pmr::map<text, text, std::less<>>;

  void parse(const std::string& path);
  void parse_line(std::string_view untrimmed);
  void start_section(std::string_view line);
  void handle_assignment(std::string_view line);

  /// The value of a property, null when there is none; throws as `ensure_property_exists` does.
  [[nodiscard]] const text* find_value(const std::string& section, const std::string& key) const;
  /// Copies a value and its terminating zero, at most `size` bytes in all.
  void copy_value(const std::string& section, const std::string& key, char* out,
                  std::size_t size) const;
  /// Sets a value in memory, and creates section and key for it.
  void set_value(std::string_view section, std::string_view key, std::string_view value);
  /// Rewrites every line of the section with this key. @return whether there is one.
  bool rewrite_lines(const std::string& section, const std::string& key, const std::string& value);

  std::string true_text;
  std::string false_text;
  std::string file_name;
  std::pmr::vector<text> lines;
  std::pmr::map<text, properties, std::less<>> sections;
  std::string current_section;
};
