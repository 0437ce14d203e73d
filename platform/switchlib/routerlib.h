#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The router library, "libvdrkln.so": the port by which the host's router is on a switch.  Loaded at run
/// time.
///
/// Results as of the switch library (switchlib.h): 0, DVS_NOT_FOUND, or another code.  Any thread may call.

#define VDR_MAC_SIZE 6u

/// DVS_NOT_FOUND when no router has been on the switch.
uint32_t VDRKNL_GetVMAC(const char* dvs, uint8_t mac[VDR_MAC_SIZE]);
uint32_t VDRKNL_PlumbVdrConnection(const char* dvs, const char* port, const uint8_t mac[VDR_MAC_SIZE],
                                   uint32_t teaming, const char* const* uplinks, uint32_t num_uplinks);
uint32_t VDRKNL_UnPlumbVdrConnection(const char* dvs);
/// Whether a router that was taken off is still on its way out.
uint32_t VDRKNL_GetUnloadStatus(int* busy);

#ifdef __cplusplus
}
#endif
