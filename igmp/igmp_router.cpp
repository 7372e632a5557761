#include "igmp/igmp_router.h"

#include "core/log.h"
#include "core/pool.h"
#include "igmp/igmp_shutdown.h"

igmp_router IgmpRouter{};
std::uint32_t IgmpStartUpQueryIsSend = 0;

// Defaults of RFC 2236, section 8, where it has one.
void init_igmp_config() {
  log_information(IGMP_HERE, "Initializing IGMP configuration.");
  IgmpRouter = igmp_router{};
  IgmpRouter.other_querier_interval = 300;
  IgmpRouter.query_interval = 125;
  IgmpRouter.query_response_interval = 10;
  IgmpRouter.group_membership_interval = 350;
  IgmpRouter.unsolicited_report_interval = 10;
  IgmpRouter.last_member_query_interval = 1;
  IgmpRouter.last_member_query_count = 2;
  IgmpRouter.robustness = 2;
  IgmpRouter.startup_query_interval = 30;
  IgmpRouter.startup_query_count = 2;
  IgmpRouter.v1_router_present_timeout = 400;
  IgmpRouter.v1_host_interval = 360;
  IgmpRouter.non_querier = ForceNonQuerier;
  IgmpRouter.ignore_names = copy_interface_names(IgnoreInterfacesName, IgnoreInterfacesNum);
  IgmpRouter.upstream_name = copy_interface_name(UpstreamInterfacesName);
}

int init_igmp_group() {
  log_information(IGMP_HERE, "Initializing IGMP group list.");
  if (!fill_pool<igmp_group>(&IgmpRouter.free_groups, IGMP_GROUP_POOL_SIZE)) {
    log_error(IGMP_HERE, "Unable to allocate memory for IGMP groups.");
    return -1; // no stop here, unlike the pool below: the caller ends the program
  }
  return 0;
}

int init_igmp_query() {
  log_information(IGMP_HERE, "Initializing IGMP query list.");
  if (!fill_pool<igmp_query>(&IgmpRouter.free_queries, IGMP_QUERY_POOL_SIZE)) {
    log_error(IGMP_HERE, "Unable to allocate memory for IGMP queries.");
    igmp_proxy_stop();
    return -1;
  }
  return 0;
}
