#include "mld_world.h"
#include "soak.h"

int main(int argc, char **argv) {
  constexpr auto message_steps = static_cast<int>(world::mld_step::tick);
  const world::soaked_side mld{world::start_mld,    world::stop_mld,       world::tick_mld,
                               world::run_mld_step, world::quiet_down_mld, message_steps};
  return world::run_soak(mld, argc, argv);
}
