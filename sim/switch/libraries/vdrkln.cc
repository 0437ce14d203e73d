#include <cstdio>

#include "platform/switchlib/routerlib.h"
#include "platform/switchlib/switchlib.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/library_call.h"
#include "sim/switch/tree/state_tree.h"

// A router that is removed from a switch reports "busy" for as many queries as "unloadPolls" in its file
// says.

using namespace zem::sim;

namespace {

bool ParseMac(const std::string& text, uint8_t mac[VDR_MAC_SIZE]) {
  int end = 0;
  return std::sscanf(text.c_str(), "%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%n", &mac[0], &mac[1], &mac[2], &mac[3],
                     &mac[4], &mac[5], &end) == VDR_MAC_SIZE &&
         static_cast<size_t>(end) == text.size();
}

}  // namespace

ZEM_SIM_EXPORT uint32_t VDRKNL_GetVMAC(const char* dvs, uint8_t mac[VDR_MAC_SIZE]) {
  LibraryCall call({__func__, dvs});
  if (call.fails()) return call.result();
  const JsonFile router = tree::GoodName(dvs) ? ReadJson(tree::RouterFile(dvs)) : nullptr;
  if (!router || !ParseMac(JsonString(router.get(), "vmac"), mac)) return call.Result(DVS_NOT_FOUND);
  return call.Result(0);
}

ZEM_SIM_EXPORT uint32_t VDRKNL_PlumbVdrConnection(const char* dvs, const char* port,
                                                  const uint8_t mac[VDR_MAC_SIZE], uint32_t teaming,
                                                  const char* const* uplinks, uint32_t num_uplinks) {
  LibraryCall call({__func__, dvs, port});
  if (call.fails()) return call.result();
  const tree::TreeLock lock;
  if (!tree::GoodName(dvs) || !tree::Exists(tree::SwitchDir(dvs) + "/meta.json")) {
    return call.Result(DVS_NOT_FOUND);
  }
  JsonFile router = ReadJson(tree::RouterFile(dvs));
  if (!router) router.reset(cJSON_CreateObject());
  char text[2 * VDR_MAC_SIZE + 1];
  std::snprintf(text, sizeof(text), "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  SetJson(router.get(), "vmac", std::string(text));
  SetJson(router.get(), "plumbed", true);
  SetJson(router.get(), "port", std::string(port));
  SetJson(router.get(), "teaming", static_cast<int>(teaming));
  cJSON_DeleteItemFromObjectCaseSensitive(router.get(), "uplinks");
  cJSON* const list = cJSON_AddArrayToObject(router.get(), "uplinks");
  for (uint32_t i = 0; i < num_uplinks; ++i) cJSON_AddItemToArray(list, cJSON_CreateString(uplinks[i]));
  return call.Result(WriteJson(tree::RouterFile(dvs), router.get()) ? 0 : DVS_FAILURE);
}

ZEM_SIM_EXPORT uint32_t VDRKNL_UnPlumbVdrConnection(const char* dvs) {
  LibraryCall call({__func__, dvs});
  if (call.fails()) return call.result();
  const tree::TreeLock lock;
  JsonFile router = tree::GoodName(dvs) ? ReadJson(tree::RouterFile(dvs)) : nullptr;
  if (!router || !cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(router.get(), "plumbed"))) {
    return call.Result(DVS_NOT_FOUND);
  }
  SetJson(router.get(), "plumbed", false);
  SetJson(router.get(), "vmac", std::string());
  SetJson(router.get(), "unloadPollsLeft", JsonNumber(router.get(), "unloadPolls"));
  return call.Result(WriteJson(tree::RouterFile(dvs), router.get()) ? 0 : DVS_FAILURE);
}

ZEM_SIM_EXPORT uint32_t VDRKNL_GetUnloadStatus(int* busy) {
  LibraryCall call({__func__});
  if (call.fails()) return call.result();
  const tree::TreeLock lock;
  *busy = 0;
  const std::string directory = tree::Root() + "/switch/vdr";
  for (const std::string& file : tree::List(directory).value_or(std::vector<std::string>())) {
    JsonFile router = ReadJson(directory + "/" + file);
    const int left = router ? JsonNumber(router.get(), "unloadPollsLeft") : 0;
    if (left <= 0) continue;
    *busy = 1;
    SetJson(router.get(), "unloadPollsLeft", left - 1);
    if (!WriteJson(directory + "/" + file, router.get())) return call.Result(DVS_FAILURE);
  }
  return call.Result(0);
}
