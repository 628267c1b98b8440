#include "check_state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "lab/lab.h"
#include "release_sides.h"
#include "statuses.h"
#include "store_access.h"
#include "tag_tables.h"
#include "text.h"
#include "unique_fd.h"
#include "vrrp_hand_over.h"

namespace {

constexpr size_t most_hex = 64; // characters of a value in a text

// ---- What is told to the parent ----------------------------------------------------------------

class teller {
public:
  explicit teller(const jail::channel &channel) : channel_(channel) {}

  void step(size_t number, size_t all, const std::string &store) {
    channel_.send({{"step", number}, {"of", all}, {"store", to_hex(store)}});
  }
  void looked(topic what) {
    ++counts_[static_cast<size_t>(what)][0];
    if (++since_ == 4096) { // who is waited for says that it lives
      send_counts();
    }
  }
  // Whether enough findings of this topic have been told: this one is counted then, and its text
  // need not be made.
  bool only_counts(topic what, level how) {
    const auto at = static_cast<size_t>(what);
    const bool full = sent_[at] == most_findings;
    counts_[at][how == level::error ? 1 : 2] += full ? 1 : 0;
    return full;
  }
  void tell(const finding &found) {
    if (!only_counts(found.what, found.how)) {
      ++sent_[static_cast<size_t>(found.what)];
      channel_.send(found.to_message());
    }
  }
  void send_counts() {
    nlohmann::json counts = nlohmann::json::array();
    for (size_t at = 0; at < counts_.size(); ++at) {
      counts.push_back({at, counts_[at][0], counts_[at][1], counts_[at][2]});
    }
    channel_.send({{"counts", counts}});
    counts_ = {};
    since_ = 0;
  }

private:
  const jail::channel &channel_;
  std::array<std::array<uint64_t, 3>, topic_names.size()> counts_ = {};
  std::array<size_t, topic_names.size()> sent_ = {};
  size_t since_ = 0;
};

// ---- Words -------------------------------------------------------------------------------------

std::string short_value(std::string_view value) {
  const std::string hex = to_hex(value.substr(0, most_hex / 2));
  return "value " + (value.size() * 2 <= most_hex ? hex : hex + "...");
}

std::string command_on(const check_subject &subject, const char *verb, const std::string &uri) {
  return std::string("datamorph store ") + verb + " " + shell_word(subject.dir) + " " +
         shell_word(uri);
}

std::string key_word(const std::string &key) {
  return key.empty() ? "\"\"" : key;
}

std::string path_of(const check_subject &subject, const std::string &path) {
  return shell_word(subject.dir + "/current" + path);
}

std::string file_remedy(const check_subject &subject, const std::string &path) {
  return "remove it, so that it is made anew: rm " + path_of(subject, path);
}

std::string record_remedy(const check_subject &subject, const std::string &uri,
                          const std::string &key) {
  if (is_file_path(uri)) {
    return file_remedy(subject, uri);
  }
  return command_on(subject, "delete", uri) + " " + key_word(key) +
         " (or 'datamorph store put' with the right value)";
}

// The way back of VRRP's records to the manager; empty when the switch has no images for it.
std::string give_back(const check_subject &subject, bool from_engine) {
  if (subject.newer.empty() || subject.older.empty()) {
    return "";
  }
  return "datamorph convert " + shell_word(subject.dir) + " --from " + shell_word(subject.newer) +
         " --to " + shell_word(subject.older) + " --moment startup --service VRRP_MGR" +
         (from_engine ? " --service VRRP_ENG" : "");
}

// ---- Records -----------------------------------------------------------------------------------

class record_check {
public:
  record_check(const check_subject &subject, teller *tell, std::string store)
      : subject_(subject), tell_(*tell), store_(std::move(store)) {}

  void take(std::string_view key, std::string_view value) {
    if (store_ == lab::running_tag_tables) {
      check_tags(key, value);
      return;
    }
    tell_.looked(topic::record);
    const std::optional<decoded_record> decoded = decode_record(store_, key, value);
    if (!decoded) {
      return;
    }
    const bool problems = find_field(*decoded, "problems") != nullptr;
    if ((problems || decoded->damaged) && !tell_.only_counts(topic::record, level::error)) {
      report(topic::record, level::error, key, decoded->to_text() + ", " + short_value(value));
    }
    if (!decoded->damaged && subject_.side && has_layouts(store_)) {
      check_layout(*decoded, key, value);
    }
    check_vdc(*decoded, key);
  }

private:
  static const decoded_field *find_field(const decoded_record &record, const char *name) {
    const auto found = std::find_if(record.fields.begin(), record.fields.end(),
                                    [&](const decoded_field &one) { return one.name == name; });
    return found == record.fields.end() ? nullptr : &*found;
  }

  void report(topic what, level how, std::string_view key, const std::string &text,
              const std::string &remedy = "") {
    const std::string hex = to_hex(key);
    tell_.tell({what, how, store_, hex, text,
                remedy.empty() ? record_remedy(subject_, store_, hex) : remedy});
  }

  void check_tags(std::string_view key, std::string_view value) {
    if (!subject_.state) {
      return;
    }
    tell_.looked(topic::tags);
    const std::string trouble = running_record_trouble(subject_.state->vdcs, key, value);
    if (!trouble.empty()) {
      report(topic::tags, level::error, key,
             "running tag table: " + trouble + ", " + short_value(value));
    }
  }

  void check_layout(const decoded_record &decoded, std::string_view key, std::string_view value) {
    tell_.looked(topic::layout);
    const std::string trouble = layout_trouble(store_, key, value, *subject_.side);
    if (trouble.empty() || tell_.only_counts(topic::layout, level::error)) {
      return;
    }
    const bool handed_over = *subject_.side == layout_side::before && is_engines();
    report(topic::layout, level::error, key, trouble + ": " + decoded.to_text(),
           handed_over ? give_back(subject_, true) : "");
  }

  // Records of VRRP that another part of a change has brought to the engine already.
  bool is_engines() const {
    return subject_.state &&
           std::any_of(subject_.state->vdcs.begin(), subject_.state->vdcs.end(), [&](vdc_id_t vdc) {
             return store_ == vrrp_stores(*subject_.state, vdc)[1];
           });
  }

  void check_vdc(const decoded_record &decoded, std::string_view key) {
    const decoded_field *const field = find_field(decoded, "vdc");
    if (field == nullptr || !subject_.state) {
      return;
    }
    tell_.looked(topic::vdc);
    const std::vector<vdc_id_t> &vdcs = subject_.state->vdcs;
    const uint64_t vdc = field->value.get<uint64_t>();
    if (vdc == 0 && find_field(decoded, "database") != nullptr) {
      return; // a database that belongs to no VDC of its own
    }
    if (std::none_of(vdcs.begin(), vdcs.end(), [&](vdc_id_t known) { return known == vdc; })) {
      report(topic::vdc, level::warning, key,
             decoded.to_text() + ": the switch has no VDC " + std::to_string(vdc));
    }
  }

  const check_subject &subject_;
  teller &tell_;
  std::string store_;
};

// ---- Stores ------------------------------------------------------------------------------------

class state_check {
public:
  state_check(const check_subject &subject, const std::vector<std::string> &uris, teller *tell)
      : subject_(subject), uris_(uris), tell_(*tell) {}

  void tell_unread(int trouble);
  void look_at_store(const std::string &uri);
  void look_at_flat_files();
  void look_at_hand_over();
  void look_at_places();
  void look_at_rights();

private:
  void tell(topic what, level how, const std::string &store, const std::string &text,
            const std::string &remedy) {
    tell_.tell({what, how, store, {}, text, remedy});
  }
  void check_store_vdc(const std::string &uri);
  void look_at_flat_file(const std::string &path);
  bool hand_over_of(const std::string &uri, vdc_id_t *vdc) const;
  void look_at_waiting(const std::string &uri, vdc_id_t vdc);
  void left_over(const std::string &uri, const std::string &text);
  void look_at_log_folder();

  const check_subject &subject_;
  const std::vector<std::string> &uris_; // of all stores that can be found
  teller &tell_;
};

// A writer that was killed leaves one; that of a writer that had done its work starts with a zero.
bool has_waiting_journal(const std::string &file) {
  const unique_fd journal(
      open((file + "-journal").c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  char first = 0;
  return journal.is_open() && read(journal.get(), &first, 1) == 1 && first != 0;
}

std::string store_remedy(const check_subject &subject, const std::string &uri, syserr_t status) {
  return status == SYSERR_PSS_NO_ACCESS
             ? "run as the user that the switch belongs to"
             : command_on(subject, "delete", uri) +
                   " --all, and bring it back with 'datamorph store import'";
}

// Why there may be more stores. What this user may not read is told with the rights.
void state_check::tell_unread(int trouble) {
  if (trouble != 0 && trouble != EACCES) {
    tell(topic::store, level::error, "",
         "not all stores of the switch can be read: " + error_text(trouble),
         "mend the file system that the switch lies on");
  }
}

void state_check::check_store_vdc(const std::string &uri) {
  constexpr char mark[] = "/vdc_";
  const size_t at = uri.find(mark);
  if (at == std::string::npos || !subject_.state) {
    return;
  }
  tell_.looked(topic::vdc);
  const size_t start = at + sizeof mark - 1;
  const std::string number = uri.substr(start, uri.find('/', start) - start);
  std::string text = "its path names no VDC of the switch: vdc_" + to_text(number);
  for (const vdc_id_t vdc : subject_.state->vdcs) {
    if (number == std::to_string(vdc)) {
      text = vdc == 1 ? "its path names VDC 1, whose stores have no /vdc_ in their paths" : "";
    }
  }
  if (!text.empty()) {
    tell(topic::vdc, level::warning, uri, text + ", so no conversion reads it",
         command_on(subject_, "delete", uri) + " --all ('datamorph store export' keeps a copy)");
  }
}

void state_check::look_at_store(const std::string &uri) {
  tell_.looked(topic::store);
  check_store_vdc(uri);
  if (has_waiting_journal(lab::store_file(uri))) {
    // Whoever opens it takes back what is in there, which is a change.
    tell(topic::run, level::warning, uri,
         "a command that was writing it was stopped, and what it had not finished is still to be "
         "taken back; its records were not looked at",
         "datamorph store list " + shell_word(subject_.dir));
    return;
  }
  lab::store_info info;
  const syserr_t status = lab::store_inspect(uri, &info);
  if (status != SYSERR_SUCCESS) {
    tell(topic::store, level::error, uri, "cannot be read: " + status_text(status),
         store_remedy(subject_, uri, status));
    return;
  }
  try {
    record_check records(subject_, &tell_, uri);
    store_handle store(uri, PSS2_MODE_READ);
    store.for_each([&](std::string_view key, std::string_view value) { records.take(key, value); });
    store.close();
  } catch (const failure &error) {
    tell(topic::store, level::error, uri, error.what(),
         "check it again when no other command works on the switch");
  }
}

// ---- Flat files --------------------------------------------------------------------------------

void state_check::look_at_flat_file(const std::string &path) {
  tell_.looked(topic::file);
  record_check records(subject_, &tell_, path);
  const syserr_t status = lab::flat_file_read(
      path, [&](std::string_view key, std::string_view value) { records.take(key, value); });
  if (status != SYSERR_SUCCESS) {
    tell(topic::file, level::error, path, "the snapshot cannot be read: " + status_text(status),
         file_remedy(subject_, path));
  }
}

// The snapshots of databases, where the global synchronisation of each VDC reads them.
void state_check::look_at_flat_files() {
  if (!subject_.state) {
    return;
  }
  for (const vdc_id_t vdc : subject_.state->vdcs) {
    std::vector<std::string> paths;
    std::error_code error;
    const std::string folder = subject_.state->path_of(moment::gsync, vdc);
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
         at.increment(error)) {
      if (at->path().extension() == ".snp") {
        paths.push_back(at->path());
      }
    }
    std::sort(paths.begin(), paths.end());
    for (const std::string &path : paths) {
      look_at_flat_file(path);
    }
  }
}

// ---- Between VRRP's two services ---------------------------------------------------------------

bool state_check::hand_over_of(const std::string &uri, vdc_id_t *vdc) const {
  const std::vector<vdc_id_t> &vdcs = subject_.state->vdcs;
  const auto found = std::find_if(vdcs.begin(), vdcs.end(), [&](vdc_id_t one) {
    return vrrp_stores(*subject_.state, one)[2] == uri;
  });
  if (found != vdcs.end()) {
    *vdc = *found;
  }
  return found != vdcs.end();
}

void state_check::left_over(const std::string &uri, const std::string &text) {
  tell(topic::handover, level::warning, uri, text,
       command_on(subject_, "delete", uri) + " --all ('datamorph store export' keeps a copy)");
}

// Only what is in neither service's store would be missed.
void state_check::look_at_waiting(const std::string &uri, vdc_id_t vdc) {
  std::vector<store_handle> homes;
  for (const std::string &home : vrrp_stores(*subject_.state, vdc)) {
    if (has_waiting_journal(lab::store_file(home))) {
      return; // it has been told that this one could not be looked at
    }
    if (home != uri && access(lab::store_file(home).c_str(), F_OK) == 0) {
      homes.emplace_back(home, PSS2_MODE_READ);
    }
  }
  size_t waiting = 0;
  store_handle store(uri, PSS2_MODE_READ);
  store.for_each([&](std::string_view key, std::string_view) {
    const auto has = [&](store_handle &home) { return home.has(std::string(key)); };
    waiting += is_vr_or_vip(key) && std::none_of(homes.begin(), homes.end(), has) ? 1 : 0;
  });
  if (waiting == 0) {
    left_over(uri, "left by a conversion; nothing waits in it, since what it holds stands with "
                   "VRRP's services too");
    return;
  }
  const std::string way = give_back(subject_, false);
  tell(topic::handover, level::error, uri,
       counted(waiting, "VRRP record") + " of VDC " + std::to_string(vdc) +
           (waiting == 1 ? " waits" : " wait") +
           " in it for the other service, and a conversion would lose " +
           (waiting == 1 ? "it" : "them"),
       way.empty() ? vrrp_remedy({{uri, waiting}}) : way);
}

void state_check::look_at_hand_over() {
  if (!subject_.state) {
    return;
  }
  for (const std::string &uri : uris_) {
    if (!uri.starts_with("nonvolatile:/tmp/") || !has_layouts(uri)) {
      continue;
    }
    tell_.looked(topic::handover);
    try {
      vdc_id_t vdc = 0;
      if (hand_over_of(uri, &vdc)) {
        look_at_waiting(uri, vdc);
      } else {
        left_over(uri, "VRRP's services hand nothing over in a store of this name");
      }
    } catch (const failure &) {
      // It has been told which store cannot be read.
    }
  }
}

// ---- Fixed places ------------------------------------------------------------------------------

struct fixed_place {
  topic what;
  const char *path;
  const char *harm; // when something else than a regular file stands there
};

// clang-format off
constexpr fixed_place fixed_places[] = {
    {topic::marker, "/tmp/datamorphcheck",                   "each line would start the conversion log anew"},
    {topic::marker, "/tmp/fc_nport_mux",                     "the switch would be taken for one in NPV mode"},
    {topic::marker, "/mnt/pss/fc_nport_mux",                 "the switch would be taken for one in NPV mode"},
    {topic::log,    "/mnt/pss/data_morph.log",               "the conversion log would be lost"},
    {topic::log,    "/mnt/pss/data_morph.last",              "the conversion log's older part would be lost"},
    {topic::log,    "/bootflash/data_morph_vrrp_mgr.log",    "the trace of VRRP's manager would be lost"},
    {topic::log,    "/bootflash/data_morph_vrrp_eng.log",    "the trace of VRRP's engine would be lost"},
};
// clang-format on

const char *kind_of(mode_t mode) {
  return S_ISDIR(mode) ? "a folder" : S_ISLNK(mode) ? "a link" : "a special file";
}

void state_check::look_at_log_folder() {
  constexpr char folder[] = "/mnt/pss";
  tell_.looked(topic::log);
  struct stat about = {};
  if (lstat(folder, &about) != 0) {
    tell(topic::log, level::warning, folder,
         "the folder of the conversion log is missing, so the log would be lost",
         "mkdir -p " + path_of(subject_, folder));
  } else if (!S_ISDIR(about.st_mode)) {
    tell(topic::log, level::warning, folder,
         std::string("where the folder of the conversion log should be stands ") +
             (S_ISREG(about.st_mode) ? "a file" : kind_of(about.st_mode)) +
             ", so the log would be lost",
         "move " + path_of(subject_, folder) + " elsewhere and make a folder there");
  } else if (!subject_.as_root && (about.st_mode & 0300) != 0300) {
    // The copy that is converted belongs to who converts.
    tell(topic::log, level::warning, folder,
         "the folder of the conversion log cannot be written by its owner, so the log would "
         "be lost",
         "chmod u+rwx " + path_of(subject_, folder));
  }
}

void state_check::look_at_places() {
  look_at_log_folder();
  for (const fixed_place &place : fixed_places) {
    tell_.looked(place.what);
    struct stat about = {};
    if (lstat(place.path, &about) == 0 && !S_ISREG(about.st_mode)) {
      tell(place.what, level::warning, place.path,
           std::string(kind_of(about.st_mode)) + " stands where a file is wanted: " + place.harm,
           "rm -r " + path_of(subject_, place.path));
    }
  }
}

// All that is to be copied has to be read; what the stores' checks have told is not told again.
void state_check::look_at_rights() {
  std::set<std::string> stores;
  for (const std::string &uri : uris_) {
    stores.insert(lab::store_file(uri));
  }
  constexpr char remedy[] = "run as the user that the switch belongs to";
  std::error_code error;
  using walk = std::filesystem::recursive_directory_iterator;
  constexpr auto past_closed = std::filesystem::directory_options::skip_permission_denied;
  for (walk at("/", past_closed, error), end; !error && at != end; at.increment(error)) {
    const std::string path = at->path();
    struct stat about = {};
    if (lstat(path.c_str(), &about) != 0 || !(S_ISREG(about.st_mode) || S_ISDIR(about.st_mode))) {
      continue;
    }
    tell_.looked(topic::rights);
    const int wanted = S_ISDIR(about.st_mode) ? R_OK | X_OK : R_OK;
    if (access(path.c_str(), wanted) != 0 && !stores.contains(path)) {
      tell(topic::rights, level::error, path,
           "this user may not read it, so the state cannot be copied", remedy);
    }
  }
  if (error) {
    tell(topic::rights, level::error, "/", "not all files could be looked at: " + error.message(),
         remedy);
  }
}

} // namespace

void ask_library(const jail::channel &channel, const library &library,
                 const check_subject &subject) {
  nlohmann::json message = {{"newer", ""}, {"older", ""}, {"differs", nlohmann::json::array()}};
  const std::optional<layout_side> side = side_of(library, subject.from);
  if (side) {
    message["side"] = *side;
  }
  for (const auto &[release, version] : subject.images.items()) {
    if (!version.is_string() || !is_release_name(release)) {
      continue;
    }
    message[side_of(library, release) == layout_side::before ? "older" : "newer"] = release;
    syserr_t error = SYSERR_SUCCESS;
    const int order =
        library.compare_versions(version.get<std::string>().c_str(), release.c_str(), &error);
    if ((release == subject.from || release == subject.to) &&
        (order != 0 || error != SYSERR_SUCCESS)) {
      message["differs"].push_back(release);
    }
  }
  channel.send(message);
}

void look_at_state(const jail::channel &channel, const check_subject &subject, size_t first_step) {
  lab::stores_for_reading_only();
  int trouble = 0;
  const std::vector<std::string> uris = lab::store_uris(&trouble);
  teller tell(channel);
  state_check check(subject, uris, &tell);
  if (first_step == 0) {
    check.tell_unread(trouble);
  }
  using part = void (state_check::*)();
  constexpr part parts[] = {&state_check::look_at_flat_files, &state_check::look_at_hand_over,
                            &state_check::look_at_places, &state_check::look_at_rights};
  const size_t all = uris.size() + std::size(parts);
  for (size_t step = first_step; step < all; ++step) {
    const bool of_store = step < uris.size();
    tell.step(step, all, of_store ? uris[step] : "");
    if (of_store) {
      check.look_at_store(uris[step]);
    } else {
      (check.*parts[step - uris.size()])();
    }
    tell.send_counts();
  }
}
