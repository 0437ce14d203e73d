#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The endpoint library, "libvdl2kln.so": the tunnel endpoints of the host's switches.  Loaded at run time.
///
/// 0 is success; else the reason is in errno: ENOENT no such switch, EFAULT a time out of its range, EINVAL
/// the endpoint's state does not allow it, ENAMETOOLONG no such endpoint, ENOSYS no other healthy endpoint,
/// ENOBUFS internal.  The first four take a switch's name, the others its id.  Any thread may call.

/// A handle, whose first 32 bits are the endpoint's number; null on failure, with the reason in `error`, too.
void* VDL2KNL_GetKnlnic(const char* switch_name, const char* device, void* unused1, void* unused2,
                        void* unused3, int* error);
int VDL2KNL_ReleaseKnlnic(void* knlnic);
/// `state`: 1 up, 0 down.
int VDL2KNL_SetKnlnicState(const char* switch_name, const char* device, uint32_t reserved, int state);
int VDL2KNL_TEPHARecoverKnlnic(const char* switch_name, const char* device, uint32_t reserved);
int VDL2KNL_SetTEPHA(const char* dvs, int enabled, int* error);
int VDL2KNL_SetTEPHAAutoRecover(const char* dvs, int enabled);
int VDL2KNL_SetTEPHAAutoRecoverStartTime(const char* dvs, uint32_t seconds);
int VDL2KNL_SetTEPHAAutoRecoverBackoff(const char* dvs, uint32_t seconds);
int VDL2KNL_SetTEPHATimeout(const char* dvs, uint32_t seconds);

#ifdef __cplusplus
}
#endif
