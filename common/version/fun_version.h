#pragma once

/// Answers a request for the version on the command line. Used by `main` alone, before any file is
/// touched.
class Tfun_version final {
 public:
  /// @param title the product's title, up to 63 bytes; a longer one is cut.
  explicit Tfun_version(const char* title);

  /// Prints the banner on standard output when the first argument asks for it.
  ///
  /// The words are "v", "-v", "--v", "ver", "-ver", "--ver", "version", "-version" and "--version",
  /// whole and in lower case. Later arguments are not looked at.
  /// @return 1 when the banner was printed, else 0.
  int AnalyzeParam(int argc, char** argv) const;

 private:
  char title[64] = {};
};
