#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

// The smallest process that stays on the session bus: it connects and waits. The benchmark
// `resident` compares the client's memory and wake-ups with those of this process.
int main() {
  sd_event* loop = nullptr;
  sd_bus* bus = nullptr;
  if (sd_event_new(&loop) < 0 || sd_bus_open_user(&bus) < 0) return 1;
  if (sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL) < 0) return 1;
  return sd_event_loop(loop);
}
