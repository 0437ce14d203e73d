#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The switch library, "libklnPublic.so": the ports and properties of the host's distributed switches.
///
/// It is loaded at run time; these declarations give the types.  Switches are named by their id, ports by
/// their key, properties by their name.  All calls give 0, DVS_NOT_FOUND, or another code, and are safe from
/// any thread but for DVSKNL_SwitchPortList, which no two threads of a process may be in.  What comes back
/// through a `void **` was allocated with malloc and is the caller's.

#define DVS_FAILURE 0xbad0001u
#define DVS_BAD_ARGUMENT 0xbad0002u
#define DVS_NOT_FOUND 0xbad0003u
#define DVS_EXISTS 0xbad0004u

/// The one serialised form.
#define DVS_FORMAT 100u
/// How port properties are set.
#define DVS_PROPERTY_FLAGS 16u

#define DVS_PORT_KEY_SIZE 48u   ///< with the zero behind it
#define DVS_SWITCH_ID_SIZE 64u  ///< with the zero behind it
#define DVS_NAME_SIZE 84u       ///< of uplinks and teamings, with the zero behind it

/// A list of named values.
typedef struct DVSData DVSData;
typedef struct DVSDataItem DVSDataItem;

uint32_t DVSData_Alloc(DVSData** out);
/// Null is nothing.
uint32_t DVSData_Free(DVSData* data);
/// Replaces the value of `name`, or adds it behind the others.
uint32_t DVSData_Update(DVSData* data, const char* name, const void* value, uint32_t length, uint32_t flags);
uint32_t DVSData_Remove(DVSData* data, const char* name);
uint32_t DVSData_Serialize(DVSData* data, uint32_t format, void** buffer, uint32_t* length);
/// The form tells its own length: bytes behind it are ignored.
uint32_t DVSData_Deserialize(const void* buffer, uint32_t length, DVSData** out);
/// The item behind `current`, the first for null; null behind the last.  Items live until the list changes.
DVSDataItem* DVSData_Next(DVSData* data, DVSDataItem* current);
const char* DVSData_Name(const DVSDataItem* item);
const void* DVSData_Data(const DVSDataItem* item, uint32_t* length);
/// The flags that it was set with.
uint32_t DVSData_PropType(const DVSDataItem* item);

/// `buffer` is a serialised list: the port's first properties.
uint32_t DVSKNL_PortAdd(const char* dvs, const char* port, const void* buffer, uint32_t length);
uint32_t DVSKNL_PortRemove(const char* dvs, const char* port);
uint32_t DVSKNL_PortFind(const char* dvs, const char* port);
uint32_t DVSKNL_PortDataSet(const char* dvs, const char* port, const char* property, const void* value,
                            uint32_t length, uint32_t flags);
uint32_t DVSKNL_PortDataGet(const char* dvs, const char* port, const char* property, void** value,
                            uint32_t* length);
uint32_t DVSKNL_PortDataClear(const char* dvs, const char* port, const char* property);
/// All properties, serialised.
uint32_t DVSKNL_PortStateGet(const char* dvs, const char* port, void** buffer, uint32_t* length);
/// Those that outlive the port: without the volatile ones.
uint32_t DVSKNL_PersistentPortStateGet(const char* dvs, const char* port, uint32_t format, void** buffer,
                                       uint32_t* length);

/// The ports: DVSPortListHeader, then a DVSPortRecord for each.
uint32_t DVSKNL_SwitchPortList(const char* dvs, void** buffer, uint32_t* length);
typedef struct DVSPortListHeader {
  uint32_t count;
  uint32_t reserved;
} DVSPortListHeader;
typedef struct DVSPortRecord {
  char key[DVS_PORT_KEY_SIZE];
  uint32_t reserved;
} DVSPortRecord;

uint32_t DVSKNL_HostPropSet(const char* dvs, const char* property, const void* value, uint32_t length,
                            uint32_t flags);
uint32_t DVSKNL_HostPropGet(const char* dvs, const char* property, void** value, uint32_t* length);
uint32_t DVSKNL_HostPropClear(const char* dvs, const char* property);
uint32_t DVSKNL_GlobalPropSet(const char* dvs, const char* property, const void* value, uint32_t length,
                              uint32_t flags);
uint32_t DVSKNL_GlobalPropGet(const char* dvs, const char* property, void** value, uint32_t* length);
uint32_t DVSKNL_GlobalPropClear(const char* dvs, const char* property);

/// The serialised state of a switch, of all for an empty id.
uint32_t DVSKNL_StateGet(void** buffer, uint32_t* length, const char* dvs, int reserved);
/// Load such a state into the process, in place of the one before: one pair at a time.
uint32_t DVSState_ConfigReset(void);
uint32_t DVSState_ConfigDeserialize(const void* buffer, uint32_t length);
/// A switch of the loaded state by its name, or null.
typedef struct DVSSwitch DVSSwitch;
DVSSwitch* DVSState_SwitchFindByAlias(const char* name);
/// DVS_SWITCH_ID_SIZE bytes.
const char* DVS_SwitchId(const DVSSwitch* dvs);

/// Binary values.  `size` is the whole length; what a comment names follows behind the structure.

typedef struct DVSName {
  char text[DVS_NAME_SIZE];
} DVSName;

/// "com.orlane.vswitch.teaming": then `num_active` and `num_standby` uplink names.
typedef struct VSTeamPolicy {
  uint32_t size;
  uint32_t load_balance;
  uint32_t link_criteria;
  uint32_t flags;
  uint32_t num_active;
  uint32_t num_standby;
} VSTeamPolicy;
#define VS_TEAM_LINK_STATE_ONLY 1u
#define VS_TEAM_ROLLING_ORDER 1u
#define VS_TEAM_NOTIFY_SWITCHES 2u

/// "com.orlane.vswitch.logicalswitch.teaming": then `count` times a DVSName and a VSTeamPolicy with its
/// names.
typedef struct LSTeamTable {
  uint32_t size;
  uint32_t kind;
  uint32_t count;
} LSTeamTable;

/// "com.orlane.etherswitch.lacp": then `count` names of link aggregation groups.
typedef struct LacpTable {
  uint32_t size;
  uint32_t count;
} LacpTable;

/// "com.orlane.vswitch.port.vlan": then `num_ranges` ranges.
typedef struct DVSVlanPolicy {
  uint32_t size;
  uint32_t mode;
  uint32_t vlan;
  uint32_t num_ranges;
} DVSVlanPolicy;
#define DVS_VLAN_ACCESS 1u  ///< one VLAN, 0 for untagged
#define DVS_VLAN_TRUNK 2u   ///< those in the ranges
typedef struct DVSVlanRange {
  uint32_t first;
  uint32_t last;
} DVSVlanRange;

#ifdef __cplusplus
}
#endif
