/* The service identifiers. The numbers are the platform's; they are stored and sent, and never
 * change. Always 32 bits wide. */
#ifndef PLATFORM_SRV_UUID_H
#define PLATFORM_SRV_UUID_H

#ifdef __cplusplus
typedef enum srv_uuid : unsigned int
#else
typedef enum srv_uuid
#endif
{ SRVUUID_NONE = 0,
  SRVUUID_VRRP_MGR = 11,
  SRVUUID_VRRP_ENG = 68,
  SRVUUID_EXCHANGE_PEER_PARAMS = 166,
  SRVUUID_IKE = 219,
  SRVUUID_SMM = 260,
  SRVUUID_CLIS = 261,
  SRVUUID_SKSD = 297,
  SRVUUID_TEST_ETHPM = 306,
  SRVUUID_PIXM = 307,
  SRVUUID_PLUGIN = 327,
  SRVUUID_ETH_PORT_SEC = 367,
  SRVUUID_SVI = 380,
  SRVUUID_DOT1X = 381,
  SRVUUID_PSS_HELPER = 390,
  SRVUUID_EVMS = 411,
  SRVUUID_EVMC = 413,
  SRVUUID_AIC_DBG = 501,
  SRVUUID_KPS = 542,
  SRVUUID_MVSH = 564,
  SRVUUID_WIDTH = 0x7fffffff /* no service: keeps the enumeration 32 bits wide in C */
} uuid_t;

#ifdef __cplusplus
static_assert(sizeof(uuid_t) == 4, "a service identifier has 32 bits");
#else
_Static_assert(sizeof(uuid_t) == 4, "a service identifier has 32 bits");
#endif

#endif
