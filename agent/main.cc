#include "agent/agent.h"

int main() {
  zem::Tarvik::Agent agent;
  if (agent.Start() != 0) return -1;
  agent.Serve();
  agent.Stop();
  return 0;
}
