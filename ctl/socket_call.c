/* In C, because the library's headers are.  Its own client waits without an end for a daemon that does not
 * answer; this one gives the library's non-blocking connection a deadline. */

#include "ctl/socket_call.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <config.h>
#include <jsonrpc.h>
#include <openvswitch/json.h>
#include <openvswitch/poll-loop.h>
#include <openvswitch/util.h>
#include <openvswitch/vlog.h>
#include <stream.h>
#include <timeval.h>

/* How long to wait before a socket whose queue of connections is full is tried again. */
#define BUSY_PAUSE_MS 5

static int open_stream(const char* path, long long deadline, struct stream** stream) {
  char* name = xasprintf("unix:%s", path);
  int error;
  while ((error = stream_open(name, stream, 0)) == EAGAIN && time_msec() < deadline) {
    poll_timer_wait(BUSY_PAUSE_MS);
    poll_block();
  }
  free(name);
  return error;
}

static enum socket_call_end text_of(const struct jsonrpc_msg* reply, char** text) {
  const struct json* body = reply->error != NULL ? reply->error : reply->result;
  if (body == NULL || body->type != JSON_STRING) {
    *text = xstrdup("the answer is not of the command protocol");
    return SOCKET_CALL_FAILED;
  }
  *text = xstrdup(json_string(body));
  return reply->error != NULL ? SOCKET_CALL_REFUSED : SOCKET_CALL_ANSWERED;
}

static enum socket_call_end exchange(struct jsonrpc* rpc, struct json* id, long long deadline, char** text) {
  for (;;) {
    struct jsonrpc_msg* message = NULL;
    jsonrpc_run(rpc);
    const int error = jsonrpc_recv(rpc, &message);
    if (error == 0) {
      const bool ours = (message->type == JSONRPC_REPLY || message->type == JSONRPC_ERROR) &&
                        message->id != NULL && json_equal(message->id, id);
      const enum socket_call_end end = ours ? text_of(message, text) : SOCKET_CALL_LATE;
      jsonrpc_msg_destroy(message);
      if (ours) return end;
    } else if (error != EAGAIN) {
      *text = xstrdup(error == EOF ? "the daemon closed the connection" : ovs_strerror(error));
      return SOCKET_CALL_FAILED;
    }
    if (time_msec() >= deadline) return SOCKET_CALL_LATE;
    if (error == EAGAIN) {
      jsonrpc_wait(rpc);
      jsonrpc_recv_wait(rpc);
      poll_timer_wait_until(deadline);
      poll_block();
    }
  }
}

static enum socket_call_end call(const char* path, long long timeout_ms, const char* command,
                                 const char* const* arguments, size_t count, char** text) {
  const long long deadline = time_msec() + timeout_ms;
  struct stream* stream = NULL;
  *text = NULL;
  const int error = open_stream(path, deadline, &stream);
  if (error == EAGAIN) return SOCKET_CALL_LATE;
  if (error != 0) {
    *text = xstrdup(ovs_strerror(error));
    return SOCKET_CALL_FAILED;
  }
  struct json* words = json_array_create_empty();
  for (size_t i = 0; i < count; ++i) json_array_add(words, json_string_create(arguments[i]));
  struct json* id = NULL;
  struct jsonrpc_msg* request = jsonrpc_create_request(command, words, &id);
  struct jsonrpc* rpc = jsonrpc_open(stream);
  jsonrpc_send(rpc, request);
  const enum socket_call_end end = exchange(rpc, id, deadline, text);
  json_destroy(id);
  jsonrpc_close(rpc);
  return end;
}

/* The library writes to the socket as a daemon does that ignores SIGPIPE.  This program wants the signal for
 * its own output, whose reader may leave. */
enum socket_call_end socket_call(const char* path, long long timeout_ms, const char* command,
                                 const char* const* arguments, size_t count, char** text) {
  struct sigaction ignored = {.sa_handler = SIG_IGN};
  struct sigaction before;
  sigaction(SIGPIPE, &ignored, &before);
  /* What the library has to say comes back as a reason. */
  vlog_set_levels(NULL, VLF_CONSOLE, VLL_OFF);
  const enum socket_call_end end = call(path, timeout_ms, command, arguments, count, text);
  sigaction(SIGPIPE, &before, NULL);
  return end;
}
