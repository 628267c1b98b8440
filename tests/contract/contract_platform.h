// What a test of the platform's behaviour needs and the platform's interface has no function for.
// contract_double.cpp and contract_lab.cpp have one implementation each.
#ifndef TESTS_CONTRACT_CONTRACT_PLATFORM_H
#define TESTS_CONTRACT_CONTRACT_PLATFORM_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/mts.h"
#include "platform/pss2.h"
#include "platform/sysmgr.h"
#include "support/bytes.h"
#include "support/switch_root.h"

namespace contract_platform {

// A fresh switch: no stores, queues, access points, images; VDC 1 only. stop() ends all that
// start() and the functions below have begun.
void start();
void stop();

mts_q_handle_t open_queue();
void close_queue(mts_q_handle_t queue);
// An access point that nobody answers.
void register_sap(uint32 sap);
std::vector<uint32> saps(); // sorted
// A service at `sap` that answers every request with these bytes.
void respond(uint32 sap, const std::string &payload);

// A signal comes while the next mts_recv waits.
void interrupt_next_recv();
// Whether mts_recv takes real time.
extern const bool k_waits;

syserr_t create_store(const std::string &uri, const pss2_nonvol_params &params);
// Makes the store that stands at `uri` one that cannot be read.
void damage_store(const std::string &uri);

void set_vdcs(const std::vector<vdc_id_t> &vdcs);
void set_image(const std::string &srg_path, const std::string &version);

} // namespace contract_platform

class contract_test : public testing::Test {
protected:
  void SetUp() override { contract_platform::start(); }
  void TearDown() override { contract_platform::stop(); }
};

// A datum to hand in.
class in {
public:
  explicit in(std::string bytes) : bytes_(std::move(bytes)) {
    datum_.ptr = bytes_.data();
    datum_.siz = static_cast<uint32>(bytes_.size());
  }
  in(const in &) = delete;
  in &operator=(const in &) = delete;
  operator const pss_datum_t *() const { return &datum_; }

private:
  std::string bytes_;
  pss_datum_t datum_;
};

// The bytes of a returned datum; "(none)" for null, "(no bytes)" for one without a pointer.
inline std::string out(const pss_datum_t *datum) {
  if (datum == nullptr) {
    return "(none)";
  }
  return datum->ptr == nullptr ? "(no bytes)"
                               : std::string(static_cast<const char *>(datum->ptr), datum->siz);
}

// A status that no function gives: whoever leaves an out-status alone is found out.
constexpr syserr_t k_unwritten = 0xABCDABCD;

// URIs that name no store at all.
inline std::vector<std::string> bad_uris() {
  return {"", "/cfg/0/x", "nonvolatile", "Volatile:/x", ":/x"};
}

// A URI that no file system can hold.
inline std::string long_uri() {
  return "nonvolatile:/" + std::string(4000, 'a');
}

#endif
