#include "mld/mld_router.h"

#include "core/log.h"
#include "core/pool.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_shutdown.h"

mld_router MldRouter{};
std::uint32_t MldBlock = 0;
std::uint32_t MldStartUpQueryIsSend = 0;
ipv6_address mld_tmp_origin{};

// Defaults of RFC 3810, section 9, where it has one.
int init_mld_config() {
  log_debug(MLD_HERE, "Initializing MLD configuration settings.");
  MldRouter = mld_router{};
  MldGroupIndex = list_index{};
  MldHostIndex = list_index{};
  MldRouter.other_querier_interval = 300;
  MldRouter.query_interval = 125;
  MldRouter.query_response_interval = 10;
  MldRouter.group_membership_interval = 350;
  MldRouter.unsolicited_report_interval = 10;
  MldRouter.last_member_query_interval = 1;
  MldRouter.last_member_query_count = 2;
  MldRouter.robustness = 2;
  MldRouter.startup_query_interval = 30;
  MldRouter.startup_query_count = 2;
  MldRouter.v1_router_present_timeout = 400;
  MldRouter.source_interval = 360;
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
