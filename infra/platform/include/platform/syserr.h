/* The statuses that the library and the platform exchange. The numbers are stored in logs and
 * sent in messages: they never change. Included by types.h, which defines syserr_t. */
#ifndef PLATFORM_SYSERR_H
#define PLATFORM_SYSERR_H

#define SYSERR_SUCCESS ((syserr_t)0u)

/* Stores. */
#define SYSERR_PSS_EXISTS    ((syserr_t)0x40480001u) /* a store stands there already */
#define SYSERR_PSS_NO_STORE  ((syserr_t)0x40480002u) /* no store or flat file there */
#define SYSERR_PSS_NOT_FOUND ((syserr_t)0x40480003u) /* key or record not found */
#define SYSERR_PSS_BAD_ARGUMENT                                                                    \
  ((syserr_t)0x40480005u)                             /* null or malformed argument, URI or mode */
#define SYSERR_PSS_TOO_LARGE  ((syserr_t)0x40480006u) /* key or value over the store's limit */
#define SYSERR_PSS_BAD_HANDLE ((syserr_t)0x40480008u) /* handle 0, or a closed one */
#define SYSERR_PSS_DAMAGED    ((syserr_t)0x40480009u) /* damaged record, store or flat file */
#define SYSERR_PSS_NO_ACCESS  ((syserr_t)0x4048000Au) /* no rights, or a handle without the mode */
#define SYSERR_PSS_IO         ((syserr_t)0x4048000Bu) /* the disk failed */
#define SYSERR_PSS_NO_ROOM    ((syserr_t)0x4048000Cu) /* no space left, or no memory */
#define SYSERR_PSS_BUSY       ((syserr_t)0x4048000Du) /* another handle is writing the store */

/* TLV arrays. */
#define SYSERR_TLV_END     ((syserr_t)0x40490001u) /* no further TLV */
#define SYSERR_TLV_DAMAGED ((syserr_t)0x40490002u) /* a TLV passes the stated size */

/* System manager. */
#define SYSERR_IMAGE_VERSION  ((syserr_t)0x401E0056u) /* an image's version could not be read */
#define SYSERR_NO_SUCH_VDC    ((syserr_t)0x401E0076u)
#define SYSERR_TAG_TABLE_FULL ((syserr_t)0x401E0077u) /* the entry does not fit the tag table */
#define SYSERR_NULL_ARGUMENT  ((syserr_t)0x401E00A3u)

/* Messages: the base, with the low 12 bits of errno in its low bits. */
#define SYSERR_MTS_BASE ((syserr_t)0x801E0000u)

/* All bits set: a bad argument, where no more is said. */
#define SYSERR_FAILED ((syserr_t)0xFFFFFFFFu)

#endif
