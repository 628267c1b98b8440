// The tested platform is the recording double.
#include "contract/contract_platform.h"
#include "support/platform_double.h"

namespace contract_platform {

const bool k_waits = false;

namespace {

mts_q_handle_t last_queue = 6;

} // namespace

void start() {
  switch_root::reset();
  double_platform().reset();
}

void stop() {
  double_platform().reset();
}

mts_q_handle_t open_queue() {
  double_platform().add_queue(++last_queue);
  return last_queue;
}

void close_queue(mts_q_handle_t queue) {
  double_platform().remove_queue(queue);
}

void register_sap(uint32 sap) {
  double_platform().add_sap(sap);
}

std::vector<uint32> saps() {
  return double_platform().saps();
}

void respond(uint32 sap, const std::string &payload) {
  double_platform().add_sap(sap);
  double_platform().reply_always(sap, payload);
}

void interrupt_next_recv() {
  double_platform().interrupt_recv(1);
}

syserr_t create_store(const std::string &uri, const pss2_nonvol_params &params) {
  double_platform().set_store(uri, {}, params);
  return 0;
}

void damage_store(const std::string &uri) {
  double_platform().damage(uri);
}

void set_vdcs(const std::vector<vdc_id_t> &vdcs) {
  double_platform().set_vdcs(vdcs);
}

void set_image(const std::string &srg_path, const std::string &version) {
  double_platform().set_image(srg_path, version);
}

} // namespace contract_platform
