#include "sim/guest/guest_picture.h"

#include "sim/guest/world/guest_world.h"

namespace zem::sim::guest {

std::vector<std::string> DrawGuests(const GuestWorld& world, size_t most) {
  const std::vector<Guest> guests = world.guests();
  if (guests.empty()) return {};
  std::vector<std::string> lines{"guests: " + std::to_string(guests.size())};
  for (const Guest& guest : guests) {
    if (lines.size() > most) {
      lines.push_back("  ...");
      break;
    }
    std::string line = "  " + guest.name + (guest.on ? "" : " (off)");
    for (const auto& [id, session] : guest.sessions)
      line += " " + session.user + "#" + std::to_string(id) + (session.active ? "" : "(away)");
    line += ", " + std::to_string(guest.sockets.size()) + " connections";
    lines.push_back(line);
  }
  return lines;
}

}  // namespace zem::sim::guest
