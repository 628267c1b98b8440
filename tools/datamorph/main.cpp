// datamorph: the command line. Here are the verbs, their options and their help; each verb's work
// is in the file that verbs.h's order names.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "command_tree.h"
#include "failure.h"
#include "output.h"
#include "progress.h"
#include "text.h"
#include "unknown_option.h"
#include "verbs.h"

#ifndef DATAMORPH_VERSION
#error "the build says which version this is"
#endif

namespace {

constexpr char top_help[] =
    "Rehearses and inspects the conversion of a switch's persistent state when it changes its "
    "software\nversion. It plays the system manager for libdatamorph on lab switches: directories "
    "that hold all\nof a switch's root file system that a conversion can touch.";

constexpr char top_footer[] =
    "Exit status:\n"
    "  0   done, or nothing to change\n"
    "  1   a conversion or the program failed; the switch is as it was, unless the message says\n"
    "      that a conversion's output could not be written\n"
    "  2   compare: the releases differ; diff: the states do\n"
    "  3   refused; the switch was not touched (no switch, unknown release, damaged store, no "
    "room,\n"
    "      no rights, a service without a routine in the chosen moments, records of VRRP that "
    "would\n"
    "      be lost, nothing to roll back to, nobody to ask); check: something was found\n"
    "  5   the switch is in use by another command\n"
    "  64  wrong usage (unknown verb, option, service or moment)\n"
    "  128 and the signal's number: stopped by a signal; the switch is as it was\n"
    "Data goes to standard output, messages and trace to standard error.\n"
    "Completions: 'datamorph completion bash' and 'datamorph completion zsh' write them.\n"
    "Example:\n"
    "  datamorph lab create /tmp/switch && datamorph convert /tmp/switch --to '4.2(1)'\n";

constexpr char dir_help[] = "The lab switch's directory";

class command_line {
public:
  command_line() : app_(top_help, "datamorph") {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", std::string("datamorph ") + DATAMORPH_VERSION);
    app_.footer(top_footer);
    add_lab();
    add_rehearse();
    add_convert();
    add_matrix();
    add_runs();
    add_stores();
    add_diff();
    add_check();
    add_library_verbs();
    add_shell_verbs();
  }

  int run(int argc, char **argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::Success &asked) {
      return app_.exit(asked); // help or version, on standard output
    } catch (const CLI::ParseError &error) {
      const words typed(argv + 1, argv + argc);
      const std::vector<const CLI::App *> path = path_of(typed);
      output::begin(name_of(path), style_of(asked_format(typed)));
      throw usage_failure(typed, path, error);
    }
    return chosen_();
  }

private:
  using action = std::function<int()>;
  using words = std::vector<std::string>;

  // A verb with the options that all of them have.
  CLI::App *verb(CLI::App *parent, const char *name, const char *what, const char *example,
                 const action &act) {
    CLI::App *sub = parent->add_subcommand(name, what);
    sub->footer(std::string("Example:\n  ") + example + "\n");
    sub->add_option("--format", format_,
                    "How data is written: table, json (one document) or jsonl (a line per item of "
                    "a list, then the rest)")
        ->check(CLI::IsMember({"table", "json", "jsonl"}))
        ->capture_default_str();
    sub->add_flag("-v,--verbose", common_.verbose, "Show the library's trace");
    sub->add_option("--library", common_.library,
                    "The conversion library (default: DATAMORPH_LIBRARY, beside the program, where "
                    "it was installed)")
        ->type_name("FILE");
    const std::string path = parent == &app_ ? name : parent->get_name() + " " + name;
    sub->callback([this, act, path] { choose(path, act); });
    return sub;
  }

  void choose(const std::string &path, const action &act) {
    common_.format = format_ == "table" ? output::format::table : output::format::json;
    output::begin(path, style_of(format_));
    // A program that reads JSON, or the trace of the library, has the terminal for itself.
    progress::allow(format_ == "table" && !common_.verbose);
    chosen_ = act;
  }

  void add_lab() {
    CLI::App *lab = app_.add_subcommand("lab", "Build, show and reboot lab switches");
    lab->require_subcommand(1);
    CLI::App *create = verb(lab, "create", "Build a lab switch from a description",
                            "datamorph lab create /tmp/npv-switch --from examples/npv-switch.json",
                            [this] { return lab_create(common_, dir_, from_); });
    create->add_option("DIR", dir_, "The directory to make")->required();
    create->add_option("--from", from_, "The description (default: the shipped example)")
        ->type_name("FILE");
    CLI::App *show =
        verb(lab, "show", "Release, VDCs, paths, images, stores, files, access points, tag tables",
             "datamorph lab show /tmp/switch", [this] { return lab_show(common_, dir_); });
    show->add_option("DIR", dir_, dir_help)->required();
    CLI::App *reboot =
        verb(lab, "reboot",
             "What a boot does: empty /tmp and the volatile stores, run the saved tag tables",
             "datamorph lab reboot /tmp/switch\n\n"
             "Works on a copy and puts it in the place of the switch's state in one step: when it\n"
             "fails or is stopped, the switch is as it was. previous/ stays the state before the\n"
             "last conversion.",
             [this] { return lab_reboot(common_, dir_); });
    reboot->add_option("DIR", dir_, dir_help)->required();
  }

  void add_convert() {
    CLI::App *sub = verb(
        &app_, "convert", "Convert a lab switch to another release",
        "datamorph convert /tmp/switch --to '3.3(1)' --moment running-fs\n\n"
        "Works on a copy and puts it in the place of the switch's state in one step. The switch's\n"
        "release changes when no moment and no service is left out. An unknown service or moment\n"
        "is wrong usage (64); an unknown release, and a service without a routine in the chosen\n"
        "moments, is refused (3), and so is a conversion that would lose records of VRRP. What a\n"
        "run leaves behind is kept in DIR/runs/NUMBER.",
        [this] { return convert(common_, convert_); });
    sub->add_option("DIR", convert_.dir, dir_help)->required();
    CLI::Option *to =
        sub->add_option("--to", convert_.to, "The release to convert to")->type_name("RELEASE");
    CLI::Option *plan =
        sub->add_option("--plan", convert_.plan,
                        "Do what 'datamorph rehearse --save' has written there, if the switch is "
                        "still the same, and keep it only if it reaches the same state")
            ->type_name("FILE");
    sub->callback([this, to, plan, act = [this] { return convert(common_, convert_); }] {
      if (to->empty() && plan->empty()) {
        throw CLI::RequiredError("--to (or --plan)");
      }
      choose("convert", act);
    });
    for (CLI::Option *option : add_selection(sub, &convert_)) {
      plan->excludes(option);
    }
    plan->excludes(to);
    add_yes(sub);
  }

  void add_rehearse() {
    CLI::App *sub = verb(
        &app_, "rehearse", "Show what a conversion would do, on a copy",
        "datamorph rehearse /tmp/switch --to '4.2(1)'\n"
        "  datamorph rehearse /tmp/switch --to '4.2(1)' --save plan.json\n\n"
        "Converts a copy, in TMPDIR or /tmp, shows every store, record and field that changed and\n"
        "the step that did it, and what is lost; then the copy goes. Nothing of the switch is\n"
        "written. A step is a service at a moment in a VDC. Exit status: 0 as convert would do "
        "it,\n"
        "1 it would fail or records are unaccounted for, 3 refused, as by convert.",
        [this] { return rehearse(common_, rehearse_); });
    sub->add_option("DIR", rehearse_.work.dir, dir_help)->required();
    sub->add_option("--to", rehearse_.work.to, "The release to convert to")
        ->required()
        ->type_name("RELEASE");
    add_selection(sub, &rehearse_.work);
    sub->add_option("--save", rehearse_.save,
                    "Write a plan for 'datamorph convert --plan' into this file")
        ->type_name("FILE");
    sub->add_option("--report", rehearse_.report,
                    "Write all of it as one HTML page into this file, and every change as a line "
                    "of JSON into a file beside it (.jsonl instead of .html); values are shown as "
                    "they are, keys of authentication too")
        ->type_name("FILE");
    sub->add_flag("--matrix", rehearse_.matrix,
                  "Rehearse every pair of the switch's releases as well, for --report and JSON");
    sub->add_flag("--round-trip", rehearse_.round_trip,
                  "Go back as well, and list what did not return; a way back that fails is told, "
                  "and its exit status is the command's");
    sub->add_option("--via", rehearse_.via,
                    "Go over this release as well, and list what comes out otherwise")
        ->type_name("RELEASE");
  }

  void add_matrix() {
    CLI::App *sub = verb(
        &app_, "matrix", "What each change between a switch's releases would do",
        "datamorph matrix /tmp/switch --release '4.1(5)' --release '4.2(1)' --release '5.0(2)'\n\n"
        "Every pair is rehearsed on a copy that was brought to the release it begins with: it "
        "acts\n"
        "(with the number of changes, the release's own not counted), does nothing, or fails.\n"
        "Nothing of the switch is written. Exit status: 0 also when pairs fail, 3 refused.",
        [this] { return matrix(common_, matrix_); });
    sub->add_option("DIR", matrix_.work.dir, dir_help)->required();
    sub->add_option("--release", matrix_.releases,
                    "A release; may be repeated (default: all that the switch has images of)")
        ->type_name("RELEASE")
        ->allow_extra_args(false);
    sub->add_option("--timeout", matrix_.work.timeout, "Seconds that one service may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
  }

  // The options that choose what is converted, and how.
  static std::vector<CLI::Option *> add_selection(CLI::App *sub, convert_options *work) {
    CLI::Option *from =
        sub->add_option("--from", work->from,
                        "The release to come from (default: the one that the switch runs)")
            ->type_name("RELEASE");
    CLI::Option *moment =
        sub->add_option("--moment", work->moments,
                        "gsync, running-fs or startup; may be repeated (default: all three)")
            ->check(CLI::IsMember({"gsync", "running-fs", "startup"}))
            ->allow_extra_args(false);
    CLI::Option *service = sub->add_option("--service", work->services,
                                           "A service's name; may be repeated (default: all)")
                               ->type_name("SERVICE")
                               ->allow_extra_args(false);
    CLI::Option *table =
        sub->add_flag("--whole-table", work->whole_table,
                      "Call the entry points that run a whole table (gsync has none: per service)")
            ->excludes(service);
    CLI::Option *failures = sub->add_flag(
        "--accept-failures", work->accept_failures,
        "Keep the result although services failed; never after a crash or a failed write");
    CLI::Option *losses =
        sub->add_flag("--accept-losses", work->accept_losses,
                      "Keep the result although VRRP's records are lost, as by an upgrade that is "
                      "repeated");
    sub->add_option("--timeout", work->timeout, "Seconds that one service may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    return {from, moment, service, table, failures, losses};
  }

  void add_runs() {
    CLI::App *list = verb(
        &app_, "history", "The conversions, reboots and rollbacks of a lab switch, oldest first",
        "datamorph history /tmp/switch\n\n"
        "Tells what each run wrote down in DIR/runs/NUMBER; \"-\" is what it did not. Records\n"
        "are counted of conversions that were done, at each call; 'datamorph diff' tells what is\n"
        "different in the end. SECONDS is how long a run took. Where the terminal is too narrow\n"
        "for the table, each run is told in a few lines, without what is not known.",
        [this] { return history(common_, dir_); });
    list->add_option("DIR", dir_, dir_help)->required();
    CLI::App *back =
        verb(&app_, "rollback", "Put the state before the last conversion or rollback back",
             "datamorph rollback /tmp/switch --yes\n\n"
             "The switch's state and the one in previous/ change places in one step, release and\n"
             "all; rollback once more takes it back. What was stored since then, and every reboot\n"
             "since then, is of the state that goes to previous/.",
             [this] { return rollback(common_, dir_); });
    back->add_option("DIR", dir_, dir_help)->required();
    back->add_flag("-y,--yes", common_.yes,
                   "Do not ask; needed where standard input or error is no terminal");
    add_why();
  }

  void add_why() {
    CLI::App *sub = store_verb(
        &app_, "why", "What touched a record, or a store, in which run",
        "datamorph why /tmp/switch nonvolatile:/cfg/0/vlan_cfg 0001\n\n"
        "Read from the journals of the runs, oldest first: each call that named the record, or\n"
        "changed the whole store, with the bytes of the value before and after, and whether the\n"
        "run became the switch's state. Rollbacks are told, and reboots where they empty the "
        "store.\n"
        "What was changed by hand, with store put, delete or import, stands in no journal.",
        why);
    add_uri(sub);
    sub->add_option("KEY", store_.key, "The record's key; may be empty (default: the whole store)")
        ->each([this](const std::string &) { store_.has_key = true; });
    add_text(sub);
  }

  CLI::App *store_verb(CLI::App *parent, const char *name, const char *what, const char *example,
                       int (*act)(const common_options &, const store_options &)) {
    CLI::App *sub = verb(parent, name, what, example, [this, act] { return act(common_, store_); });
    sub->add_option("DIR", store_.dir, dir_help)->required();
    return sub;
  }

  void add_uri(CLI::App *sub) {
    sub->add_option("URI", store_.uri, "The store, such as volatile:/cfg/0/evms_runtime_cfg")
        ->required();
  }

  void add_yes(CLI::App *sub) {
    sub->add_flag("--yes", common_.yes,
                  "Do not ask before something is discarded, as is done where standard input and "
                  "error are a terminal");
  }

  void add_text(CLI::App *sub) {
    sub->add_flag("--text", store_.text,
                  "Keys and values are text (other bytes as \\xNN) instead of hex");
  }

  void add_stores() {
    CLI::App *store = app_.add_subcommand("store", "Look into a switch's stores and edit them");
    store->require_subcommand(1);
    store_verb(store, "list", "All stores with their records, sizes and limits",
               "datamorph store list /tmp/switch", store_list);
    CLI::App *show =
        store_verb(store, "show",
                   "All records of a store or a snapshot's file, and what those of a known form "
                   "mean",
                   "datamorph store show /tmp/switch volatile:/cfg/0/plugin_debug --text\n"
                   "  datamorph store show /tmp/switch /cfg/0/globalpss_table.snp",
                   store_show);
    show->add_option("URI", store_.uri,
                     "The store, such as volatile:/cfg/0/evms_runtime_cfg, or the path in the "
                     "switch of a flat file, which a snapshot is kept in")
        ->required();
    add_text(show);
    CLI::App *get =
        store_verb(store, "get", "The value of one record",
                   "datamorph store get /tmp/switch nonvolatile:/cfg/0/vlan_cfg 0001", store_get);
    add_uri(get);
    get->add_option("KEY", store_.key, "The record's key")->required();
    add_text(get);
    CLI::App *put = store_verb(store, "put", "Insert or replace one record",
                               "datamorph store put /tmp/switch nonvolatile:/cfg/0/vlan_cfg 0001 "
                               "ff00",
                               store_put);
    add_uri(put);
    put->add_option("KEY", store_.key, "The record's key")->required();
    put->add_option("VALUE", store_.value, "Its value; may be empty")->required();
    put->add_flag("--create", store_.create, "Make the store when it is missing");
    add_text(put);
    CLI::App *remove = store_verb(store, "delete", "Delete one record, or a whole store",
                                  "datamorph store delete /tmp/switch nonvolatile:/cfg/0/vlan_cfg "
                                  "0001",
                                  store_delete);
    add_uri(remove);
    remove->add_option("KEY", store_.key, "The record's key; may be empty")
        ->each([this](const std::string &) { store_.has_key = true; });
    remove->add_flag("--all", store_.all, "The whole store, also a damaged one");
    add_yes(remove);
    add_text(remove);
    add_transfer(store);
  }

  void add_transfer(CLI::App *store) {
    CLI::App *out =
        store_verb(store, "export", "Write stores as a JSON document",
                   "datamorph store export /tmp/switch --file stores.json", store_export);
    out->add_option("URI", store_.uris, "The stores (default: all)");
    out->add_option("--file", store_.file, "Where to (default: standard output)")
        ->type_name("FILE");
    CLI::App *in = store_verb(store, "import", "Load stores from such a document",
                              "datamorph store import /tmp/switch --file stores.json\n\n"
                              "The stores are replaced in a copy of the switch's state, which "
                              "takes its place in one\n"
                              "step: all of them, or none. Stores that are missing are made.\n"
                              "A store that stands keeps its parameters: a document that names "
                              "others is refused\n"
                              "unless it is merged.",
                              store_import);
    in->add_option("URI", store_.uris, "Which of the document's stores (default: all)");
    in->add_option("--file", store_.file, "Where from (default: standard input)")
        ->type_name("FILE");
    in->add_flag("--merge", store_.merge, "Keep records that the document does not name");
  }

  void add_diff() {
    CLI::App *sub =
        verb(&app_, "diff", "How two switches, states of one, or stores differ",
             "datamorph diff /tmp/switch/previous /tmp/switch\n"
             "  datamorph diff /tmp/switch:volatile:/a/x /tmp/other:volatile:/b/x\n\n"
             "What B has more is added, what A has more is removed. Not compared: the conversion\n"
             "logs and their marker, the generation of a state, folders, and when files were\n"
             "written. Exit status: 0 same, 2 different, 3 something could not be read. With\n"
             "--expect 0 says that the differences are exactly the known ones; the others, and\n"
             "known ones that are missing, are shown.",
             [this] { return diff(common_, diff_); });
    sub->add_option("A", diff_.a,
                    "A lab switch, a folder with a state of one, or a store as DIR:URI")
        ->required()
        ->type_name("DIR");
    sub->add_option("B", diff_.b, "Another one")->required()->type_name("DIR");
    sub->add_option("--expect", diff_.expect,
                    "Known differences: a file with what --format json has written")
        ->type_name("FILE");
  }

  void add_check() {
    CLI::App *sub =
        verb(&app_, "check", "All that stands in the way of a conversion, at once",
             "datamorph check /tmp/switch --to '4.2(1)'\n\n"
             "Changes nothing and opens nothing for writing. Each finding tells its store, its\n"
             "record and what to do. Exit status: 0 nothing found, 3 something found.",
             [this] { return check(common_, check_); });
    sub->add_option("DIR", check_.dir, dir_help)->required();
    sub->add_option("--to", check_.to, "The release to convert to")
        ->required()
        ->type_name("RELEASE");
    sub->add_option("--from", check_.from,
                    "The release to come from (default: the one that the switch runs)")
        ->type_name("RELEASE");
    sub->add_option("--timeout", check_.timeout, "Seconds that the library or one store may take")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
  }

  void add_library_verbs() {
    verb(&app_, "services", "The library's dispatch tables, in call order",
         "datamorph services --format json", [this] { return services(common_); });
    CLI::App *sub = verb(&app_, "compare", "How the library orders two releases",
                         "datamorph compare '4.2(1)' '4.1(2)'   (prints \"newer\", exit status 2)",
                         [this] { return compare(common_, a_, b_); });
    sub->add_option("A", a_, "A release; any text that is not empty is ordered as one")->required();
    sub->add_option("B", b_, "Another one")->required();
  }

  // What packages and shells ask for. --help hides them.
  void add_shell_verbs() {
    CLI::App *completion = app_.add_subcommand("completion", "Completions for a shell")->group("");
    completion->add_option("SHELL", shell_, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
    completion->callback([this] {
      chosen_ = [this] {
        const command program = command_tree(app_);
        output::raw(shell_ == "bash" ? bash_completion(program) : zsh_completion(program));
        return static_cast<int>(exit_done);
      };
    });
    app_.add_subcommand("manual", "The manual page in the language of scdoc")
        ->group("")
        ->callback([this] {
          chosen_ = [this] {
            output::raw(manual_page(command_tree(app_)));
            return static_cast<int>(exit_done);
          };
        });
  }

  static std::string verbs_of(const CLI::App &app) {
    std::string names;
    for (const CLI::App *sub :
         app.get_subcommands([](const CLI::App *verb) { return !verb->get_group().empty(); })) {
      append_word(names, sub->get_name());
    }
    return names;
  }

  static const CLI::App *verb_of(const CLI::App &app, const std::string &name) {
    for (const CLI::App *sub : app.get_subcommands([](const CLI::App *) { return true; })) {
      if (sub->get_name() == name) {
        return sub;
      }
    }
    return nullptr;
  }

  static output::style style_of(const std::string &format) {
    return format == "json"    ? output::style::document
           : format == "jsonl" ? output::style::lines
                               : output::style::none;
  }

  // The format in words that cannot be parsed.
  static std::string asked_format(const words &typed) {
    constexpr std::string_view option = "--format";
    std::string format;
    for (size_t at = 0; at < typed.size() && typed[at] != "--"; ++at) {
      if (typed[at] == option && at + 1 < typed.size()) {
        format = typed[at + 1];
      } else if (typed[at].starts_with(std::string(option) + "=")) {
        format = typed[at].substr(option.size() + 1);
      }
    }
    return format;
  }

  // The program and the verbs that the first words name.
  std::vector<const CLI::App *> path_of(const words &typed) const {
    std::vector<const CLI::App *> path = {&app_};
    for (const std::string &word : typed) {
      const CLI::App *sub = verb_of(*path.back(), word);
      if (sub == nullptr) {
        break;
      }
      path.push_back(sub);
    }
    return path;
  }

  static std::string name_of(const std::vector<const CLI::App *> &path) {
    std::string name;
    for (size_t at = 1; at < path.size(); ++at) {
      append_word(name, path[at]->get_name());
    }
    return name;
  }

  // Names the first word that is no verb where one is wanted, if that is what is wrong.
  static failure usage_failure(const words &typed, const std::vector<const CLI::App *> &path,
                               const CLI::ParseError &error) {
    const size_t at = path.size() - 1; // of the first word that is no verb
    const std::string word = at < typed.size() ? typed[at] : "";
    const std::string verbs = verbs_of(*path.back());
    if (at < typed.size() && !verbs.empty() && !word.starts_with("-")) {
      return failure(exit_usage, "unknown verb " + in_quotes(word), "verbs: " + verbs);
    }
    if (at == 0 && word.starts_with("-")) {
      return failure(exit_usage,
                     in_quotes(word) + " stands before the verb, where only --help and --version "
                                       "may",
                     "options stand after the verb");
    }
    std::string help = "see 'datamorph ";
    for (size_t verb = 1; verb < path.size(); ++verb) {
      help += path[verb]->get_name() + " ";
    }
    help += "--help'";
    const command verb = command_tree(*path.back());
    const std::string unknown =
        unknown_option(verb, {typed.begin() + static_cast<std::ptrdiff_t>(at), typed.end()});
    if (!unknown.empty()) {
      const std::string nearest = nearest_option(verb, unknown);
      return failure(exit_usage, "unknown option " + in_quotes(unknown),
                     (nearest.empty() ? "" : "the nearest one is " + nearest + ": ") + help);
    }
    const std::string what = error.what();
    return failure(exit_usage, to_text(what.size() > 500 ? what.substr(0, 500) + "..." : what),
                   help);
  }

  CLI::App app_;
  common_options common_;
  convert_options convert_;
  rehearse_options rehearse_;
  matrix_options matrix_;
  store_options store_;
  diff_options diff_;
  check_options check_;
  std::string format_ = "table";
  std::string dir_;
  std::string from_;
  std::string a_;
  std::string b_;
  std::string shell_;
  action chosen_;
};

// Whoever started the program may have closed them; no other file may come to stand there. What is
// written to one that was closed is lost and counts as that.
void open_standard_streams() {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDONLY);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) {
    close(fd);
  }
}

} // namespace

int main(int argc, char **argv) {
  open_standard_streams();
  // A reader that goes away is an output that could not be written, not an end in the midst.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL); // the ends of its processes are waited for
  int status = exit_failed;
  try {
    status = command_line().run(argc, argv);
  } catch (const failure &error) {
    status = error.status();
    output::message(error.what());
    output::explain(error.message(), error.next_action());
  } catch (const std::exception &error) {
    output::message(error.what());
    output::explain(error.what());
  }
  return output::end(status);
}
