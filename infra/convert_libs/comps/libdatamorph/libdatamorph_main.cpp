// The conversion framework and the converters that live with it: dispatch tables and entry points,
// the conversion log, versions, the system manager's tag tables and the services that became
// optional, and the store-removing converters of the running-filesystem moment.

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "libdatamorph_private.h"
#include "platform/mts.h"
#include "platform/pss.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"
#include "platform/tlv_array.h"

// ---- Dispatch tables ---------------------------------------------------------------------------

// Global synchronisation between the supervisors.
const data_morph_gsync data_morph_gsync_table[] = {
    {SRVUUID_PSS_HELPER, psshlpr_data_morph_gsync}, // runs the table of its own below
    {SRVUUID_IKE, ike_data_morph_gsync},
    {SRVUUID_AIC_DBG, cond_srv1_data_morph_gsync},
    {SRVUUID_PIXM, pixm_data_morph_gsync},
    {SRVUUID_TEST_ETHPM, ethpm_data_morph_gsync},
    {SRVUUID_NONE, nullptr},
};

// Conversion of the startup configuration. The VRRP rows are nested: going up, the manager hands
// its records to the engine; going down, the engine hands them back.
const data_morph_startup data_morph_startup_table[] = {
    {SRVUUID_IKE, ike_data_morph_startup},
    {SRVUUID_KPS, kps_data_morph_startup},
    {SRVUUID_DOT1X, dot1x_data_morph_startup},
    {SRVUUID_TEST_ETHPM, ethpm_data_morph_startup},
    {SRVUUID_VRRP_MGR, vrrp_mgr_data_morph_startup_for_upgrade},
    {SRVUUID_VRRP_ENG, vrrp_eng_data_morph_startup_for_upgrade},
    {SRVUUID_VRRP_ENG, vrrp_eng_data_morph_startup_for_downgrade},
    {SRVUUID_VRRP_MGR, vrrp_mgr_data_morph_startup_for_downgrade},
    {SRVUUID_NONE, nullptr},
};

// Running-filesystem upgrade.
const data_morph_running_fs_upg data_morph_running_fs_upg_table[] = {
    {SRVUUID_SKSD, sksd_data_morph_running_fs_upg},
    {SRVUUID_PLUGIN, plugin_data_morph_running_fs_upg},
    {SRVUUID_EVMS, evms_data_morph_running_fs_upg},
    {SRVUUID_EVMC, evmc_data_morph_running_fs_upg},
    {SRVUUID_MVSH, mvsh_data_morph_running_fs_upg},
    {SRVUUID_SMM, smm_data_morph_running_fs_upg},
    {SRVUUID_CLIS, clis_data_morph_running_fs_upg},
    {SRVUUID_EXCHANGE_PEER_PARAMS, epp_in_npv_mode_data_morph_running_fs_upg},
    {SRVUUID_KPS, kps_data_morph_running_fs_upg},
    {SRVUUID_DOT1X, dot1x_data_morph_running_fs_upg},
    {SRVUUID_NONE, nullptr},
};

// Upgrades of the PSS helper's databases, run by psshlpr_data_morph_gsync.
const data_morph_psshlpr_upg data_morph_psshlpr_upg_table[] = {
    {SRVUUID_SVI, svi_data_morph_psshlpr_upg},
    {SRVUUID_NONE, nullptr},
};

mts_q_handle_t datamorph_mts_q = 0;

// ---- Records of the store-removing converters --------------------------------------------------

namespace {

// One of the services whose runtime state a release of major number 3 does not understand.
struct removal_t {
  enum source_t { argument, image }; // where the release being installed is read
  enum first_t { saps, stores };     // what goes first

  const char *name;  // routine, as the log's reader knows it
  const char *label; // service, as its messages name it
  source_t source;
  first_t first;
  uint32 sap[4];           // access points; ends with 0
  const char *store[4];    // in the directory of the request; ends with null
  const char *fixed_store; // one that lies elsewhere, whatever the request; or null
};

// clang-format off
//                            routine                             label     release              first
constexpr removal_t k_sksd   = {"sksd_data_morph_running_fs_upg",   "SKSD",   removal_t::argument, removal_t::saps,
                                {MTS_SAP_SKSD},
                                {}, nullptr};
constexpr removal_t k_plugin = {"plugin_data_morph_running_fs_upg", "PLUGIN", removal_t::argument, removal_t::saps,
                                {MTS_SAP_PLUGIN},
                                {"plugin_runtime_cfg", "plugin_runtime_info", "plugin_debug"}, nullptr};
constexpr removal_t k_evms   = {"evms_data_morph_running_fs_upg",   "EVMS",   removal_t::argument, removal_t::saps,
                                {MTS_SAP_EVENT_MANAGER_SERVER},
                                {"evms_runtime_cfg", "evms_runtime_info"}, nullptr};
constexpr removal_t k_evmc   = {"evmc_data_morph_running_fs_upg",   "EVMC",   removal_t::argument, removal_t::saps,
                                {MTS_SAP_EVENT_MANAGER_CLIENT, MTS_SAP_EVENT_MANAGER_CLIENT_HIGHPRIO},
                                {"evmc_runtime_cfg", "evmc_runtime_info"}, nullptr};
constexpr removal_t k_mvsh   = {"mvsh_data_morph_running_fs_upg",   "MVSH",   removal_t::argument, removal_t::saps,
                                {MTS_SAP_MVSH, MTS_SAP_MVSH_HIGH_PRIORITY},
                                {"mvsh_runtime_cfg", "mvsh_runtime_info"}, nullptr};
constexpr removal_t k_smm    = {"smm_data_morph_running_fs_upg",    "SMM",    removal_t::image,    removal_t::stores,
                                {MTS_SAP_SMM},
                                {}, "/dev/shm/smm_smm_data"};
constexpr removal_t k_clis   = {"clis_data_morph_running_fs_upg",   "CLIS",   removal_t::image,    removal_t::stores,
                                {MTS_SAP_CLISH, MTS_SAP_CLIS, MTS_SAP_CLIS_CTRL},
                                {"clis_runtime_config", "clis_runtime_info"}, nullptr};
// clang-format on

static_assert(MTS_SAP_CLIS == MTS_SAP_CLISH + 1 && MTS_SAP_CLIS_CTRL == MTS_SAP_CLISH + 2,
              "the command line's access points are a run of three");

constexpr bool has_ends(const removal_t &service) {
  return service.sap[std::size(service.sap) - 1] == 0 &&
         service.store[std::size(service.store) - 1] == nullptr;
}
static_assert(has_ends(k_sksd) && has_ends(k_plugin) && has_ends(k_evms) && has_ends(k_evmc) &&
              has_ends(k_mvsh) && has_ends(k_smm) && has_ends(k_clis));

constexpr int k_removal_major = 3; // of the release being installed
constexpr size_t k_uri_size = 256;
constexpr vdc_id_t k_default_vdc = 1;
constexpr int k_image_version_size = 255;

// ---- Records of the services that became optional ----------------------------------------------

// From this release on the features below are optional services.
constexpr char k_optional_release[] = "4.2(1)";

// A feature with a flag in its saved configuration.
struct feature_t {
  enum test_t { first_word, any_value }; // what of the flag's value says that it is enabled

  uuid_t uuid;
  const char *check_name; // routines, as the log's reader knows them
  const char *running_fs_name;
  const char *startup_name;
  const char *label;         // service, as its message for null arguments names it
  const char *store;         // in the configuration directory, with "_saved_config" behind
  std::array<uint8, 12> key; // of the flag; stored by the service itself, so it never changes
  uint32 key_size;
  test_t test;
  const char *enabled; // messages
  const char *not_enabled;
};

// The flag's key of KPS is a bare number in host byte order.
constexpr auto k_kps_key = std::bit_cast<std::array<uint8, 4>>(uint32{240});

constexpr feature_t k_dot1x = {
    SRVUUID_DOT1X,
    "was_dot1x_running",
    "dot1x_data_morph_running_fs_upg",
    "dot1x_data_morph_startup",
    "dot1x",
    "dot1x",
    {/* type */ 0x64, 0x0A, 0, 0, 0, 0, 0, 0, /* enable_type */ 0, 0, 0, 0},
    12,
    feature_t::first_word,
    "Dot1x is enabled and running",
    "Dot1x is not enabled"};
constexpr feature_t k_psec = {SRVUUID_ETH_PORT_SEC,
                              "was_psec_running",
                              "psec_data_morph_running_fs_upg",
                              "psec_data_morph_startup",
                              "port security",
                              "eth_port_sec",
                              {/* type */ 0, 0, 0, 0, /* enable_type */ 0, 0, 0, 0},
                              8,
                              feature_t::first_word,
                              "Port Security is enabled and running",
                              "Port Security is not enabled"};
// QUIRK: any value counts as enabled, also one that is all zero; the other two look at the value.
// Pinned by feature_test, any_value_enables_kps.
constexpr feature_t k_kps = {SRVUUID_KPS,
                             "was_kps_running",
                             "kps_data_morph_running_fs_upg",
                             "kps_data_morph_startup",
                             "kps",
                             "kps",
                             {k_kps_key[0], k_kps_key[1], k_kps_key[2], k_kps_key[3]},
                             4,
                             feature_t::any_value,
                             "KPS is enabled and running",
                             "KPS is not enabled"};

// The request that adds a service's tag; sent in network byte order.
struct mts_opc_sysmgr_add_tag_info_req_t {
  uint32 uuid;
  uint32 vdc;
  uint8 tag[32]; // a terminator always stands: at most 31 characters are copied
};
static_assert(sizeof(mts_opc_sysmgr_add_tag_info_req_t) == 40, "sent as it lies");
static_assert(offsetof(mts_opc_sysmgr_add_tag_info_req_t, vdc) == 4, "sent as it lies");
static_assert(offsetof(mts_opc_sysmgr_add_tag_info_req_t, tag) == 8, "sent as it lies");

struct mts_opc_sysmgr_add_tag_info_rsp_t {
  syserr_t status; // network byte order
};
static_assert(sizeof(mts_opc_sysmgr_add_tag_info_rsp_t) == 4, "sent as it lies");

constexpr uint32 k_this_supervisor = 0xFE000000;
constexpr uint32 k_opcode_add_tag_info = 2690;
constexpr uint32 k_answer_timeout = 30;

// The key of a record in the system manager's own configuration.
struct sysmgr_pss_key_t {
  uint32 key_type;
  uint8 u[8]; // depends on the type; zero for the tag table
};
static_assert(sizeof(sysmgr_pss_key_t) == 12, "stored as it lies");

constexpr uint32 k_tlv_version = 1;

// Classes of lines on the system manager's trace facility: bits of its mask.
constexpr uint32 k_facility_debug = 1;
constexpr uint32 k_facility_error = 2048;

// ---- State -------------------------------------------------------------------------------------

char compl_uri[256];     // the last result of datamorph_uri_complete
char datamorph_vdcid[8]; // the VDC as text

// ---- Conversion log: files ---------------------------------------------------------------------

constexpr char k_log[] = "/mnt/pss/data_morph.log";
constexpr char k_last_log[] = "/mnt/pss/data_morph.last";
constexpr char k_boot_marker[] = "/tmp/datamorphcheck";
constexpr off_t k_log_limit = 50000; // bytes

} // namespace

// ---- Entry points ------------------------------------------------------------------------------

void libdatamorph_init(mts_q_handle_t q) {
  datamorph_mts_q = q;
  DATAMORPH_TRACE("%s: datamorph_mts_q = %d\n", __func__, static_cast<int>(datamorph_mts_q));
}

syserr_t datamorph_gsync(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return datamorph_walk_service(__func__, data_morph_gsync_table, uuid, a, args,
                                datamorph_failure::silent);
}

syserr_t datamorph_startup(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return datamorph_walk_service(__func__, data_morph_startup_table, uuid, a, args,
                                datamorph_failure::silent);
}

syserr_t datamorph_running_fs_upg(uuid_t uuid, convert_ret_value_t *a, datamorph_args_t *args) {
  return datamorph_walk_service(__func__, data_morph_running_fs_upg_table, uuid, a, args,
                                datamorph_failure::traced);
}

syserr_t datamorph_startup_all(datamorph_args_t *args) {
  return datamorph_walk_startup_all(__func__, data_morph_startup_table, args);
}

syserr_t datamorph_running_fs_upg_all(datamorph_args_t *args) {
  return datamorph_walk_running_fs_upg_all(__func__, data_morph_running_fs_upg_table,
                                           datamorph_running_fs_upg, args);
}

syserr_t psshlpr_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver) {
  // QUIRK: no line end, so that the log's next prefix follows on the same line. Kept as it is read.
  // Pinned by main_test, psshlpr_gsync_message_has_no_line_end.
  DATAMORPH_TRACE("%s: calling psshlpr convert functions", __func__);
  const datamorph_args_t args = {path, pkg_name, to_ver, from_ver};
  datamorph_walk_psshlpr(__func__, data_morph_psshlpr_upg_table, &args);
  return SYSERR_SUCCESS;
}

bool is_uuid_in_convert_gsync_table(uuid_t uuid) {
  return datamorph_has_row(data_morph_gsync_table, uuid);
}

bool is_uuid_in_convert_startup_table(uuid_t uuid) {
  return datamorph_has_row(data_morph_startup_table, uuid);
}

bool is_uuid_in_convert_running_fs_upg_table(uuid_t uuid) {
  return datamorph_has_row(data_morph_running_fs_upg_table, uuid);
}

// ---- Where stores are --------------------------------------------------------------------------

const char *datamorph_uri_complete(void) {
  const char *vdc = datamorph_text(getenv("SYSMGR_VDC_ID"));
  const char *directory = datamorph_text(getenv("SYSMGR_RUNNING_CFG_DIR"));
  // QUIRK: six characters of the VDC count although seven would fit; the message shows all of it.
  // Pinned by main_test, uri_complete.
  snprintf(datamorph_vdcid, 7, "%s", vdc);
  const int32 vdc_number = datamorph_leading_number(datamorph_vdcid, sizeof datamorph_vdcid);
  DATAMORPH_TRACE("%s: vdcid is %s and conversion to decimal is %d\n", __func__, vdc, vdc_number);
  // QUIRK: one byte of the buffer is never used; a path is cut where it always was.
  // Pinned by main_test, uri_complete_cuts_and_shares_its_buffer.
  if (vdc_number == 1) {
    snprintf(compl_uri, 255, "%s", directory);
  } else {
    snprintf(compl_uri, 255, "%s/%s", directory, datamorph_vdcid);
  }
  return compl_uri;
}

vdc_id_t datamorph_path_vdc(const char *path, const char **suffix) {
  constexpr char mark[] = "/vdc_";
  const char *found = strstr(path, mark);
  if (found == nullptr) {
    return k_default_vdc;
  }
  const char *text = found + sizeof mark - 1;
  if (suffix != nullptr) {
    *suffix = text;
  }
  const long long number = strtoll(text, nullptr, 10);
  const long long clamped = number > INT_MAX ? INT_MAX : number < INT_MIN ? INT_MIN : number;
  return static_cast<vdc_id_t>(clamped & 0xFFFF);
}

namespace {

syserr_t destroy_pss2(const char *scheme, const char *path, const char *pssname) {
  if (path == nullptr || pssname == nullptr) {
    return SYSERR_FAILED;
  }
  char uri[k_uri_size] = {};
  snprintf(uri, sizeof uri, "%s:%s/%s", scheme, path, pssname);
  return pss2_destroy(uri);
}

} // namespace

syserr_t datamorph_destroy_volatile_pss(char *path, char *pssname) {
  return destroy_pss2("volatile", path, pssname);
}

syserr_t datamorph_destroy_nonvolatile_pss(char *path, char *pssname) {
  return destroy_pss2("nonvolatile", path, pssname);
}

// ---- Conversion log ----------------------------------------------------------------------------

int datamorph_open_own_file(const char *path, int flags, mode_t mode) {
  const int opened =
      open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (flags & ~O_TRUNC), mode);
  if (opened < 0) {
    return -1;
  }
  struct stat status = {};
  const bool is_own =
      fstat(opened, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
  if (is_own && ((flags & O_TRUNC) == 0 || ftruncate(opened, 0) == 0)) {
    return opened;
  }
  close(opened);
  return -1;
}

namespace {

// /tmp is emptied at every boot, so the marker tells whether the log was started in this one.
bool log_started_in_this_boot() {
  const int marker = open(k_boot_marker, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (marker < 0) {
    fputs("File check failed\n", stderr);
    return false;
  }
  close(marker);
  fputs("File check succeeded\n", stderr);
  return true;
}

// Anybody may put something into /tmp: what stands there is neither followed nor emptied.
void create_boot_marker() {
  const int marker = open(k_boot_marker, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (marker >= 0) {
    close(marker);
  }
}

FILE *open_log(int flags, const char *mode) {
  const int log = datamorph_open_own_file(k_log, O_CREAT | O_CLOEXEC | flags, 0666);
  FILE *stream = log < 0 ? nullptr : fdopen(log, mode);
  if (log >= 0 && stream == nullptr) {
    close(log);
  }
  return stream;
}

void write_time_prefix(FILE *log) {
  const time_t now = time(nullptr);
  const char *text = ctime(&now);
  fprintf(log, "<%.24s> ", text != nullptr ? text : "");
}

// Ends a line of the log: it is on disk when this returns.
void close_log(FILE *log) {
  fflush(log);
  fsync(fileno(log));
  fclose(log);
  check_data_morph_log_size();
}

__attribute__((format(printf, 1, 0))) void datamorph_vtrace(const char *format, va_list args) {
  const int saved_errno = errno;
  va_list log_args;
  va_copy(log_args, args);
  vfprintf(stderr, format, args);
  if (FILE *log = open_debug_log(); log != nullptr) {
    write_time_prefix(log);
    vfprintf(log, format, log_args);
    close_log(log);
  }
  va_end(log_args);
  errno = saved_errno;
}

} // namespace

void datamorph_trace(const char *format, ...) {
  va_list args;
  va_start(args, format);
  datamorph_vtrace(format, args);
  va_end(args);
}

void datamorph_trace_line_apart(const char *text) {
  const int saved_errno = errno;
  fprintf(stderr, "%s\n", text);
  if (FILE *log = open_debug_log(); log != nullptr) {
    write_time_prefix(log);
    fputs(text, log);
    close_log(log);
  }
  errno = saved_errno;
}

FILE *open_debug_log(void) {
  // QUIRK: the marker lines go to standard error for every message, not only a boot's first.
  // Pinned by log_test, marker_lines_are_written_for_every_message.
  if (log_started_in_this_boot()) {
    fputs("File exists\n", stderr);
    return open_log(O_APPEND, "a+");
  }
  create_boot_marker();
  fputs("File doesn't exist\n", stderr);
  unlink(k_last_log);
  return open_log(O_TRUNC, "w+");
}

int check_data_morph_log_size(void) {
  if (access(k_log, F_OK) != 0) {
    return 1;
  }
  struct stat status = {};
  if (stat(k_log, &status) != 0) {
    return 1;
  }
  if (status.st_size <= k_log_limit) {
    return 0;
  }
  rename(k_log, k_last_log);
  // QUIRK: executable bits on a log, as its readers have always found it.
  // Pinned by log_test, rotation_leaves_an_empty_log_of_mode_0700.
  const int log = datamorph_open_own_file(k_log, O_CREAT | O_TRUNC, 0700);
  // QUIRK: a descriptor of 0 is not closed: a process without standard input keeps its place taken.
  // Pinned by log_test, rotation_keeps_descriptor_0_open.
  if (log > 0) {
    close(log);
  }
  sync();
  return 0;
}

// ---- Versions ----------------------------------------------------------------------------------

int32 datamorph_leading_number(const char *text, size_t limit) {
  int64_t number = 0;
  for (size_t i = 0; i < limit && text[i] >= '0' && text[i] <= '9'; ++i) {
    number = number * 10 + (text[i] - '0');
    if (number > INT_MAX) {
      return INT_MAX;
    }
  }
  return static_cast<int32>(number);
}

namespace {

// The fields of a version, one after the other; 0 once there are no more.
class version_fields {
public:
  explicit version_fields(const char *version)
      : at_(version), end_(version + strnlen(version, datamorph_version_chars)) {}

  int32 next() {
    while (at_ != end_ && is_separator(*at_)) {
      ++at_;
    }
    const int32 field = datamorph_leading_number(at_, static_cast<size_t>(end_ - at_));
    while (at_ != end_ && !is_separator(*at_)) {
      ++at_;
    }
    return field;
  }

private:
  static bool is_separator(char c) { return c == '.' || c == '(' || c == ')'; }

  const char *at_;
  const char *end_;
};

void put_errcode(syserr_t *errcode, syserr_t value) {
  if (errcode != nullptr) {
    *errcode = value;
  }
}

} // namespace

int datamorph_compare_versions(const char *from_ver, const char *to_ver, syserr_t *errcode) {
  put_errcode(errcode, SYSERR_SUCCESS);
  if (from_ver == nullptr || to_ver == nullptr) {
    DATAMORPH_TRACE("%s: Invalid or NULL argument passed\n", __func__);
    put_errcode(errcode, SYSERR_FAILED);
    return -2;
  }
  version_fields from(from_ver);
  version_fields to(to_ver);
  for (int field = 0; field < 3; ++field) {
    const int32 from_field = from.next();
    const int32 to_field = to.next();
    if (from_field != to_field) {
      return from_field > to_field ? 1 : -1;
    }
  }
  return 0;
}

// QUIRK: errcode is neither used nor written; a null argument just counts as not supported.
// Pinned by version_test, not_supported_leaves_the_error_code_alone.
bool datamorph_is_srv_not_supported_target_ver(const char *curr_ver,
                                               const char *min_supported_version,
                                               syserr_t * /*errcode*/) {
  syserr_t error = SYSERR_SUCCESS;
  const int order = datamorph_compare_versions(curr_ver, min_supported_version, &error);
  return error != SYSERR_SUCCESS || order < 0;
}

int datamorph_get_version(char *srg_path, char *ver_str, int ver_str_size) {
  if (srg_path == nullptr || ver_str == nullptr || ver_str_size < 1) {
    return -1;
  }
  const size_t size = static_cast<size_t>(ver_str_size);
  memset(ver_str, 0, size);
  const char *version = srg_sw_ver_file_get(srg_path);
  if (version == nullptr) {
    return -1;
  }
  memcpy(ver_str, version, strnlen(version, size - 1));
  return 0;
}

namespace {

// The release being installed, and the one being left.
int datamorph_get_to_version(char *ver_str, int ver_str_size) {
  return datamorph_get_version(getenv("SYSMGR_TO_SRG_PATH"), ver_str, ver_str_size);
}

int datamorph_get_from_version(char *ver_str, int ver_str_size) {
  return datamorph_get_version(getenv("SYSMGR_FROM_SRG_PATH"), ver_str, ver_str_size);
}

} // namespace

// ---- The system manager's trace facility -------------------------------------------------------

namespace {

// Lines of one class, when the facility has a stream and wants that class.
__attribute__((format(printf, 2, 0))) void facility_vtrace(uint32 level, const char *format,
                                                           va_list args) {
  FILE *stream = debug_trace_fac_SYSMGR.stream;
  if (stream == nullptr || (debug_trace_fac_SYSMGR.level_mask & level) == 0) {
    return;
  }
  const int saved_errno = errno;
  write_time_prefix(stream);
  fprintf(stream, "<%d> ", static_cast<int>(level));
  vfprintf(stream, format, args);
  fflush(stream);
  errno = saved_errno;
}

__attribute__((format(printf, 2, 3))) void facility_trace(uint32 level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  facility_vtrace(level, format, args);
  va_end(args);
}

// The same line on the facility and in the conversion log.
__attribute__((format(printf, 2, 3))) void trace_on_both(uint32 level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list log_args;
  va_copy(log_args, args);
  facility_vtrace(level, format, args);
  datamorph_vtrace(format, log_args);
  va_end(log_args);
  va_end(args);
}

} // namespace

// ---- Tag-info request --------------------------------------------------------------------------

namespace {

syserr_t mts_failure(int error) {
  return SYSERR_MTS_BASE | (static_cast<syserr_t>(error) & 0xFFFu);
}

const char *tag_text(const uint8 *tag) {
  return datamorph_text(reinterpret_cast<const char *>(tag));
}

mts_opc_sysmgr_add_tag_info_req_t tag_info_request(uuid_t uuid, const uint8 *tag, vdc_id_t vdc) {
  mts_opc_sysmgr_add_tag_info_req_t request = {};
  request.uuid = htonl(static_cast<uint32>(uuid));
  request.vdc = htonl(vdc);
  memcpy(request.tag, tag, strnlen(reinterpret_cast<const char *>(tag), sizeof request.tag - 1));
  return request;
}

int receive_answer(mts_ref_t request, mts_ref_t *response) {
  mts_recv_options_t options = {};
  options.version = 1;
  options.timeout = k_answer_timeout;
  options.rr_token = mts_rr_token_get(request);
  int result = 0;
  do {
    result = mts_recv(datamorph_mts_q, response, &options);
  } while (result == -1 && errno == EINTR);
  return result;
}

syserr_t answered_status(mts_ref_t response) {
  const void *payload = mts_payload_get(response);
  if (payload == nullptr) {
    return mts_failure(EPROTO);
  }
  mts_opc_sysmgr_add_tag_info_rsp_t answer = {};
  memcpy(&answer, payload, sizeof answer);
  return ntohl(answer.status);
}

} // namespace

syserr_t sysmgr_add_tag_info_req(uuid_t srv_uuid, uint8 *srv_tag, vdc_id_t vdc) {
  if (srv_tag == nullptr) {
    return SYSERR_FAILED;
  }
  const mts_opc_sysmgr_add_tag_info_req_t message = tag_info_request(srv_uuid, srv_tag, vdc);
  mts_ref_t request = 0;
  if (mts_send(datamorph_mts_q, k_this_supervisor, MTS_SAP_SYSMGR, k_opcode_add_tag_info, &message,
               sizeof message, &request, 0, 0) < 0) {
    const int error = errno;
    DATAMORPH_TRACE("%s: mts_send failed with error %d\n", __func__, error);
    return mts_failure(error);
  }
  mts_ref_t response = 0;
  if (receive_answer(request, &response) < 0) {
    const int error = errno;
    mts_drop(datamorph_mts_q, request);
    DATAMORPH_TRACE("%s: mts_recv failed with error %d\n", __func__, error);
    return mts_failure(error);
  }
  const syserr_t status = answered_status(response);
  mts_drop(datamorph_mts_q, request);
  mts_drop(datamorph_mts_q, response);
  DATAMORPH_TRACE("%s: Return status 0x%X\n", __func__, status);
  if (status == SYSERR_NO_SUCH_VDC) {
    // A VDC that does not run now reads its saved table when it starts.
    DATAMORPH_TRACE("%s: VDC %d non-existent at this time. Returning SUCCESS\n", __func__, vdc);
    return SYSERR_SUCCESS;
  }
  return status;
}

// ---- Startup tag table -------------------------------------------------------------------------

namespace {

constexpr char k_add_tag_startup[] = "sysmgr_add_tag_startup";

// A service's entry for a VDC's tag table.
struct tag_t {
  uuid_t uuid;
  uint8 *text;
  vdc_id_t vdc;
};

pss_datum_t datum_of(void *bytes, size_t size) {
  return {bytes, static_cast<uint32>(size)};
}

tlv_array_t *running_table(vdc_id_t vdc) {
  return sysmgr_info_tbl[vdc].srv_tag_info_tbl;
}

// The saved table, whose size in bytes it gives; 0 when it is none, or too large to be worked on.
uint32 saved_table_size(const pss_datum_t *saved) {
  if (saved == nullptr || saved->ptr == nullptr || saved->siz < TLV_ARRAY_HEADER_SIZE) {
    return 0;
  }
  const uint32 size =
      tlv_array_size_get(static_cast<const tlv_array_t *>(saved->ptr), k_tlv_version);
  const bool fits =
      size >= TLV_ARRAY_HEADER_SIZE && size <= saved->siz && size <= SYSMGR_TAG_TABLE_MAX;
  return fits ? size : 0;
}

// Makes the table that the entry goes to: the saved one copied over the VDC's running one, or an
// empty one when none was saved.
syserr_t prepare_table(const pss_datum_t *saved, uint32 saved_size, vdc_id_t vdc) {
  if (saved == nullptr) {
    const syserr_t status = sysmgr_srv_tag_info_table_prepare(0, vdc);
    if (status != SYSERR_SUCCESS) {
      return status;
    }
    trace_on_both(k_facility_error,
                  "%s: PSS_KEY_TAG_INFO not found in sysmgr's config. Created successfully\n",
                  k_add_tag_startup);
  }
  if (running_table(vdc) == nullptr) {
    const syserr_t status = sysmgr_srv_tag_info_table_prepare(0, vdc);
    if (status != SYSERR_SUCCESS || running_table(vdc) == nullptr) {
      return status != SYSERR_SUCCESS ? status : SYSERR_NO_SUCH_VDC;
    }
    trace_on_both(k_facility_error, "%s: tag table for vdc %d does not exist. Created the table\n",
                  k_add_tag_startup, vdc);
  }
  if (saved != nullptr) {
    facility_trace(k_facility_debug, "%s: vdc %d: size of tag table in startup cfg: %d\n",
                   k_add_tag_startup, vdc, static_cast<int>(saved_size));
    memcpy(running_table(vdc), saved->ptr, saved_size);
  }
  return SYSERR_SUCCESS;
}

syserr_t store_table(pss_service_t store, const pss_datum_t &key, const tag_t &tag) {
  tlv_array_t *table = running_table(tag.vdc); // the addition may have moved it
  const pss_datum_t value = datum_of(table, tlv_array_size_get(table, k_tlv_version));
  const syserr_t status = pss_store(store, 1, &key, &value);
  if (status != SYSERR_SUCCESS) {
    const char *key_name = datamorph_text(__pss_key_type_enum_t_find(PSS_KEY_TAG_INFO));
    // QUIRK: the log comes first here, and the facility's text ends in a full stop, the log's does
    // not. Both are contracts.
    // Pinned by tag_table_test, a_failed_store_is_returned_and_has_two_texts.
    DATAMORPH_TRACE("%s: Error in storing %s to startup config (0x%X) for vdc %d\n",
                    k_add_tag_startup, key_name, status, tag.vdc);
    facility_trace(k_facility_error,
                   "%s: Error in storing %s to startup config (0x%X) for vdc %d.\n",
                   k_add_tag_startup, key_name, status, tag.vdc);
    return status;
  }
  trace_on_both(k_facility_debug,
                "%s: vdc %d: saved tag info %s for service 0x%x to sysmgr startup config\n",
                k_add_tag_startup, tag.vdc, tag_text(tag.text), tag.uuid);
  return SYSERR_SUCCESS;
}

// Everything between the opening of the store and its closing.
syserr_t update_saved_table(pss_service_t store, const tag_t &tag) {
  sysmgr_pss_key_t key_record = {};
  key_record.key_type = PSS_KEY_TAG_INFO;
  const pss_datum_t key = datum_of(&key_record, sizeof key_record);
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *saved = pss_fetch(store, &key, &status);
  if (status != SYSERR_SUCCESS && status != SYSERR_PSS_NOT_FOUND) {
    trace_on_both(k_facility_error,
                  "%s: Error in fetching %s from sysmgr startup config (0x%X) for vdc %d\n",
                  k_add_tag_startup, datamorph_text(__pss_key_type_enum_t_find(PSS_KEY_TAG_INFO)),
                  status, tag.vdc);
    return status;
  }
  const bool found = status == SYSERR_SUCCESS;
  const uint32 saved_size = found ? saved_table_size(saved) : 0;
  if (found && saved_size == 0) {
    return SYSERR_PSS_DAMAGED;
  }
  status = prepare_table(found ? saved : nullptr, saved_size, tag.vdc);
  if (status != SYSERR_SUCCESS) {
    return status;
  }
  status = sysmgr_srv_tag_info_add(tag.uuid, tag.text, tag.vdc);
  if (status != SYSERR_SUCCESS) {
    trace_on_both(k_facility_error, "%s: Error 0x%X while adding to sysmgr startup config\n",
                  k_add_tag_startup, status);
    return status;
  }
  facility_trace(k_facility_debug, "%s: vdc %d: modified tag info %s for service 0x%x, \n",
                 k_add_tag_startup, tag.vdc, tag_text(tag.text), tag.uuid);
  return store_table(store, key, tag);
}

} // namespace

syserr_t sysmgr_add_tag_startup(const char *path, uuid_t srv_uuid, uint8 *srv_tag, vdc_id_t vdc) {
  trace_on_both(k_facility_error,
                "%s: Adding uuid 0x%x tag %s in vdc %d to sysmgr startup config\n", __func__,
                srv_uuid, tag_text(srv_tag), vdc);
  if (path == nullptr || srv_tag == nullptr) {
    return SYSERR_FAILED;
  }
  if (vdc >= SYSMGR_VDC_ROWS) {
    return SYSERR_NO_SUCH_VDC;
  }
  char uri[k_uri_size] = {};
  // QUIRK: one byte of the buffer is never used; a URI is cut where it always was.
  // Pinned by tag_table_test, the_uri_is_cut_at_254_characters.
  snprintf(uri, sizeof uri - 1, "nonvolatile:%s/bin/%s", path, "sysmgr_config");
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(uri, &status);
  if (status != SYSERR_SUCCESS) {
    // QUIRK: a store that cannot be opened is no failure, so that a switch without one converts.
    // Pinned by tag_table_test, a_store_that_cannot_be_opened_is_success.
    trace_on_both(k_facility_error, "%s: pss_open %s failed with error 0x%x\n", __func__, uri,
                  status);
    return SYSERR_SUCCESS;
  }
  status = update_saved_table(store, {srv_uuid, srv_tag, vdc});
  // QUIRK: a failed close, which loses the record, is neither traced nor returned.
  // Pinned by tag_table_test, a_failed_close_changes_nothing.
  pss_close(store);
  return status;
}

// ---- Requests ----------------------------------------------------------------------------------

namespace {

// The arguments of a converter, under the name that it traces.
struct request_t {
  const char *self;
  const char *path;
  const char *pkg_name;
  const char *to_ver;
  const char *from_ver;
};

void trace_arguments(const request_t &request) {
  DATAMORPH_TRACE("%s: path = %s, pkg_name = %s, to_ver = %s, from_ver = %s\n", request.self,
                  datamorph_text(request.path), datamorph_text(request.pkg_name),
                  datamorph_text(request.to_ver), datamorph_text(request.from_ver));
}

// Whether an argument is missing, which is traced for the service of that label.
bool lacks_an_argument(const request_t &request, const char *label) {
  if (request.path != nullptr && request.pkg_name != nullptr && request.to_ver != nullptr &&
      request.from_ver != nullptr) {
    return false;
  }
  DATAMORPH_TRACE("%s service: NULL arguments in (%s)\n", label, request.self);
  return true;
}

} // namespace

// ---- Conditional services ----------------------------------------------------------------------

namespace {

constexpr char k_conditional_store[] = "cond_srv_config";
constexpr uint32 k_conditional_key = 15;
constexpr uint32 k_conditional_enabled = 1;

void plant_conditional_store(const char *self, const char *path) {
  char uri[sizeof "volatile:/" + PATH_MAX + sizeof k_conditional_store] = {};
  snprintf(uri, sizeof uri, "%s:%s/%s", "volatile", path, k_conditional_store);
  DATAMORPH_TRACE("%s: Start creating dummy pss %s\n", self, uri);
  pss_destroy(uri);
  syserr_t status = pss_create(uri);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: Error in pss_create, ret_val = 0x%x\n", self, status);
    return;
  }
  const pss_service_t store = pss_open(uri, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: Error in pss_open, ret_val = 0x%x\n", self, status);
    return;
  }
  uint32 key_number = k_conditional_key;
  uint32 flag = k_conditional_enabled;
  const pss_datum_t key = datum_of(&key_number, sizeof key_number);
  const pss_datum_t value = datum_of(&flag, sizeof flag);
  pss_store(store, 1, &key, &value);
  pss_close(store);
  DATAMORPH_TRACE("%s: Done creating dummy pss %s\n", self, uri);
}

} // namespace

// QUIRK: both releases are read and traced, but the store is planted whatever they are, and only a
// version that cannot be read is a failure: what becomes of the store is not.
// Pinned by conditional_test, store_failures_are_success.
syserr_t cond_srv1_data_morph_gsync(const char *path, const char *pkg_name, const char *to_ver,
                                    const char *from_ver) {
  trace_arguments({__func__, path, pkg_name, to_ver, from_ver});
  if (path == nullptr) {
    return SYSERR_FAILED;
  }
  char from_version[k_image_version_size] = {};
  if (datamorph_get_from_version(from_version, sizeof from_version) != 0) {
    DATAMORPH_TRACE("%s: datamorph_get_from_version returned -1 \n", __func__);
    return SYSERR_IMAGE_VERSION;
  }
  char to_version[k_image_version_size] = {};
  if (datamorph_get_to_version(to_version, sizeof to_version) != 0) {
    DATAMORPH_TRACE("%s: datamorph_get_to_version returned -1 \n", __func__);
    return SYSERR_IMAGE_VERSION;
  }
  DATAMORPH_TRACE("%s: from_srg_ver_str = %s, to_srg_ver_str = %s\n", __func__, from_version,
                  to_version);
  plant_conditional_store(__func__, path);
  return SYSERR_SUCCESS;
}

syserr_t cond_srv1_data_morph_running_fs_upg(const char *path, const char *pkg_name,
                                             const char *to_ver, const char *from_ver) {
  trace_arguments({__func__, path, pkg_name, to_ver, from_ver});
  return SYSERR_SUCCESS;
}

namespace {

// The feature of a service; null for any other service.
const feature_t *find_feature(uuid_t uuid) {
  for (const feature_t *feature : {&k_kps, &k_dot1x, &k_psec}) {
    if (feature->uuid == uuid) {
      return feature;
    }
  }
  return nullptr;
}

// How two releases compare, for a routine that traces as `self`: 0, or the comparison's error,
// which is traced.
syserr_t compare_releases(const char *self, const char *one, const char *other, int *order) {
  syserr_t error = SYSERR_SUCCESS;
  *order = datamorph_compare_versions(one, other, &error);
  if (error != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: datamorph_compare_versions returned %d\n", self, static_cast<int>(error));
  }
  return error;
}

} // namespace

int is_optional_conditional(uuid_t srv_uuid, const char *to_ver) {
  int order = 0;
  if (find_feature(srv_uuid) == nullptr ||
      compare_releases(__func__, to_ver, k_optional_release, &order) != SYSERR_SUCCESS) {
    return 0;
  }
  facility_trace(k_facility_debug, "%s: ret_val %d\n", __func__, order);
  return order >= 0 ? 1 : 0;
}

// ---- Features that may be running --------------------------------------------------------------

namespace {

bool is_enabled(const feature_t &feature, const pss_datum_t *value) {
  if (value == nullptr || value->ptr == nullptr) {
    return false;
  }
  if (feature.test == feature_t::any_value) {
    return true;
  }
  uint32 flag = 0;
  if (value->siz >= sizeof flag) {
    memcpy(&flag, value->ptr, sizeof flag);
  }
  return flag != 0;
}

boolean fetch_flag(const feature_t &feature, pss_service_t store, syserr_t open_status) {
  std::array<uint8, 12> key_bytes = feature.key;
  const pss_datum_t key = datum_of(key_bytes.data(), feature.key_size);
  syserr_t status = SYSERR_SUCCESS;
  const pss_datum_t *value = pss_fetch(store, &key, &status);
  if (status != SYSERR_SUCCESS) {
    // QUIRK: the text of the open's status, which is success, stands here: what the fetch gave is
    // not told. Pinned by feature_test, a_failed_fetch_reports_the_status_of_the_open.
    if (status == SYSERR_PSS_NOT_FOUND) {
      DATAMORPH_TRACE("%s: Key not found: %s", feature.check_name, syserr2str(open_status));
    } else {
      DATAMORPH_TRACE("%s: Not able to fetch the key: %s", feature.check_name,
                      syserr2str(open_status));
    }
    return FALSE;
  }
  const bool enabled = is_enabled(feature, value);
  DATAMORPH_TRACE("%s: %s", feature.check_name, enabled ? feature.enabled : feature.not_enabled);
  return enabled ? TRUE : FALSE;
}

boolean was_running(const feature_t &feature, const char *path) {
  if (path == nullptr) {
    return FALSE;
  }
  char pss_url_name[120] = {};
  snprintf(pss_url_name, sizeof pss_url_name, "nonvolatile:%s/%s_%s", path, feature.store,
           "saved_config");
  // QUIRK: "TOTOAL", a blank at the end, and no line end, here and in what follows.
  // Pinned by feature_test, an_enabled_feature.
  DATAMORPH_TRACE("%s: TOTOAL URI %s ", feature.check_name, pss_url_name);
  syserr_t status = SYSERR_SUCCESS;
  const pss_service_t store = pss_open(pss_url_name, &status);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: pss_open error: %s\n", feature.check_name, syserr2str(status));
    return FALSE;
  }
  const boolean running = fetch_flag(feature, store, status);
  status = pss_close(store);
  if (status != SYSERR_SUCCESS) {
    // QUIRK: a failed close is told with the open's message.
    // Pinned by feature_test, a_failed_close_is_told_with_the_message_of_the_open.
    DATAMORPH_TRACE("%s: pss_open error: %s\n", feature.check_name, syserr2str(status));
  }
  return running;
}

} // namespace

boolean was_dot1x_running(const char *path) {
  return was_running(k_dot1x, path);
}

boolean was_psec_running(const char *path) {
  return was_running(k_psec, path);
}

boolean was_kps_running(const char *path) {
  return was_running(k_kps, path);
}

int was_running_compulsory_conditional(const char *path, uuid_t srv_uuid, const char *from_ver) {
  DATAMORPH_TRACE("%s: ENTER with path: %s, uuid %d and from_ver: %s\n", __func__,
                  datamorph_text(path), static_cast<int>(srv_uuid), datamorph_text(from_ver));
  const feature_t *feature = find_feature(srv_uuid);
  int order = 0;
  if (feature == nullptr ||
      compare_releases(__func__, k_optional_release, from_ver, &order) != SYSERR_SUCCESS) {
    return 0;
  }
  facility_trace(k_facility_debug, "%s: ret_val %d\n", __func__, order);
  if (order < 1 || was_running(*feature, path) == FALSE) {
    return 0;
  }
  DATAMORPH_TRACE("%s: Moving from compulsory to optional service\n", __func__);
  return 1;
}

// ---- Feature converters ------------------------------------------------------------------------

namespace {

enum class change { none, some, error };

// Whether the releases differ. The arguments are traced and checked first; *status is set on an
// error.
change examine(const feature_t &feature, const request_t &request, syserr_t *status) {
  trace_arguments(request);
  if (lacks_an_argument(request, feature.label)) {
    *status = SYSERR_NULL_ARGUMENT;
    return change::error;
  }
  int order = 0;
  *status = compare_releases(request.self, request.to_ver, request.from_ver, &order);
  if (*status != SYSERR_SUCCESS) { // GCOVR_EXCL_BR_LINE: only a missing release is an error
    return change::error;
  }
  return order == 0 ? change::none : change::some;
}

bool becomes_optional(const feature_t &feature, const request_t &request,
                      const char *configuration) {
  return was_running_compulsory_conditional(configuration, feature.uuid, request.from_ver) != 0 &&
         is_optional_conditional(feature.uuid, request.to_ver) != 0;
}

syserr_t tell_system_manager(const feature_t &feature, const request_t &request, vdc_id_t vdc) {
  uint8 no_tag[] = {0};
  const syserr_t status = sysmgr_add_tag_info_req(feature.uuid, no_tag, vdc);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: Failed to add service with uuid 0x%X in vdc %d to tag table. error 0x%X\n",
                    request.self, feature.uuid, vdc, status);
  }
  return status;
}

syserr_t save_tag(const feature_t &feature, const request_t &request, vdc_id_t vdc) {
  uint8 no_tag[] = {0};
  const syserr_t status = sysmgr_add_tag_startup(request.path, feature.uuid, no_tag, vdc);
  if (status != SYSERR_SUCCESS) {
    DATAMORPH_TRACE("%s: Failed to add tag to sysmgr startup config. Error 0x%x\n", request.self,
                    status);
  }
  return status;
}

// QUIRK: this moment reads the feature's store in `path` itself and always speaks of VDC 1; the
// startup moment reads it in "bin" below and takes the VDC from the path.
// Pinned by feature_converter_test, the_two_moments_differ_in_directory_and_vdc.
syserr_t convert_running_fs(const feature_t &feature, const char *path, const char *pkg_name,
                            const char *to_ver, const char *from_ver) {
  const request_t request = {feature.running_fs_name, path, pkg_name, to_ver, from_ver};
  syserr_t status = SYSERR_SUCCESS;
  const change found = examine(feature, request, &status);
  if (found != change::some) {
    return status;
  }
  if (becomes_optional(feature, request, path)) {
    status = tell_system_manager(feature, request, k_default_vdc);
    if (status != SYSERR_SUCCESS) {
      return status;
    }
  }
  DATAMORPH_TRACE("%s: Return status SUCCESS\n", request.self);
  return SYSERR_SUCCESS;
}

syserr_t convert_startup(const feature_t &feature, const char *path, const char *pkg_name,
                         const char *to_ver, const char *from_ver) {
  const request_t request = {feature.startup_name, path, pkg_name, to_ver, from_ver};
  syserr_t status = SYSERR_SUCCESS;
  const change found = examine(feature, request, &status);
  if (found != change::some) {
    return status;
  }
  const vdc_id_t vdc = datamorph_path_vdc(path, nullptr);
  if (vdc == 0) {
    DATAMORPH_TRACE("%s: Could not get vdc from path\n", request.self);
    return SYSERR_NO_SUCH_VDC;
  }
  char configuration[255] = {};
  snprintf(configuration, sizeof configuration, "%s/bin", path);
  if (becomes_optional(feature, request, configuration)) {
    status = save_tag(feature, request, vdc);
    if (status == SYSERR_SUCCESS) {
      status = tell_system_manager(feature, request, vdc);
    }
    if (status != SYSERR_SUCCESS) {
      return status;
    }
  }
  DATAMORPH_TRACE("%s: Return status SUCCESS\n", request.self);
  return SYSERR_SUCCESS;
}

} // namespace

syserr_t dot1x_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                         const char *from_ver) {
  return convert_running_fs(k_dot1x, path, pkg_name, to_ver, from_ver);
}

syserr_t dot1x_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                  const char *from_ver) {
  return convert_startup(k_dot1x, path, pkg_name, to_ver, from_ver);
}

syserr_t kps_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver) {
  return convert_running_fs(k_kps, path, pkg_name, to_ver, from_ver);
}

syserr_t kps_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                const char *from_ver) {
  return convert_startup(k_kps, path, pkg_name, to_ver, from_ver);
}

syserr_t psec_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return convert_running_fs(k_psec, path, pkg_name, to_ver, from_ver);
}

syserr_t psec_data_morph_startup(const char *path, const char *pkg_name, const char *to_ver,
                                 const char *from_ver) {
  return convert_startup(k_psec, path, pkg_name, to_ver, from_ver);
}

// ---- Store-removing converters -----------------------------------------------------------------

namespace {

void remove_saps(const removal_t &service) {
  for (const uint32 *sap = service.sap; *sap != 0; ++sap) {
    mts_sap_destroy(datamorph_mts_q, *sap);
  }
}

// QUIRK: one byte of the buffer is never used; a URI is cut where it always was.
// Pinned by removal_test, uris_are_cut_at_254_characters.
void remove_stores(const removal_t &service, const char *path) {
  char uri[k_uri_size] = {};
  if (service.fixed_store != nullptr) {
    snprintf(uri, sizeof uri - 1, "%s:%s", "volatile", service.fixed_store);
    pss_destroy(uri);
  }
  for (const char *const *store = service.store; *store != nullptr; ++store) {
    snprintf(uri, sizeof uri - 1, "%s:%s/%s", "volatile", path, *store);
    pss_destroy(uri);
  }
}

// The release being installed, as this member reads it; image_version is room for it.
const char *target_version(const removal_t &service, const char *to_ver,
                           char (&image_version)[k_image_version_size]) {
  if (service.source == removal_t::argument) {
    return to_ver;
  }
  if (datamorph_get_to_version(image_version, sizeof image_version) != 0) {
    DATAMORPH_TRACE("%s: datamorph_get_to_version returned -1 \n", service.name);
  }
  return image_version;
}

syserr_t remove_runtime_state(const removal_t &service, const char *path, const char *pkg_name,
                              const char *to_ver, const char *from_ver) {
  if (lacks_an_argument({service.name, path, pkg_name, to_ver, from_ver}, service.label)) {
    return SYSERR_FAILED;
  }
  // QUIRK: no blank behind the comma, and no such message from the two that read the image.
  // Pinned by removal_test, args_message_of_each_member.
  if (service.source == removal_t::argument) {
    DATAMORPH_TRACE("%s service in function(%s) Args: path = %s,pkg_name = %s, to_ver = %s, "
                    "from_ver = %s\n",
                    service.label, service.name, path, pkg_name, to_ver, from_ver);
  }
  char image_version[k_image_version_size] = {};
  const char *version = target_version(service, to_ver, image_version);
  if (datamorph_leading_number(version, datamorph_version_chars) != k_removal_major) {
    return SYSERR_SUCCESS;
  }
  // What is not there needs no removing: the calls' results do not matter.
  // QUIRK: access points go first for five members, stores for the last two; each keeps its order.
  // Pinned by removal_test, each_member_removes_its_own_in_its_own_order.
  if (service.first == removal_t::saps) {
    remove_saps(service);
    remove_stores(service, path);
  } else {
    remove_stores(service, path);
    remove_saps(service);
  }
  return SYSERR_SUCCESS;
}

} // namespace

syserr_t sksd_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return remove_runtime_state(k_sksd, path, pkg_name, to_ver, from_ver);
}

syserr_t plugin_data_morph_running_fs_upg(const char *path, const char *pkg_name,
                                          const char *to_ver, const char *from_ver) {
  return remove_runtime_state(k_plugin, path, pkg_name, to_ver, from_ver);
}

syserr_t evms_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return remove_runtime_state(k_evms, path, pkg_name, to_ver, from_ver);
}

syserr_t evmc_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return remove_runtime_state(k_evmc, path, pkg_name, to_ver, from_ver);
}

syserr_t mvsh_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return remove_runtime_state(k_mvsh, path, pkg_name, to_ver, from_ver);
}

syserr_t smm_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                       const char *from_ver) {
  return remove_runtime_state(k_smm, path, pkg_name, to_ver, from_ver);
}

syserr_t clis_data_morph_running_fs_upg(const char *path, const char *pkg_name, const char *to_ver,
                                        const char *from_ver) {
  return remove_runtime_state(k_clis, path, pkg_name, to_ver, from_ver);
}
