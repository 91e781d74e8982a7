#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/installation.h"

namespace fs = std::filesystem;

namespace {

class control_completion : public testing::Test {
 protected:
  control_completion() {
    place_.save({{"kmc_alpha", "", "stop"}, {"kmc_beta", "", "stop"}});
    fs::create_directory(place_.site() / "elsewhere");
  }

  static bool has(const std::string& shell) {
    return std::system(("command -v " + shell + " >/dev/null").c_str()) == 0;
  }

  /// Saves the completion of a shell as the file "completion".
  void save_completion(const std::string& shell) {
    const control_result script = control(place_, {"completion", shell});
    EXPECT_EQ(script.status, 0) << script.errors;
    write_file(place_.site() / "completion", script.output);
  }

  /// Runs a script in "elsewhere", beside which the programs are. @return what it wrote to the file
  /// "out" there.
  std::string run(const std::string& shell, const std::string& script) {
    write_file(place_.site() / "elsewhere" / "script", script);
    const std::string path = fs::path(KEELMONDCTL_BINARY).parent_path().string();
    const std::string command = "cd " + place_.site().string() + "/elsewhere && PATH=" + path +
                                ":$PATH timeout 60 " + shell + " script >said 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << place_.read("elsewhere/said");
    return place_.read("elsewhere/out");
  }

  installation place_;
};

}  // namespace

TEST_F(control_completion, of_bash_knows_commands_options_and_programs) {
  save_completion("bash");
  EXPECT_EQ(run("bash",
                "source ../completion\n"
                "try() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _keelmondctl;\n"
                "  echo \"${COMPREPLY[*]}\" >>out; }\n"
                "try keelmondctl sta\n"
                "try keelmondctl -C .. restart kmc_\n"
                "try keelmondctl restart kmc_\n"
                "try keelmondctl down --k\n"
                "try keelmondctl -C ..\n"
                "try keelmondctl add x --set stop.\n"),
            "status start\nkmc_alpha kmc_beta\n\n--kill\n..\n"
            "stop.signal= stop.timeout= stop.command= stop.shell=\n");
}

TEST_F(control_completion, of_bash_runs_nothing_that_a_name_holds) {
  place_.save({{"kmc_$(touch${IFS}it)", "", "stop"}, {"kmc_plain", "", "stop"}});
  save_completion("bash");
  EXPECT_EQ(run("bash",
                "source ../completion\n"
                "COMP_WORDS=(keelmondctl -C .. stop kmc_); COMP_CWORD=4\n"
                "_keelmondctl\n"
                "printf '%s\\n' \"${COMPREPLY[@]}\" >out\n"),
            "kmc_\\$\\(touch\\$\\{IFS\\}it\\)\nkmc_plain\n");
  EXPECT_FALSE(place_.has("elsewhere/it"));
}

TEST_F(control_completion, of_zsh_knows_commands_options_and_programs) {
  if (!has("zsh")) GTEST_SKIP() << "there is no zsh";
  save_completion("zsh");
  // As typed on a terminal: Tab completes the word, Ctrl-O writes the line down and empties it.
  write_file(place_.site() / "elsewhere" / ".zshrc",
             "autoload -U compinit && compinit -u -D && source ../completion\n"
             "note() { print -r -- \"$BUFFER\" >>out; BUFFER=; }\n"
             "zle -N note && bindkey '^O' note && bindkey '^I' complete-word\n"
             "PS1=ready\n");
  EXPECT_EQ(run("zsh -f",
                "zmodload zsh/zpty\n"
                "export ZDOTDIR=$PWD TERM=xterm\n"
                "zpty shell zsh -d -i\n"
                "zpty -r shell said '*ready*'\n"
                "for line in 'statu' '-C .. restart kmc_a' '-C .. down --k' 'restart kmc_a' \\\n"
                "    'add x --set stop.t'; do\n"
                "  zpty -w -n shell \"keelmondctl $line\"$'\\t\\x0f'\n"
                "done\n"
                "zpty -w -n shell $'exit\\n'\n"
                "while zpty -r shell said; do :; done\n"
                "true\n"),
            "keelmondctl status \nkeelmondctl -C .. restart kmc_alpha \n"
            "keelmondctl -C .. down --kill \nkeelmondctl restart kmc_a\n"
            "keelmondctl add x --set stop.timeout=\n");
}

TEST_F(control_completion, of_fish_knows_commands_options_and_programs) {
  if (!has("fish")) GTEST_SKIP() << "there is no fish";
  save_completion("fish");
  EXPECT_EQ(run("fish --no-config",
                "source ../completion\n"
                "function try\n"
                "  complete -C \"keelmondctl $argv\" | string replace -r '\\t.*' '' >>out\n"
                "  echo . >>out\n"
                "end\n"
                "try statu\ntry -C .. res\ntry -C .. restart kmc_\ntry restart kmc_\n"
                "try -C .. down --k\ntry -C .. status down\ntry add x --set stop.t\n"),
            "status\n.\nrestart\n.\nkmc_alpha\nkmc_beta\n.\n.\n--kill\n.\n.\nstop.timeout=\n.\n");
}

TEST_F(control_completion, is_refused_for_other_shells) {
  EXPECT_EQ(control(place_, {"completion", "tcsh"}).status, 2);
}
