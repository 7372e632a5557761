#include "mld/mld_start_up.h"

#include "core/log.h"
#include "core/pool.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_shutdown.h"

int init_mld_config() {
  log_debug(MLD_HERE, "Initializing MLD configuration settings.");
  MldRouter = mld_router{};
  MldGroupIndex = list_index{};
  MldHostIndex = list_index{};
  MldRouter.other_querier_interval = MLD_OTHER_QUERIER_INTERVAL_S;
  MldRouter.query_interval = MLD_QUERY_INTERVAL_S;
  MldRouter.query_response_interval = MLD_QUERY_RESPONSE_INTERVAL_S;
  MldRouter.group_membership_interval = MLD_GROUP_MEMBERSHIP_INTERVAL_S;
  MldRouter.unsolicited_report_interval = MLD_UNSOLICITED_REPORT_INTERVAL_S;
  MldRouter.last_member_query_interval = MLD_LAST_MEMBER_QUERY_INTERVAL_S;
  MldRouter.last_member_query_count = MLD_LAST_MEMBER_QUERY_COUNT;
  MldRouter.robustness = MLD_ROBUSTNESS;
  MldRouter.startup_query_interval = MLD_STARTUP_QUERY_INTERVAL_S;
  MldRouter.startup_query_count = MLD_STARTUP_QUERY_COUNT;
  MldRouter.v1_router_present_timeout = MLD_V1_ROUTER_PRESENT_TIMEOUT_S;
  MldRouter.source_interval = MLD_SOURCE_INTERVAL_S;
  MldRouter.downstream_names = copy_interface_names(DownstreamInterfacesName, DownstreamInterfacesNum);
  MldRouter.upstream_name = copy_interface_name(UpstreamInterfacesName);
  return 0;
}

int init_mld_group() {
  log_debug(MLD_HERE, "Initializing MLD group list.");
  if (!fill_pool<mld_group>(&MldRouter.free_groups, MLD_GROUP_POOL_SIZE)) {
    log_error(MLD_HERE, "Unable to allocate memory for MLD groups.");
    return -1; // no stop here, unlike the pools below: the caller ends the program
  }
  return 0;
}

int init_mld_host() {
  log_debug(MLD_HERE, "Initializing MLD host list.");
  if (!fill_pool<mld_host>(&MldRouter.free_hosts, MLD_HOST_POOL_SIZE)) {
    log_error(MLD_HERE, "Unable to allocate memory for host.");
    mld_proxy_stop();
    return -1;
  }
  return 0;
}

int init_mld_query() {
  log_debug(MLD_HERE, "Initializing MLD query list.");
  if (!fill_pool<mld_query>(&MldRouter.free_queries, MLD_QUERY_POOL_SIZE)) {
    log_error(MLD_HERE, "Unable to allocate memory for MLD queries.");
    mld_proxy_stop();
    return -1;
  }
  return 0;
}
