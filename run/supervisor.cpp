#include "run/supervisor.h"

#include "run/end_reason.h"
#include "run/notify_socket.h"
#include "run/programs.h"
#include "run/report.h"
#include "run/routing_state.h"
#include "run/runtime_folder.h"
#include "run/saved_flags.h"
#include "run/service_state.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

supervisor Supervisor{};

namespace {

constexpr std::int64_t ms_per_second = 1000;
// Interfaces come up one after another when a router boots: the first start waits a little for all of them.
constexpr std::int64_t company_ms = 3 * ms_per_second;
constexpr std::int64_t least_between_newcomers_ms = 10 * ms_per_second;
// How often to look whether streams can flow already: often at first, then as rarely as an idle router wakes up.
constexpr std::int64_t look_soon_ms = 100;
constexpr std::int64_t look_later_ms = 1 * ms_per_second;
constexpr std::int64_t soon_ms = 10 * ms_per_second;

using status_text = std::array<char, 512>;

status_text LastSaid{};

// Says a line unless it is the one that was said last: what is waited for, why it cannot start.
void say_once(const char *text) {
  if (std::strcmp(LastSaid.data(), text) != 0) {
    std::snprintf(LastSaid.data(), LastSaid.size(), "%s", text);
    say("%s", text);
  }
}

void enter(supervisor_phase phase, std::int64_t now_ms) {
  Supervisor.phase = phase;
  Supervisor.phase_since_ms = now_ms;
}

std::int64_t next_look(std::int64_t now_ms) {
  return now_ms + (now_ms - Supervisor.phase_since_ms < soon_ms ? look_soon_ms : look_later_ms);
}

bool is_network_own() { return Supervisor.options->network == network_mode::own; }

std::span<served_interface> given_downstreams(std::array<served_interface, MOST_DOWNSTREAMS> &storage) {
  std::size_t count = 0;
  for (std::size_t i = 1; i < Supervisor.served.count; ++i) {
    if (Supervisor.served.all[i].given.index != 0) {
      storage[count++] = Supervisor.served.all[i];
    }
  }
  return std::span{storage}.first(count);
}

void describe_service(status_text &text) {
  std::array<served_interface, MOST_DOWNSTREAMS> storage;
  std::snprintf(text.data(), text.size(), "Streams from %s can flow to", Supervisor.served.all[0].name.data());
  for (const served_interface &lan : given_downstreams(storage)) {
    const std::size_t length = std::strlen(text.data());
    std::snprintf(&text[length], text.size() - length, " %s", lan.name.data());
  }
}

void say_what_is_waited_for() {
  waiting_text missing;
  describe_missing(Supervisor.served, missing);
  status_text text;
  std::snprintf(text.data(), text.size(), "waiting for %s", missing.data());
  say_once(text.data());
  tell_state(text.data());
}

bool make_network() {
  network_wish wish{};
  wish.upstream = Supervisor.options->upstream;
  wish.upstream_link = Supervisor.options->upstream_link;
  std::array<served_interface, MOST_DOWNSTREAMS> storage;
  for (const served_interface &lan : given_downstreams(storage)) {
    wish.downstreams[wish.downstream_count++] = lan.name;
  }
  return make_private_network(wish, Supervisor.network);
}

void remove_network() { remove_private_network(Supervisor.network); }

program_start plan_start(std::array<interface_name, MOST_DOWNSTREAMS> &names) {
  program_start start{};
  start.options = Supervisor.options;
  start.network_namespace = -1;
  if (is_network_own()) {
    start.upstream = Supervisor.network.upstream;
    names = Supervisor.network.downstreams;
    start.downstreams = std::span{names}.first(Supervisor.network.downstream_count);
    start.network_namespace = Supervisor.network.descriptor;
    return start;
  }
  start.upstream = Supervisor.served.all[0].name;
  std::array<served_interface, MOST_DOWNSTREAMS> storage;
  const auto given = given_downstreams(storage);
  std::transform(given.begin(), given.end(), names.begin(), [](const served_interface &lan) { return lan.name; });
  start.downstreams = std::span{names}.first(given.size());
  return start;
}

void save_given_flags() {
  if (is_network_own()) {
    return;
  }
  for (const served_interface &one : std::span{Supervisor.served.all}.first(Supervisor.served.count)) {
    if (one.given.index != 0) {
      save_flags(one.given.index, one.given.flags);
    }
  }
}

// The daemon passes over such names (mld/mld_interface.cpp).
void warn_of_wan_names() {
  for (std::size_t i = 1; !is_network_own() && i < Supervisor.served.count; ++i) {
    const char *name = Supervisor.served.all[i].name.data();
    if (std::strstr(name, "ppp") != nullptr || std::strstr(name, "nas") != nullptr) {
      say_error("tarnwick does not serve %s: a LAN name with \"ppp\" or \"nas\" in it; use --network=private", name);
    }
  }
}

void pause_after_failure(std::int64_t now_ms) {
  remove_network();
  forget_given_interfaces(Supervisor.served);
  pace_after_end(Supervisor.pace, now_ms, now_ms);
  enter(supervisor_phase::waiting, now_ms);
}

void begin_stop(std::int64_t now_ms) {
  ask_pair_to_end(would_end_set_wrong_flags(Supervisor.served));
  enter(supervisor_phase::stopping, now_ms);
}

void begin_restart(const char *why, const interface_name &name, std::int64_t now_ms) {
  say("%s %s; starting tarnwick again", name.data(), why);
  pace_after_stop(Supervisor.pace, ProgramPair.daemon.started_ms);
  begin_stop(now_ms);
}

std::int64_t advance_stop(std::int64_t now_ms) {
  std::int64_t next_ms = NEVER_MS;
  if (!is_pair_ended(now_ms, next_ms)) {
    return next_ms;
  }
  restore_flags();
  remove_network();
  enter(Supervisor.is_end_wanted ? supervisor_phase::ended : supervisor_phase::waiting, now_ms);
  return now_ms;
}

std::int64_t start_programs(std::int64_t now_ms) {
  save_given_flags();
  warn_of_wan_names();
  std::array<interface_name, MOST_DOWNSTREAMS> names;
  program_start start = plan_start(names);
  Supervisor.has_been_started = true;
  note_host_pool(false);
  enter(supervisor_phase::starting, now_ms);
  if (!start_pair(start, now_ms)) {
    pace_after_end(Supervisor.pace, now_ms, now_ms);
    begin_stop(now_ms);
  }
  return now_ms;
}

std::int64_t prepare_network(std::int64_t now_ms) {
  if (is_private_network_ready(Supervisor.network)) {
    return start_programs(now_ms);
  }
  if (find_lost_link(Supervisor.network) != nullptr) {
    pause_after_failure(now_ms);
    return now_ms;
  }
  return next_look(now_ms);
}

std::int64_t begin_start(std::int64_t now_ms) {
  give_ready_interfaces(Supervisor.served);
  if (!is_network_own()) {
    return start_programs(now_ms);
  }
  if (!make_network()) {
    tell_failed_start("The private network cannot be made; the log says why");
    pause_after_failure(now_ms);
    return Supervisor.pace.not_before_ms;
  }
  enter(supervisor_phase::preparing, now_ms);
  return now_ms;
}

// How long the first start waits for interfaces that other ones are ahead of.
std::int64_t company_until(std::int64_t now_ms) {
  if (Supervisor.has_been_started || is_everything_ready(Supervisor.served)) {
    return now_ms;
  }
  return Supervisor.can_start_since_ms + company_ms;
}

std::int64_t advance_waiting(std::int64_t now_ms) {
  if (!can_start(Supervisor.served)) {
    Supervisor.can_start_since_ms = NEVER_MS;
    say_what_is_waited_for();
    return NEVER_MS;
  }
  Supervisor.can_start_since_ms = std::min(Supervisor.can_start_since_ms, now_ms);
  const std::int64_t start_at_ms = std::max(Supervisor.pace.not_before_ms, company_until(now_ms));
  return now_ms < start_at_ms ? start_at_ms : begin_start(now_ms);
}

bool has_every_mif(const program_start &start) {
  const pid_t daemon = ProgramPair.daemon.pid;
  return has_mif(daemon, start.upstream) &&
         std::all_of(start.downstreams.begin(), start.downstreams.end(),
                     [&](const interface_name &name) { return has_mif(daemon, name); });
}

// A MIF goes with its interface: one that was made again in the meantime has none, even under the same index.
bool is_made_anew(const served_interface &one) {
  return Supervisor.phase == supervisor_phase::serving && !is_network_own() && one.given.index != 0 &&
         is_ready(Supervisor.served, one) && !has_mif(ProgramPair.daemon.pid, one.name);
}

// Restarts the daemon if it does not know an interface as it is now. Returns whether it does so.
bool is_restarted_for(const served_interface &one, std::int64_t now_ms, std::int64_t &next_ms) {
  switch (find_difference(Supervisor.served, one, now_ms, next_ms)) {
  case difference::address:
    begin_restart("has another link-local address, or none", one.name, now_ms);
    return true;
  case difference::index:
    begin_restart("is another interface now", one.name, now_ms);
    return true;
  case difference::new_here: {
    const std::int64_t taken_in_at_ms = ProgramPair.daemon.started_ms + least_between_newcomers_ms;
    if (now_ms < taken_in_at_ms) {
      next_ms = std::min(next_ms, taken_in_at_ms);
      return false;
    }
    begin_restart("is there now", one.name, now_ms);
    return true;
  }
  case difference::none:
    break;
  }
  if (is_made_anew(one)) {
    begin_restart("was made anew", one.name, now_ms);
    return true;
  }
  return false;
}

// What flows, or what is away while the daemon runs on.
void tell_service() {
  status_text text;
  if (is_everything_ready(Supervisor.served)) {
    describe_service(text);
    if (LastSaid[0] != '\0') {
      say("every interface is there again");
    }
    LastSaid = {};
  } else {
    waiting_text missing;
    describe_missing(Supervisor.served, missing);
    std::snprintf(text.data(), text.size(), "running; waiting for %s", missing.data());
    say_once(text.data());
  }
  tell_state(text.data());
}

std::int64_t advance_run(std::int64_t now_ms) {
  std::int64_t next_ms = NEVER_MS;
  if (const interface_name *lost = find_lost_link(Supervisor.network); lost != nullptr) {
    begin_restart("has lost its link to the private network", *lost, now_ms);
    return now_ms;
  }
  for (const served_interface &one : std::span{Supervisor.served.all}.first(Supervisor.served.count)) {
    if (is_restarted_for(one, now_ms, next_ms)) {
      return now_ms;
    }
  }
  std::array<interface_name, MOST_DOWNSTREAMS> names;
  program_start start = plan_start(names);
  keep_companion(start, now_ms, next_ms);
  if (Supervisor.phase == supervisor_phase::serving) {
    tell_service();
    return next_ms;
  }
  const bool has_entry = !Supervisor.options->has_companion || has_static_entry(ProgramPair.daemon.pid);
  if (!has_entry || !has_every_mif(start)) {
    return std::min(next_ms, next_look(now_ms));
  }
  enter(supervisor_phase::serving, now_ms);
  status_text text;
  describe_service(text);
  say("%s", text.data());
  LastSaid = {};
  tell_ready(text.data());
  tell_service();
  return next_ms;
}

std::int64_t advance_phase(std::int64_t now_ms) {
  switch (Supervisor.phase) {
  case supervisor_phase::waiting:
    return advance_waiting(now_ms);
  case supervisor_phase::preparing:
    return prepare_network(now_ms);
  case supervisor_phase::starting:
  case supervisor_phase::serving:
    return advance_run(now_ms);
  case supervisor_phase::stopping:
    return advance_stop(now_ms);
  case supervisor_phase::ended:
    break;
  }
  return NEVER_MS;
}

end_facts facts_of_start() {
  end_facts facts{};
  facts.network = Supervisor.options->network;
  for (const served_interface &one : std::span{Supervisor.served.all}.first(Supervisor.served.count)) {
    if (one.given.index != 0) {
      facts.names[facts.count] = one.name;
      facts.indexes[facts.count++] = one.given.index;
    }
  }
  return facts;
}

} // namespace

bool begin_supervision(const run_options &options) {
  Supervisor = {};
  Supervisor.options = &options;
  Supervisor.can_start_since_ms = NEVER_MS;
  LastSaid = {};
  clear_program_pair();
  clear_service_state();
  if (!find_programs(options) || !open_runtime_folder(options)) {
    return false;
  }
  open_notify_socket();
  restore_left_flags();
  remove_stale_private_network(options);
  fill_served_interfaces(options, Supervisor.served);
  return true;
}

std::int64_t advance_supervision(std::int64_t now_ms) {
  const bool is_every_answer_there = look_at_served_interfaces(Supervisor.served, now_ms);
  const std::int64_t next_ms = advance_phase(now_ms);
  return is_every_answer_there ? next_ms : std::min(next_ms, now_ms + look_later_ms);
}

void note_end_of_child(pid_t pid, int wait_status, std::int64_t now_ms) {
  const std::int64_t started_ms = ProgramPair.daemon.started_ms;
  end_text reason;
  if (!note_end_of_program(pid, wait_status, facts_of_start(), now_ms, reason)) {
    return;
  }
  const int wait_s = pace_after_end(Supervisor.pace, started_ms, now_ms);
  say_error("tarnwick ended: %s", reason.data());
  say("it is started again in %d s", wait_s);
  status_text text;
  std::snprintf(text.data(), text.size(), "tarnwick ended: %s", reason.data());
  tell_failed_start(text.data());
  begin_stop(now_ms);
}

void end_supervision(std::int64_t now_ms) {
  Supervisor.is_end_wanted = true;
  tell_stopping();
  if (Supervisor.phase != supervisor_phase::stopping) {
    begin_stop(now_ms);
  }
}

void restart_daemon(std::int64_t now_ms) {
  if (Supervisor.phase == supervisor_phase::starting || Supervisor.phase == supervisor_phase::serving) {
    say("starting tarnwick again, as asked");
    pace_after_stop(Supervisor.pace, 0);
    begin_stop(now_ms);
  }
}

void finish_supervision() { close_runtime_folder(); }
