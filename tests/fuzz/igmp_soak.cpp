#include "core/settings.h"
#include "igmp_world.h"
#include "soak.h"

int main(int argc, char **argv) {
  ProxyMode = PROXY_MODE_4TO4;
  constexpr auto message_steps = static_cast<int>(world::igmp_step::tick);
  const world::soaked_side igmp{world::start_igmp,    world::stop_igmp,       world::tick_igmp,
                                world::run_igmp_step, world::quiet_down_igmp, message_steps};
  return world::run_soak(igmp, argc, argv);
}
