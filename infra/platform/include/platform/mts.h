/* Messages between services: queues, requests and responses, service access points. */
#ifndef PLATFORM_MTS_H
#define PLATFORM_MTS_H

#include "platform/types.h"

PLATFORM_BEGIN_DECLS

typedef uint32 mts_q_handle_t; /* 0 is none */
typedef uint32 mts_ref_t;      /* a message; 0 is none */
typedef uint32 mts_rr_token_t; /* pairs a request with its response */

typedef struct mts_recv_options {
  uint32 version;
  uint32 non_blocking;
  uint32 timeout; /* seconds */
  mts_rr_token_t rr_token;
  uint32 opcode;
  uint32 source_sap;
  uint32 flags;
} mts_recv_options_t;

/* Service access points; the numbers are the system's. */
#define MTS_SAP_SYSMGR                        3u
#define MTS_SAP_SKSD                          11u
#define MTS_SAP_EXCHANGE_PEER_PARAMS          109u
#define MTS_SAP_PLUGIN                        187u
#define MTS_SAP_SMM                           245u
#define MTS_SAP_CLISH                         295u
#define MTS_SAP_CLIS                          296u
#define MTS_SAP_CLIS_CTRL                     297u
#define MTS_SAP_EVENT_MANAGER_SERVER          341u
#define MTS_SAP_EVENT_MANAGER_CLIENT          342u
#define MTS_SAP_EVENT_MANAGER_CLIENT_HIGHPRIO 364u
#define MTS_SAP_MVSH                          422u
#define MTS_SAP_MVSH_HIGH_PRIORITY            485u

/* All of these: queue 0 and unknown queues give -1 and EBADF. */

/* Sends `length` bytes of payload. 0 and the message in *reference, or -1 and errno. */
int mts_send(mts_q_handle_t queue, uint32 destination, uint32 destination_sap, uint32 opcode,
             const void *payload, uint32 length, mts_ref_t *reference, uint32 flags,
             uint32 reserved);

/* The token that pairs the request `reference` with its response. */
mts_rr_token_t mts_rr_token_get(mts_ref_t reference);

/* Waits for a message. 0 and the message in *reference, or -1 and errno (EINTR when a signal
 * came, ETIMEDOUT when nothing came). */
int mts_recv(mts_q_handle_t queue, mts_ref_t *reference, const mts_recv_options_t *options);

/* The message's bytes, at least 4 of them, valid until it is dropped; null for a message that has
 * fewer. */
void *mts_payload_get(mts_ref_t reference);

/* Releases a message. 0, or -1 and errno. */
int mts_drop(mts_q_handle_t queue, mts_ref_t reference);

/* Removes a service access point. 0, or -1 and errno. */
int mts_sap_destroy(mts_q_handle_t queue, uint32 sap);

PLATFORM_END_DECLS

#endif
