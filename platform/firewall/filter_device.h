#ifndef ZEM_PLATFORM_FIREWALL_FILTER_DEVICE_H
#define ZEM_PLATFORM_FIREWALL_FILTER_DEVICE_H

/* The requests of the firewall's device, and the layout of what they carry. */

#include <stdint.h>

#define FW_DEVICE "/dev/zem-gatr"

enum {
  FW_REQUEST_FILTER_COUNT = 20,
  FW_REQUEST_FILTERS = 21,
  FW_AGENT_SIZE = 100,
  FW_FILTER_SIZE = 925 /* of one record */
};

#pragma pack(push, 1)
typedef struct {
  uint32_t command; /* the request's number */
  uint32_t status;  /* set by the driver, 0 is success */
  uint32_t body_size;
  uint64_t body;
} FW_DeviceHeader;

typedef struct {
  char agent[FW_AGENT_SIZE];
  uint32_t filter_count; /* out of the first request, in to the second; the second gives how many it wrote */
  uint32_t buffer_size;
  uint32_t reserved;
  uint64_t buffer;
} FW_DeviceBody;
#pragma pack(pop)

/* Where the fields of a filter record are; it is packed, so no field is aligned. */
enum {
  FW_FILTER_NAME = 204,
  FW_FILTER_NAME_SIZE = 100,
  FW_FILTER_VM_UUID = 304,
  FW_FILTER_VM_UUID_SIZE = 128,
  FW_FILTER_VNIC = 432,     /* uint32_t */
  FW_FILTER_BYPASSED = 576, /* uint64_t */
  FW_FILTER_DROPPED = 584,  /* uint64_t */
  FW_FILTER_HAS_VIF = 802   /* one byte */
};

#ifdef __cplusplus
static_assert(sizeof(FW_DeviceHeader) == 20 && sizeof(FW_DeviceBody) == 120);
#endif

#endif
