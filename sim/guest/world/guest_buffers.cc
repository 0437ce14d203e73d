#include "sim/guest/world/guest_buffers.h"

#include <cstdlib>

namespace zem::sim::guest {
namespace {

constexpr size_t kOsBlock = 100;

uint32_t TypeOf(const Guest& guest) {
  if (guest.system == System::kOther) return 9;
  return guest.windows() ? 1 : 2;
}

}  // namespace

Buffer VmIdBuffer(const Guest& guest) {
  Buffer buffer;
  buffer.bytes = guest.bios_id + guest.config_path + '\0';
  return buffer;
}

Buffer LogonSessionsBuffer(const Guest& guest) {
  constexpr size_t kRecord = 44;
  Buffer buffer(4 + kRecord * guest.sessions.size());
  buffer.Put<uint32_t>(0, static_cast<uint32_t>(guest.sessions.size()));
  size_t at = 4;
  for (const auto& [id, session] : guest.sessions) {
    const User& user = guest.users.at(session.user);
    buffer.Put<uint32_t>(at, id);
    buffer.Put<uint32_t>(at + 4, session.active ? 0 : 1);
    buffer.PutText(at + 8, user.name, true);
    buffer.PutText(at + 20, user.domain, true);
    buffer.PutText(at + 32, user.sid, true);
    at += kRecord;
  }
  return buffer;
}

Buffer NetworkEventBuffer(const Guest& guest, const Happening& happening) {
  Buffer buffer(76);
  const Socket& socket = happening.socket;
  buffer.Put<uint32_t>(0, socket.protocol);
  buffer.PutAddress(4, socket.source_ip);
  buffer.Put<uint16_t>(24, socket.source_port);
  buffer.PutAddress(26, socket.destination_ip);
  buffer.Put<uint16_t>(46, socket.destination_port);
  if (guest.windows()) {
    buffer.PutText(48, happening.user.sid, true);
  } else {
    buffer.Put<uint32_t>(48, happening.user.uid);
  }
  buffer.Put<uint64_t>(60, happening.process.pid);
  buffer.Put<uint64_t>(68, happening.process.ctime);
  return buffer;
}

Buffer ProcessInfoBuffer(const Guest& guest, const Process& process) {
  Buffer buffer(24);
  buffer.PutText(0, process.name, guest.windows());
  buffer.PutText(12, process.command_line, guest.windows());
  return buffer;
}

Buffer HashBuffer(const Process& process) {
  Buffer buffer(2);
  buffer.Put<uint16_t>(0, static_cast<uint16_t>(process.hash.size()));
  buffer.bytes += process.hash;
  return buffer;
}

Buffer GroupsBuffer(const Guest& guest, const std::vector<std::string>& groups) {
  const size_t item = guest.windows() ? 12 : 4;
  Buffer buffer(2 + item * groups.size());
  buffer.Put<uint16_t>(0, static_cast<uint16_t>(groups.size()));
  size_t at = 2;
  for (const std::string& group : groups) {
    if (guest.windows()) {
      buffer.PutText(at, group, true);
    } else {
      buffer.Put<uint32_t>(at, static_cast<uint32_t>(std::strtoul(group.c_str(), nullptr, 10)));
    }
    at += item;
  }
  return buffer;
}

Buffer SystemEventBuffer(const Guest& guest, const Happening& happening) {
  Buffer buffer(60);
  buffer.PutText(0, happening.user.name, guest.windows());
  buffer.PutText(12, happening.user.domain, guest.windows());
  if (guest.windows()) {
    buffer.PutText(24, happening.user.sid, true);
  } else {
    Buffer uid(4);
    uid.Put<uint32_t>(0, happening.user.uid);
    buffer.Put<uint32_t>(24, 4);
    buffer.PutPointer(28, uid.bytes);
  }
  buffer.Put<uint32_t>(36, happening.session.id);
  // A session at the guest's own console has no client.
  if (!buffer.PutAddress(40, happening.session.client_ip)) buffer.Put<uint32_t>(40, 2);
  return buffer;
}

Buffer UserBuffer(const Guest& guest, const User& user) {
  Buffer buffer(24);
  buffer.PutText(0, user.name, guest.windows());
  buffer.PutText(12, user.domain, guest.windows());
  return buffer;
}

Buffer OsBuffer(const Guest& guest) {
  Buffer buffer(kOsBlock);
  buffer.Put<uint32_t>(0, TypeOf(guest));
  if (guest.windows()) {
    buffer.Put<uint32_t>(4, 10);
    buffer.Put<uint32_t>(12, 17763);
    buffer.PutText(16, "Service Pack 1", true);
    buffer.Put<uint16_t>(28, 1);
    buffer.Put<uint8_t>(32, guest.system == System::kMultiSession ? 3 : 1);
  } else if (guest.system == System::kLinux) {
    size_t at = 4;
    for (const char* text :
         {"5.1", "distribution", "Distribution 12", "12", "codename", "6.1.0", "#1 SMP", "Linux"}) {
      buffer.PutText(at, text, false);
      at += 12;
    }
  }
  return buffer;
}

Buffer ExtendedOsBuffer(const Guest& guest) {
  Buffer buffer(kOsBlock + 4 + 16);
  buffer.Put<uint32_t>(0, TypeOf(guest));
  buffer.Put<uint32_t>(kOsBlock, 1);
  buffer.Put<uint64_t>(kOsBlock + 4, 1);
  buffer.PutPointer(kOsBlock + 12,
                    guest.system == System::kMultiSession ? "\x01" : std::string_view("\0", 1));
  return buffer;
}

Buffer IntrospectionBuffer(const Guest& guest) {
  Buffer buffer(guest.windows() ? 52 : 32);
  buffer.Put<uint32_t>(0, TypeOf(guest));
  if (guest.windows()) {
    size_t at = 4;
    for (const char* text : {"12.1.0", "12.1.1", "12.2.0", "1.0.4"}) {
      buffer.PutText(at, text, true);
      at += 12;
    }
  } else {
    buffer.Put<uint32_t>(4, 1);
    buffer.PutText(8, "12.1.2", false);
    buffer.PutText(20, "12.1.3", false);
  }
  return buffer;
}

Buffer TextBuffer(std::string_view text) {
  Buffer buffer(12);
  buffer.PutText(0, text, false);
  return buffer;
}

}  // namespace zem::sim::guest
