// Converters for the tests of the command line. What the SKSD routine of the running filesystem
// does is told by FAKE_CONVERTERS_DO; everything else succeeds, but for what two routines do to the
// same things (take_turns). "back-" before what is done leaves it to falling releases. Each routine
// notes its call in /bootflash/calls. Those that bear the name of a real one act for it when they
// are asked to.
#include "libdatamorph.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "platform/mts.h"
#include "platform/pss.h"
#include "platform/sysmgr.h"
#include "platform/tlv_array.h"

namespace {

mts_q_handle_t queue = 0; // of libdatamorph_init
constexpr char store_uri[] = "nonvolatile:/cfg/0/vlan_cfg";

void note(const char *routine, const char *path) {
  FILE *calls = std::fopen("/bootflash/calls", "a");
  if (calls != nullptr) {
    const char *vdc = std::getenv("SYSMGR_VDC_ID");
    const char *running = std::getenv("SYSMGR_RUNNING_CFG_DIR");
    const char *to = std::getenv("SYSMGR_TO_SRG_PATH");
    const char *from = std::getenv("SYSMGR_FROM_SRG_PATH");
    std::fprintf(calls, "%s %s %s %s %s %s\n", routine, path, vdc, running, to, from);
    std::fclose(calls);
  }
}

pss_service_t open_store() {
  syserr_t status = 0;
  return pss_open(store_uri, &status);
}

syserr_t put_value(pss_service_t store, std::string key, std::string value) {
  const pss_datum_t key_datum = {key.data(), static_cast<uint32>(key.size())};
  const pss_datum_t value_datum = {value.data(), static_cast<uint32>(value.size())};
  return pss_store(store, 0, &key_datum, &value_datum);
}

syserr_t put(pss_service_t store, const std::string &key, uint32 value_size) {
  return put_value(store, key, std::string(value_size, 'v'));
}

void put_one(const std::string &key) {
  const pss_service_t store = open_store();
  put(store, key, 4);
  pss_close(store);
}

// The store's first record goes, and nobody knows why.
void remove_one() {
  const pss_service_t store = open_store();
  syserr_t status = 0;
  const pss_datum_t *const key = pss_move2location(store, PSS_FIRST_KEY, &status);
  const std::string name(static_cast<const char *>(key->ptr), key->siz);
  const pss_datum_t first = {const_cast<char *>(name.data()), static_cast<uint32>(name.size())};
  pss_delete(store, &first);
  pss_close(store);
}

// A snapshot that no longer is one: the records in it are nobody's.
void spoil_snapshot() {
  FILE *file = std::fopen("/cfg/0/globalpss_table.snp", "w");
  if (file != nullptr) {
    std::fputs("spoilt", file);
    std::fclose(file);
  }
}

// A store that cannot be read any more.
void spoil_store() {
  FILE *file = std::fopen("/cfg/0/vlan_cfg.pss", "w");
  if (file != nullptr) {
    std::fputs("spoilt", file);
    std::fclose(file);
  }
}

void put_slowly() {
  for (int at = 0; at < 20; ++at) {
    put_one("slow-" + std::to_string(at));
    const timespec pause = {0, 3000000};
    nanosleep(&pause, nullptr);
  }
}

// More than a copy of the example switch has room for when it just fits.
void put_much() {
  const pss_service_t store = open_store();
  for (int at = 0; at < 300; ++at) {
    put(store, "much-" + std::to_string(at), 16 << 10);
  }
  pss_close(store);
}

[[noreturn]] void hang() {
  for (;;) {
    pause();
  }
}

[[noreturn]] void chatter() {
  for (;;) {
    std::fputs("still at it\n", stderr);
    const timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
  }
}

// ---- What only a library that is out of its mind does ------------------------------------------

void write_text(const char *path, const char *text) {
  FILE *file = std::fopen(path, "w");
  if (file != nullptr) {
    std::fputs(text, file);
    std::fclose(file);
  }
}

// More folders within folders than a process may have files open.
void nest_folders() {
  for (int at = 0; at < 600; ++at) {
    mkdir("d", 0755);
    if (chdir("d") != 0) {
      break;
    }
  }
  write_text("deepest", "x");
  if (chdir("/") != 0) {
    _exit(1);
  }
}

// A process in a session of its own, which writes later on.
void leave_daemon() {
  const pid_t pid = fork();
  if (pid == 0) {
    setsid();
    const timespec while_it_is_committed = {1, 0};
    nanosleep(&while_it_is_committed, nullptr);
    write_text("/bootflash/daemon-was-here", "x");
    hang();
  }
  write_text("/bootflash/daemon", std::to_string(pid).c_str());
}

void leave_the_root() {
  for (int fd = 3; fd < 1024; ++fd) {
    const int file = openat(fd, "../escaped", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file >= 0) {
      close(file);
    }
  }
}

void flood(size_t portions) {
  const std::string portion(1 << 16, 'x');
  for (size_t at = 0; at < portions; ++at) {
    if (write(STDERR_FILENO, portion.data(), portion.size()) < 0) {
      return;
    }
  }
}

// In the place of the program's own messages.
void send_message() {
  const char *message = std::getenv("FAKE_CONVERTERS_MESSAGE");
  const std::string line = std::string(message == nullptr ? "" : message) + "\n";
  for (int fd = 3; fd < 64; ++fd) {
    struct stat about = {};
    if (fstat(fd, &about) == 0 && S_ISFIFO(about.st_mode)) {
      // Fails where the pipe is open for reading.
      [[maybe_unused]] const ssize_t put = write(fd, line.data(), line.size());
    }
  }
}

// Into whatever file is open for writing: a line that is too long and one that is none.
void damage_journal() {
  const std::string lines = std::string(3 << 20, 'x') + "\n{\"no\": \"line\n";
  for (int fd = 3; fd < 64; ++fd) {
    struct stat about = {};
    if (fstat(fd, &about) == 0 && S_ISREG(about.st_mode)) {
      [[maybe_unused]] const ssize_t put = write(fd, lines.data(), lines.size());
    }
  }
}

void make_old_generation() {
  FILE *file = std::fopen("/switch.json", "r");
  std::string text(1 << 16, '\0');
  text.resize(file == nullptr ? 0 : std::fread(text.data(), 1, text.size(), file));
  if (file != nullptr) {
    std::fclose(file);
  }
  const std::string now = "\"generation\": 1";
  const size_t at = text.find(now);
  if (at != std::string::npos) {
    text.replace(at, now.size(), "\"generation\": 0");
  }
  write_text("/switch.json", text.c_str());
}

void grow_log() {
  write_text("/mnt/pss/data_morph.log", "first line\n");
  if (truncate("/mnt/pss/data_morph.log", off_t(80) << 20) != 0) {
    _exit(1);
  }
}

void misbehave(std::string_view what) {
  if (what == "nest") {
    nest_folders();
  } else if (what == "daemon") {
    leave_daemon();
  } else if (what == "daemon-and-hang") {
    leave_daemon();
    hang();
  } else if (what == "escape") {
    leave_the_root();
  } else if (what == "flood") {
    flood(80 << 4);
  } else if (what == "endless-flood") {
    flood(SIZE_MAX);
  } else if (what == "message") {
    send_message();
  } else if (what == "damage-journal") {
    damage_journal();
    put_one("behind it");
  } else if (what == "old-generation") {
    make_old_generation();
    hang();
  } else if (what == "rubbish-in-switch-json") {
    write_text("/switch.json", "rubbish");
  } else if (what == "large-log") {
    grow_log();
  }
}

// ---- What is done to the running tag tables ----------------------------------------------------

void set_tag(uuid_t uuid, const char *tag) {
  std::string copy = tag;
  sysmgr_srv_tag_info_add(uuid, reinterpret_cast<uint8 *>(copy.data()), 1);
}

// A table where the example switch has no VDC.
void make_strange_table() {
  void *const table = std::calloc(1, SYSMGR_TAG_TABLE_MAX);
  std::memcpy(table, "\x08\0\0\0\0\0\1\0", 8);
  sysmgr_info_tbl[9].srv_tag_info_tbl = static_cast<tlv_array_t *>(table);
}

// Requests to the system manager whose answers nobody waits for.
void send_tags() {
  for (uint32 uuid = 1000; uuid < 1300; ++uuid) {
    uint32 request[10] = {htonl(uuid), htonl(1)};
    mts_ref_t sent = 0;
    mts_send(queue, 0xFE000000, MTS_SAP_SYSMGR, 2690, request, sizeof request, &sent, 0, 0);
  }
}

bool edit_tags(std::string_view what) {
  if (what == "set-another-tag") {
    set_tag(SRVUUID_AIC_DBG, "\xff\"x"); // as long as the one that stands
  } else if (what == "set-the-same-tag") {
    set_tag(SRVUUID_AIC_DBG, "lab");
  } else if (what == "set-a-tag-and-back") {
    set_tag(SRVUUID_AIC_DBG, "other");
    set_tag(SRVUUID_AIC_DBG, "lab");
  } else if (what == "empty-a-tag-table" || what == "empty-a-tag-table-and-fail") {
    sysmgr_srv_tag_info_table_prepare(0, 1);
    set_tag(SRVUUID_KPS, "k");
  } else if (what == "send-tags") {
    send_tags();
  } else if (what == "make-a-strange-tag-table") {
    make_strange_table();
  } else {
    return false;
  }
  return true;
}

syserr_t act(std::string_view what) {
  if (edit_tags(what)) {
    return what.ends_with("-and-fail") ? SYSERR_PSS_DAMAGED : SYSERR_SUCCESS;
  }

  if (what == "crash") {
    std::signal(SIGSEGV, SIG_DFL);
    std::raise(SIGSEGV);
  } else if (what == "hang") {
    put_one("hanging");
    hang();
  } else if (what == "chatter") {
    chatter();
  } else if (what == "exit") {
    _exit(0);
  } else if (what == "fail") {
    put_one("failing");
    return SYSERR_PSS_DAMAGED;
  } else if (what == "leak") {
    put(open_store(), "leaked", 4);
  } else if (what == "bad-write") {
    const pss_service_t store = open_store();
    put(store, "too-large", 2 << 20);
    pss_close(store);
  } else if (what == "change") {
    put_one("changed");
  } else if (what == "remove") {
    remove_one();
  } else if (what == "spoil-snapshot") {
    spoil_snapshot();
  } else if (what == "spoil-store") {
    spoil_store();
  } else if (what == "put-much") {
    put_much();
  } else if (what == "slow") {
    put_slowly();
  } else if (what == "rest") {
    const timespec pause = {1, 200000000};
    nanosleep(&pause, nullptr);
  } else if (what == "print") {
    std::printf("NOISE ON STANDARD OUTPUT\n");
    std::fflush(stdout);
  } else if (what == "nest-and-fail") {
    nest_folders();
    return SYSERR_PSS_DAMAGED;
  } else {
    misbehave(what);
  }
  return SYSERR_SUCCESS;
}

std::string_view wanted() {
  const char *what = std::getenv("FAKE_CONVERTERS_DO");
  return what == nullptr ? "" : what;
}

// ---- What two routines do to the same things ---------------------------------------------------

void put_as(const std::string &key, const std::string &value) {
  const pss_service_t store = open_store();
  put_value(store, key, value);
  pss_close(store);
}

// As many as FAKE_CONVERTERS_RECORDS says, each with the same value.
void put_many(const std::string &value) {
  const char *number = std::getenv("FAKE_CONVERTERS_RECORDS");
  const pss_service_t store = open_store();
  for (long at = 0; at < (number == nullptr ? 0 : std::atol(number)); ++at) {
    put_value(store, "many-" + std::to_string(at), value);
  }
  pss_close(store);
}

std::string running_tags() {
  const tlv_array_t *const table = sysmgr_info_tbl[1].srv_tag_info_tbl;
  return {reinterpret_cast<const char *>(table), tlv_array_size_get(table, 1)};
}

// As the library does with a saved table: no call tells of it.
void write_over_tags(const std::string &table) {
  std::memcpy(static_cast<void *>(sysmgr_info_tbl[1].srv_tag_info_tbl), table.data(), table.size());
}

// All records go somewhere else and come back as they were.
void snapshot_there_and_back() {
  constexpr char other_uri[] = "volatile:/cfg/0/vlan_cfg_copy";
  const pss_service_t store = open_store();
  pss_snapshot(store, 0, other_uri);
  pss_close(store);
  syserr_t status = 0;
  const pss_service_t other = pss_open(other_uri, &status);
  pss_snapshot(other, 0, store_uri);
  pss_close(other);
}

// `first` is SKSD's turn, the other one PLUGIN's.
void take_turns(std::string_view what, bool first) {
  static std::string saved_tags;
  if (what == "destroy-and-make-again") {
    if (first) {
      pss_destroy(store_uri);
    } else {
      pss_create(store_uri);
      put_as("made-again", "plugin");
    }
  } else if (what == "set-one-after-the-other") {
    put_as("the-same", "sksd"); // what stands there when it is PLUGIN's turn
    put_as("of-both", first ? "sksd" : "plugin");
  } else if (what == "change-and-snapshot") {
    if (first) {
      put_as("changed", "sksd");
    } else {
      snapshot_there_and_back();
    }
  } else if (what == "many-in-turn") {
    put_many(first ? "sksd" : "plugin");
  } else if (what == "exchange-tags") {
    if (first) {
      saved_tags = running_tags();
    } else {
      write_over_tags(saved_tags);
    }
    set_tag(SRVUUID_AIC_DBG, "first");
  } else if (what == "write-over-tags" && !first) {
    write_over_tags(std::string("\x08\0\0\0\0\0\1\0", 8));
  }
}

syserr_t sksd(const char *path, const char *, const char *to, const char *from) {
  note("sksd", path);
  std::string_view what = wanted();
  if (what.starts_with("back-")) {
    what = strverscmp(to, from) < 0 ? what.substr(5) : "";
  }
  take_turns(what, true);
  return act(what);
}

syserr_t plugin(const char *path, const char *, const char *, const char *) {
  note("plugin", path);
  take_turns(wanted(), false);
  return SYSERR_SUCCESS;
}

bool is_asked(std::string_view what) {
  const char *asked = std::getenv("FAKE_CONVERTERS_DO");
  return asked != nullptr && std::string_view(asked).starts_with(what);
}

// Takes the record of this key away, and puts its value, or another one, under the second key.
void move_record(const std::string &uri, std::string key, std::string to, bool keep_value) {
  syserr_t status = 0;
  const pss_service_t store = pss_open(uri.c_str(), &status);
  if (status != SYSERR_SUCCESS) {
    return;
  }
  const pss_datum_t old_key = {key.data(), static_cast<uint32>(key.size())};
  const pss_datum_t new_key = {to.data(), static_cast<uint32>(to.size())};
  const pss_datum_t *const found = pss_fetch(store, &old_key, &status);
  std::string value = "vvvv";
  if (keep_value && found != nullptr) {
    value.assign(static_cast<const char *>(found->ptr), found->siz);
  }
  const pss_datum_t kept = {value.data(), static_cast<uint32>(value.size())};
  pss_delete(store, &old_key);
  if (!to.empty()) {
    pss_store(store, 0, &new_key, &kept);
  }
  pss_close(store);
}

#define QUIET_ROUTINE(name)                                                                        \
  syserr_t name(const char *path, const char *, const char *, const char *) {                      \
    note(#name, path);                                                                             \
    return SYSERR_SUCCESS;                                                                         \
  }
QUIET_ROUTINE(ike)
QUIET_ROUTINE(manager_up)
QUIET_ROUTINE(engine_up)
QUIET_ROUTINE(engine_down)
QUIET_ROUTINE(manager_down)

} // namespace

extern "C" {

// "fold" as the real one, "fold-nowhere" without the new record, "fold-badly" with another value.
__attribute__((visibility("default"))) syserr_t
pixm_data_morph_gsync(const char *path, const char *, const char *, const char *) {
  using namespace std::string_literals;
  move_record("nonvolatile:"s + path + "/pixm_runtime_info", "\x36\0\0\x10\xda\0\1"s,
              is_asked("fold-nowhere") ? "" : "\x36\0\0\x11\x62\0\1"s, !is_asked("fold-badly"));
  return SYSERR_SUCCESS;
}

// What is not planted: the store goes.
__attribute__((visibility("default"))) syserr_t
cond_srv1_data_morph_gsync(const char *path, const char *, const char *, const char *) {
  pss_destroy((std::string("volatile:") + path + "/cond_srv_config").c_str());
  return SYSERR_SUCCESS;
}

// Takes a record of the engine's away, whose store nothing replaces.
__attribute__((visibility("default"))) syserr_t
vrrp_eng_data_morph_startup_for_upgrade(const char *path, const char *, const char *,
                                        const char *) {
  move_record(std::string("nonvolatile:") + path + "/bin/vrrp-eng_runtime_config", "\3", "", true);
  return SYSERR_SUCCESS;
}
}

namespace {

template <typename row_t>
syserr_t walk(const row_t *row, uuid_t uuid, convert_ret_value_t *a, const datamorph_args_t *args) {
  for (; row->uuid != SRVUUID_NONE; ++row) {
    if (row->uuid != uuid) {
      continue;
    }
    const syserr_t status =
        row->fn(args->path, args->pkg_name, args->to_pkg_version, args->from_pkg_version);
    if (status != SYSERR_SUCCESS) {
      *a = {row->uuid, status};
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

template <typename row_t> syserr_t walk_all(const row_t *table, const datamorph_args_t *args) {
  for (const row_t *row = table; row->uuid != SRVUUID_NONE; ++row) {
    const syserr_t status =
        row->fn(args->path, args->pkg_name, args->to_pkg_version, args->from_pkg_version);
    if (status != SYSERR_SUCCESS) {
      return status;
    }
  }
  return SYSERR_SUCCESS;
}

} // namespace

// A row that is not asked for ends its table.
const data_morph_gsync data_morph_gsync_table[] = {
    {SRVUUID_IKE, ike},
    {is_asked("fold")    ? SRVUUID_PIXM
     : is_asked("plant") ? SRVUUID_AIC_DBG
                         : SRVUUID_NONE,
     is_asked("fold") ? pixm_data_morph_gsync : cond_srv1_data_morph_gsync},
    {SRVUUID_NONE, nullptr}};
const data_morph_running_fs_upg data_morph_running_fs_upg_table[] = {
    {SRVUUID_SKSD, sksd}, {SRVUUID_PLUGIN, plugin}, {SRVUUID_NONE, nullptr}};
const data_morph_startup data_morph_startup_table[] = {
    {SRVUUID_VRRP_MGR, manager_up},
    {SRVUUID_VRRP_ENG, is_asked("replace") ? vrrp_eng_data_morph_startup_for_upgrade : engine_up},
    {SRVUUID_VRRP_ENG, engine_down},
    {SRVUUID_VRRP_MGR, manager_down},
    {SRVUUID_NONE, nullptr}};
const data_morph_psshlpr_upg data_morph_psshlpr_upg_table[] = {{SRVUUID_NONE, nullptr}};

void libdatamorph_init(mts_q_handle_t given) {
  queue = given;
  const char *what = std::getenv("FAKE_CONVERTERS_DO");
  if (what != nullptr && std::strcmp(what, "crash-at-init") == 0) {
    std::signal(SIGABRT, SIG_DFL);
    std::raise(SIGABRT);
  }
}

syserr_t datamorph_gsync(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_gsync_table, uuid, a, args);
}

syserr_t datamorph_startup(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_startup_table, uuid, a, args);
}

syserr_t datamorph_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return walk(data_morph_running_fs_upg_table, uuid, a, args);
}

syserr_t datamorph_startup_all(datamorph_args_t *args) {
  return walk_all(data_morph_startup_table, args);
}

syserr_t datamorph_running_fs_upg_all(datamorph_args_t *args) {
  return walk_all(data_morph_running_fs_upg_table, args);
}

int datamorph_compare_versions(const char *from_ver, const char *to_ver, syserr_t *errcode) {
  const char *what = std::getenv("FAKE_CONVERTERS_DO");
  if (what != nullptr && std::strcmp(what, "hang-in-compare") == 0) {
    hang();
  }
  *errcode = SYSERR_SUCCESS;
  const int order = strverscmp(from_ver, to_ver);
  return (order > 0) - (order < 0);
}
