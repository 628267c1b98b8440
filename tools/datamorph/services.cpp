#include "services.h"

#include "text.h"

namespace {

struct service_row {
  uint32 uuid;
  const char *name;
};

// By number.
constexpr service_row rows[] = {
    {SRVUUID_VRRP_MGR, "VRRP_MGR"},
    {SRVUUID_VRRP_ENG, "VRRP_ENG"},
    {SRVUUID_EXCHANGE_PEER_PARAMS, "EXCHANGE_PEER_PARAMS"},
    {SRVUUID_IKE, "IKE"},
    {SRVUUID_SMM, "SMM"},
    {SRVUUID_CLIS, "CLIS"},
    {SRVUUID_SKSD, "SKSD"},
    {SRVUUID_TEST_ETHPM, "TEST_ETHPM"},
    {SRVUUID_PIXM, "PIXM"},
    {SRVUUID_PLUGIN, "PLUGIN"},
    {SRVUUID_ETH_PORT_SEC, "ETH_PORT_SEC"},
    {SRVUUID_SVI, "SVI"},
    {SRVUUID_DOT1X, "DOT1X"},
    {SRVUUID_PSS_HELPER, "PSS_HELPER"},
    {SRVUUID_EVMS, "EVMS"},
    {SRVUUID_EVMC, "EVMC"},
    {SRVUUID_AIC_DBG, "AIC_DBG"},
    {SRVUUID_KPS, "KPS"},
    {SRVUUID_MVSH, "MVSH"},
};

} // namespace

std::string service_name(uint32 uuid) {
  for (const service_row &row : rows) {
    if (row.uuid == uuid) {
      return row.name;
    }
  }
  return std::to_string(uuid);
}

std::optional<uint32> service_number(const std::string &name) {
  std::string wanted = upper_case(name);
  if (wanted.starts_with("SRVUUID_")) {
    wanted.erase(0, 8);
  }
  for (const service_row &row : rows) {
    if (wanted == row.name) {
      return row.uuid;
    }
  }
  return std::nullopt;
}

std::string service_names() {
  std::string names;
  for (const service_row &row : rows) {
    append_word(names, row.name);
  }
  return names;
}
