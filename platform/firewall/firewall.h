#ifndef ZEM_PLATFORM_FIREWALL_FIREWALL_H
#define ZEM_PLATFORM_FIREWALL_FIREWALL_H

/* The C API of the host's firewall library; see README.md.
 *
 * Threads: all calls from any thread; one attribute set belongs to one thread.
 * Results: a status, 0 is success. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t FW_Status;

enum {
  FW_OK = 0,
  FW_NOT_LOADED = 1, /* the library itself is missing */
  FW_BAD_HANDLE = 2,
  FW_BAD_KEY = 3, /* a key, a user or an attribute set that is none */
  FW_NO_SUCH_VNIC = 4,
  FW_ALREADY_INITIALIZED = 5,
  FW_NO_MEMORY = 12,
  FW_UNKNOWN_MEMBERSHIP = 70 /* the groups of the user are not known */
};

typedef struct FW_Instance* FW_Handle;
/* What is to be attached to one connection; made and released by its user. */
typedef struct FW_Attr FW_Attr;

typedef struct {
  const char* key;
  const char* value;
} FW_Pair;

typedef struct {
  uint64_t words[8];
} FW_InitBlock;

/* A connection.  A key without addresses is all zero. */
typedef struct {
  uint8_t family; /* 0 IPv4, 1 IPv6 */
  uint8_t protocol;
  uint16_t src_port; /* ports in network byte order */
  uint16_t dest_port;
  uint8_t src_ip[16]; /* as inet_pton gives them */
  uint8_t dest_ip[16];
} FW_ConnKey;

/* The filter of one vNIC. */
typedef struct {
  char vm_uuid[64]; /* texts are padded with zeros */
  char agent[32];
  uint32_t kind : 4; /* 1 */
  uint32_t vnic : 24;
} FW_FilterKey;

/* The versions, counts and modes that this API knows. */
enum { FW_VERSION = 0x10000, FW_INIT_MODE = 2 };

FW_Status FW_Initialize(uint32_t version, const FW_Pair* pairs, uint32_t pair_count, uint32_t mode,
                        FW_InitBlock* block, FW_Handle* handle);
FW_Status FW_CreateConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t filter_count,
                                  const FW_FilterKey* filters, uint32_t flags, FW_Attr** attr);
FW_Status FW_AddAttrUserSID(FW_Attr* attr, const char* user);
FW_Status FW_AddAttrProcessHash(FW_Attr* attr, uint64_t hash);
/* Answers FW_UNKNOWN_MEMBERSHIP when the user of `attr` has no membership. */
FW_Status FW_SetConnectionAttr(FW_Handle handle, const FW_ConnKey* key, uint32_t flags, FW_Attr* attr,
                               uint32_t* result);
/* Takes effect at once; `attr` only says where the user is. */
FW_Status FW_AddAttrUid2MultiSid(FW_Handle handle, FW_Attr* attr, const char* user, const char* const* groups,
                                 uint16_t group_count, uint32_t user_hash);
FW_Status FW_ReleaseConnectionAttr(FW_Attr* attr);
/* The text lives forever. */
const char* FW_StatusToString(FW_Status status);

#ifdef __cplusplus
}
#endif

#endif
