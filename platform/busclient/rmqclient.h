#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The bus client: the record that verticals exchange with the manager, and the six calls of the road over
/// the local broker.

/// One message.  Plain data: zeroed before use, `cookie` then -1.  Who builds a record frees what it
/// allocated; the receiving client frees `free_block` after the callback.
typedef struct rmqClientMessage {
  int32_t msg_type;           ///< 1..13, named by zem::BusMessageTypeName
  char* app_type;             ///< the vertical's name
  char* app_id;               ///< the vertical's id
  int32_t cookie;             ///< connection cookie; -1 on records made locally
  uint32_t mp_major_version;  ///< the manager's, on ACK and CLOSE records
  uint32_t mp_minor_version;
  uint8_t* header;  ///< a BSON document, which begins with its length
  char* routing_key;
  char* content_type;
  uint64_t payload_len;
  uint8_t* payload;
  void* free_block;  ///< from malloc
} rmqClientMessage;

typedef void (*rmqClientCallback)(void* context, rmqClientMessage* message);

typedef struct rmqClientSettings {
  uint32_t heartbeat_seconds;
  uint32_t connect_timeout_ms;
} rmqClientSettings;

/// Runs the loop on the calling thread until StopNETEventLoop.  0, or a negative error.
int rmqClient_NETEventLoop(int options);

/// A cookie (positive), or a negative error.
int rmqClient_InitNETClient(const char* app_id, const char* app_type, int client_type,
                            rmqClientCallback callback);
int rmqClient_InitNETClient_Custom(const char* app_type, const char* app_id, int client_type, void* context,
                                   rmqClientCallback callback, const rmqClientSettings* settings);

/// 0, or a negative error.
int rmqClient_CloseClient(int cookie);
int rmqClient_SendToVSM(rmqClientMessage* message);

/// Ends the loop; a loop that is started later runs again.
int rmqClient_StopNETEventLoop(void);

#ifdef __cplusplus
}
#endif
